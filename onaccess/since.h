// Since when something is going on, readable by other threads.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

/// A moment, or none. Any thread and any signal handler may call any function.
class Since {
 public:
  using Clock = std::chrono::steady_clock;

  /// Keeps the moment of the first call.
  void begin() {
    std::int64_t none = 0;
    const auto now = Clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
    (void)moment_.compare_exchange_strong(none, now);
  }

  /// When it began; nothing if it has not.
  std::optional<Clock::time_point> moment() const {
    const std::int64_t moment = moment_.load();
    return moment == 0 ? std::nullopt
                       : std::optional(Clock::time_point(std::chrono::nanoseconds(moment)));
  }

 private:
  std::atomic<std::int64_t> moment_{0};  // nanoseconds, 0 for none
  static_assert(std::atomic<std::int64_t>::is_always_lock_free, "signal handlers write it");
};
