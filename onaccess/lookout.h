// The lookout: the one thread that never waits for a file, a lock or another thread.
//
// It takes the process's signals. The kernel would prefer the main thread for them, but a thread
// that is stuck in the kernel runs no handler. It also ends the process when a stop takes too long.
// Never touches a held open.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <functional>
#include <optional>

#include "clock.h"
#include "detached_thread.h"

/// A moment, or none. Any thread and any signal handler may call any function.
class Since {
 public:
  /// Keeps the moment of the first call.
  void begin() {
    Clock::time_point none{};
    (void)moment_.compare_exchange_strong(none, Clock::now());
  }

  /// When it began; nothing if it has not.
  std::optional<Clock::time_point> moment() const {
    const Clock::time_point moment = moment_.load();
    return moment == Clock::time_point() ? std::nullopt : std::optional(moment);
  }

 private:
  std::atomic<Clock::time_point> moment_{Clock::time_point()};
  static_assert(decltype(moment_)::is_always_lock_free, "signal handlers write it");
};

/// The lookout of the process. Its thread lasts as long as the process, which must also end when
/// the destructor of a static object hangs; so it is never destroyed.
class Lookout {
 public:
  /// @param stop_requested tells since when a stop has been asked for; must outlive the lookout
  explicit Lookout(const Since& stop_requested);

  /// Starts the thread.
  /// @param take_signals called first on that thread; unblocks the signals there
  /// @param last_resort called on that thread when a stop takes too long; must end the process
  /// @return 0, or an errno value
  int start(void (*take_signals)(), std::function<void()> last_resort);

  /// Makes the thread check whether a stop was asked for. Async-signal-safe; any thread.
  void wake() { (void)sem_post(&wake_); }

 private:
  void look_out();

  const Since& stop_requested_;
  void (*take_signals_)() = nullptr;
  std::function<void()> last_resort_;
  sem_t wake_;
  DetachedThread thread_;
};
