// Since when something is going on, readable by other threads.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>

/// A moment, or none. Any thread and any signal handler may call any function.
class Since {
 public:
  using Clock = std::chrono::steady_clock;

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
