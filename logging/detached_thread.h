// A detached thread that can be cancelled, and waited for within a bound.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstddef>

#include "mutex.h"

/// Owns one detached thread. Cancellation is a forced unwind: it releases what destructors own and
/// nothing else. So it is off in the whole thread except inside cancellation_point(), which the
/// thread calls where being unwound is harmless: at its waits and between two pieces of work.
///
/// start(), cancel() and wait_until_left() belong to one thread, the owner's; running() to any.
class DetachedThread {
 public:
  using Body = void (*)(void* argument);

  DetachedThread() = default;
  DetachedThread(const DetachedThread&) = delete;
  DetachedThread& operator=(const DetachedThread&) = delete;

  /// Runs `body(argument)` in a new thread. The argument stays the caller's.
  /// @param stack_size bytes; 0 for the system's default
  /// @return 0, or the errno value of the failed creation
  int start(Body body, void* argument, std::size_t stack_size = 0);

  /// Asks the thread to unwind at its next cancellation point; it must be woken separately if it
  /// waits. Nothing happens when none runs.
  void cancel();

  /// @return true when no thread is inside the body any more, false when the bound has passed first
  bool wait_until_left(std::chrono::milliseconds bound);

  /// Whether a thread was started and not cancelled since.
  bool running() const { return running_.load(std::memory_order_acquire); }

  /// For the thread itself: unwinds here if the thread has been cancelled.
  static void cancellation_point();

 private:
  static void* enter(void* self);
  void leave();

  Body body_ = nullptr;
  void* argument_ = nullptr;
  pthread_t thread_ = 0;
  std::atomic<bool> running_{false};

  Mutex mutex_;
  Condition left_changed_;
  bool left_ PELO_GUARDED_BY(mutex_) = true;
};
