// A detached thread that can be asked to stop, and waited for within a bound.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>

#include "mutex.h"

/// Owns one detached thread. It is never ended by force: its body checks stopping() where it can
/// leave, at its waits and between two pieces of work, and returns.
///
/// It must outlive its thread's body. start() and wait_until_left() belong to one thread, the
/// owner's; the rest to any.
class DetachedThread {
 public:
  /// Runs `body` in a new thread. The one before, if any, must have left.
  /// @param stack_size bytes; 0 for the system's default
  /// @return 0, or the errno value of the failed creation
  int start(std::function<void()> body, std::size_t stack_size = 0);

  /// Asks the thread to leave; it must be woken separately if it waits. Nothing happens when none
  /// runs.
  void ask_to_stop();

  /// @return true when no thread is inside the body any more, false when the bound has passed first
  bool wait_until_left(std::chrono::milliseconds bound);

  /// Whether a thread was started and not asked to stop since.
  bool running() const { return running_.load(std::memory_order_acquire); }

  /// Whether the calling thread is such a thread and has been asked to stop.
  static bool stopping();

 private:
  static void* enter(void* self);

  std::function<void()> body_;
  std::atomic<bool> running_{false};

  Mutex mutex_;
  Condition left_changed_;
  bool left_ PELO_GUARDED_BY(mutex_) = true;
};
