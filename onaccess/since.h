// Since when something is going on, for other threads to ask.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

/// A moment, or none. Any thread may call any of it; so may signal handlers.
class Since {
 public:
  using Clock = std::chrono::steady_clock;

  void begin() { moment_.store(now(), std::memory_order_relaxed); }
  void end() { moment_.store(0, std::memory_order_relaxed); }

  /// Keeps the moment of the first call.
  void begin_once() {
    std::int64_t none = 0;
    (void)moment_.compare_exchange_strong(none, now());
  }

  /// When it began; nothing when it is not going on.
  std::optional<Clock::time_point> moment() const {
    const std::int64_t moment = moment_.load(std::memory_order_relaxed);
    return moment == 0 ? std::nullopt
                       : std::optional(Clock::time_point(std::chrono::nanoseconds(moment)));
  }

  /// How long it has been going on; 0 when it is not.
  Clock::duration age() const {
    const auto begun = moment();
    return begun ? Clock::now() - *begun : Clock::duration::zero();
  }

 private:
  static std::int64_t now() {
    return Clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
  }

  std::atomic<std::int64_t> moment_{0};  // nanoseconds, 0 for none
  static_assert(std::atomic<std::int64_t>::is_always_lock_free, "signal handlers write it");
};
