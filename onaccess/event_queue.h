// The events that wait for a worker, in order of arrival.
#pragma once

#include <cstddef>
#include <memory>

#include "fsfilter.h"

/// One event in its place: records are not copied again on their way to the worker.
struct QueuedEvent {
  fsfilter_event_struct event;
  std::unique_ptr<QueuedEvent> next;
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

  /// Appends a copy. @return false when there is no memory for it; nothing throws, since the
  /// thread that answers the kernel is the one that posts
  bool push(const fsfilter_event_struct& event) noexcept;

  /// Takes the oldest event. The queue must not be empty.
  std::unique_ptr<QueuedEvent> pop();

  /// Gives the place of a taken event back; null is fine.
  void recycle(std::unique_ptr<QueuedEvent> place);

 private:
  std::unique_ptr<QueuedEvent> free_place() noexcept;

  std::unique_ptr<QueuedEvent> first_;
  QueuedEvent* last_ = nullptr;
  std::unique_ptr<QueuedEvent> free_;
};
