// The events that wait for a worker, in order of arrival.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include "fsfilter.h"

/// One event in its place: records are not copied again on their way to the worker.
struct QueuedEvent {
  fsfilter_event_struct event;
  bool let_go = false;  ///< allowed already; what is left is to scan and close it
  std::unique_ptr<QueuedEvent> next;

  // Not the library's: without memory it throws and catches, and throwing takes the loader's lock.
  static void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
  }
  static void operator delete(void* place) noexcept { std::free(place); }
};

/// A list of event records that keeps the places of taken events for the next ones, so that it
/// allocates only when more events wait than ever before. Its user's lock guards it.
class EventQueue {
 public:
  EventQueue() = default;
  ~EventQueue();
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  bool empty() const { return first_ == nullptr; }

  /// The oldest event. The queue must not be empty.
  const fsfilter_event_struct& front() const { return first_->event; }
  const QueuedEvent& first() const { return *first_; }

  /// Appends a copy. @return false when there is no memory for it; nothing throws, since the
  /// thread that answers the kernel is the one that posts
  bool push(const fsfilter_event_struct& event) noexcept;

  /// Takes the oldest event. The queue must not be empty.
  std::unique_ptr<QueuedEvent> pop();

  /// Visits the waiting events, the oldest first.
  template <typename Visit>
  void for_each(Visit visit) {
    for (QueuedEvent* place = first_.get(); place != nullptr; place = place->next.get()) {
      visit(*place);
    }
  }

  /// Gives the place of a taken event back; null is fine.
  void recycle(std::unique_ptr<QueuedEvent> place);

 private:
  std::unique_ptr<QueuedEvent> free_place() noexcept;

  std::unique_ptr<QueuedEvent> first_;
  QueuedEvent* last_ = nullptr;
  std::unique_ptr<QueuedEvent> free_;
};

/// How long the same event has been first in a queue. For one thread.
class FrontWatch {
 public:
  using Clock = std::chrono::steady_clock;

  /// @param first the number of the event that is first now, 0 for none
  /// @return since the look that saw it first; 0 without one
  Clock::duration look(std::uint64_t first, Clock::time_point now);

 private:
  std::uint64_t first_ = 0;
  Clock::time_point since_{};
};
