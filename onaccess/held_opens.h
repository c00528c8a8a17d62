// The held opens: one owner for each, from the read to the answer.
//
// Owns every event from post() until take() hands it to a worker, and allows those that no worker
// takes in time. Never owns an event that a worker has taken: that is a Held, which answers once,
// at the latest when it goes out of scope. Hands off to: the workers. Events still queued at the
// end are answered by the kernel, which allows them when the group is closed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <latch>
#include <optional>
#include <utility>

#include "barriers.h"
#include "event_queue.h"
#include "fsfilter.h"
#include "mutex.h"

struct eventsForProcessing;

/// The name under which events are logged, those of lanes too: that of the workers' function.
inline constexpr char event_log_name[] = "event_processing_thread";

/// An event that must be answered. The first call of allow() or deny() answers the kernel and
/// closes the event's descriptor; later calls do nothing. The destructor allows an event without
/// an answer and counts it as unscanned. For one thread at a time.
class Held {
 public:
  Held() = default;
  Held(Held&& other) noexcept = default;
  ~Held();

  /// Whether it has an event, answered or not.
  explicit operator bool() const { return place_ != nullptr; }

  /// The event. After the answer its path is still valid, its descriptor is closed.
  const fsfilter_event_struct& event() const { return place_->event; }

  void allow() { answer(FSFILTER_ALLOW); }
  void deny() { answer(FSFILTER_DENY); }

 private:
  friend struct eventsForProcessing;
  Held(eventsForProcessing& owner, EventQueue::Place place)
      : owner_(&owner), place_(std::move(place)) {}
  void answer(int verdict);

  eventsForProcessing* owner_ = nullptr;
  EventQueue::Place place_;
  bool answered_ = false;
};

/// The events on their way to the workers, and what all on-access threads share. Any thread may
/// call any function, unless its comment says otherwise.
struct eventsForProcessing {
 public:
  /// Settings, made before there are events: the filter whose events are posted; how long an open
  /// may wait for a worker before it is allowed unscanned (zero or less: for ever); how many events
  /// may be held at a time, each with an open descriptor.
  void set_filter(fsfilter_handle_t filter) { ctx = filter; }
  void set_hold_limit(std::chrono::milliseconds limit) { hold_limit_ = limit; }
  void set_most_held(int events) { most_held_.store(events); }
  void set_limits_of(const eventsForProcessing& other) {
    hold_limit_ = other.hold_limit_;
    most_held_.store(other.most_held_.load());
  }

  /// Queues a copy of an event for the workers. Wakes one worker only if the queue was empty: a
  /// worker that finds events waiting does not sleep. For the threads that read the events.
  /// @param wake_each wakes one in any case, although others may be about to take what waits
  /// @return 0; -1 when memory or a spare descriptor was missing and the event was allowed
  int post(fsfilter_event_struct& event, bool wake_each = false);

  /// Waits for an event; EventQueue decides which one comes next.
  /// @param number the worker's in the log
  /// @param opens_in_a_row how many opens the worker has taken in a row; updated
  /// @return an empty Held when the service stops
  Held take(int number, int& opens_in_a_row);

  /// The safety nets. Each thread that reads the events calls this at each turn, which comes at
  /// least once a second; the queue is looked at four times a second at most. Once an event has
  /// waited for about a second, and at the latest before two have passed, all workers are woken,
  /// and those that wait for others after an update go on. An open that waits longer than the hold
  /// limit is allowed. From then on, until a worker comes, every open is allowed at once.
  void tend();

  /// Lets waiting workers leave, once `running` is 0.
  void end();

  /// Closes the descriptors of events that are still queued; the kernel has already allowed them.
  /// Only when no worker is left.
  void drop();

  /// Events that have not been answered.
  int held() const { return held_.load(std::memory_order_relaxed); }

  /// Events of the process that were allowed without a scan, because memory or descriptors were
  /// missing or no worker came in time.
  static std::uint64_t unscanned() { return unscanned_.load(std::memory_order_relaxed); }

  std::atomic<int> running{0};             ///< 1 while the service runs
  std::atomic<int> updating{0};            ///< 1 from an update until all workers have renewed
  UpdateBarrier update_barrier{updating};  ///< of the workers

  /// Holds the workers and the loop back until all of them have arrived.
  std::optional<std::latch> start_barrier{std::in_place, 1};

 private:
  friend class Held;
  void note_unscanned(const fsfilter_event_struct& event);

  fsfilter_handle_t ctx = nullptr;

  Mutex mutex;
  Condition cond;  ///< idle workers wait here
  EventQueue queue PELO_GUARDED_BY(mutex);

  /// Whether no worker has come since an open was allowed because it had waited too long.
  std::atomic<bool> workers_late_{false};
  std::atomic<Clock::time_point> next_look_{};  ///< when tend() looks again

  std::chrono::milliseconds hold_limit_{0};
  std::atomic<int> most_held_{1 << 30};
  std::atomic<int> held_{0};
  inline static std::atomic<std::uint64_t> unscanned_{0};
};
