// The events that wait for a worker, and which of them comes next.
//
// Owns the events in it, from push() until one of the functions that take gives them away. Never
// owns the answer, nor a place whose event is on its way. Hands off to: eventsForProcessing, its
// user, which locks it and answers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "clock.h"
#include "fsfilter.h"

/// One queued event. It is not copied again on its way to the worker.
struct QueuedEvent {
  fsfilter_event_struct event;
  Clock::time_point since;
  std::size_t slot;      ///< of its path
  std::uint64_t number;  ///< counts arrivals

  struct Neighbours {
    QueuedEvent* before;
    QueuedEvent* after;
  };
  Neighbours of_kind;  ///< among the opens or the closes
  Neighbours of_slot;  ///< of a close: among those in its slot

  // Replaces the library's operator, which throws and catches when there is no memory: throwing
  // takes the loader's lock.
  static void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
  }
  static void operator delete(void* place) noexcept { std::free(place); }
};

/// The queue itself. Not locked.
///
/// While the oldest event is young, events come in the order of arrival. Once it has waited longer,
/// opens come before closes, since nobody waits for a close. But an open comes after an earlier
/// close of the same path, and a worker that has taken many opens in a row takes a close.
class EventQueue {
 public:
  using Place = std::unique_ptr<QueuedEvent>;

  EventQueue() { free_.reserve(most_free_places); }
  ~EventQueue();

  /// Copies an event into a place of its own; null if there is no memory. It must not throw, since
  /// the thread that reads the kernel's events calls it.
  Place make_place(const fsfilter_event_struct& event) noexcept;

  /// Keeps the place of an answered event for a later one, or frees it if many are kept already.
  void recycle(Place place);

  bool empty() const { return opens_.first == nullptr && closes_.first == nullptr; }

  /// How long the oldest event has waited. The queue must not be empty.
  Clock::duration waits(Clock::time_point now) const { return now - oldest()->since; }

  void push(Place place, Clock::time_point now);

  /// Takes the event that is next. The queue must not be empty.
  /// @param opens_in_a_row how many opens the taker has taken in a row; the queue updates it
  Place take(int& opens_in_a_row, Clock::time_point now);

  /// Takes the oldest open if it arrived before `bound`; null if there is none.
  Place take_open_before(Clock::time_point bound);

 private:
  /// Events in the order of arrival.
  template <QueuedEvent::Neighbours QueuedEvent::*neighbours>
  struct Line {
    QueuedEvent* first = nullptr;
    QueuedEvent* last = nullptr;
    void append(QueuedEvent* place);
    void remove(QueuedEvent* place);
  };
  using Kind = Line<&QueuedEvent::of_kind>;
  using Slot = Line<&QueuedEvent::of_slot>;

  static constexpr std::size_t slots = 1024;
  static constexpr std::size_t most_free_places = 256;  // about 4 KB each

  QueuedEvent* oldest() const;
  QueuedEvent* next(int opens_in_a_row, Clock::time_point now) const;
  QueuedEvent* close_before(const QueuedEvent& open) const;
  Place remove(QueuedEvent* place);

  Kind opens_;
  Kind closes_;
  std::array<Slot, slots> closes_by_path_{};
  std::uint64_t arrived_ = 0;
  std::vector<Place> free_;  ///< for later events; reserved by the constructor
};
