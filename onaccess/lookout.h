// The lookout: the one thread that waits for nothing but signals and, during a stop, the clock.
//
// It takes the process's signals. The kernel would prefer the main thread for them, but a thread
// that is stuck in the kernel runs no handler. It also ends the process when a stop takes too long.
// Owns the moment of the stop. Never owns a held open. Hands off to: nobody.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <functional>
#include <optional>

#include "clock.h"
#include "detached_thread.h"

/// The lookout of the process. Its thread lasts as long as the process, which must also end when
/// the destructor of a static object hangs; so it is never destroyed.
class Lookout {
 public:
  Lookout() { (void)sem_init(&wake_, 0, 0); }

  /// Starts the thread.
  /// @param take_signals called first on that thread; unblocks the signals there
  /// @param last_resort called on that thread when a stop takes too long; must end the process
  /// @return 0, or an errno value
  int start(void (*take_signals)(), std::function<void()> last_resort);

  /// Asks for a stop: keeps the moment of the first call and tells the thread, if it runs.
  /// Async-signal-safe; any thread.
  void note_stop() {
    Clock::time_point none{};
    (void)stop_.compare_exchange_strong(none, Clock::now());
    (void)sem_post(&wake_);
  }

  /// When a stop was asked for first; nothing if it was not. As safe as that.
  std::optional<Clock::time_point> stop() const {
    const Clock::time_point stop = stop_.load();
    return stop == Clock::time_point() ? std::nullopt : std::optional(stop);
  }

 private:
  void look_out();

  std::atomic<Clock::time_point> stop_{Clock::time_point()};
  static_assert(decltype(stop_)::is_always_lock_free, "signal handlers write it");
  void (*take_signals_)() = nullptr;
  std::function<void()> last_resort_;
  sem_t wake_;
  DetachedThread thread_;
};
