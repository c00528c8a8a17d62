// The clock of every wait and bound: a step of the wall clock does not change it.
#pragma once

#include <chrono>
#include <ctime>

// So that who links one of these libraries may use the same names for things of their own.
inline namespace pelo_base {

using Clock = std::chrono::steady_clock;

/// A moment as the kernel takes it.
inline timespec to_timespec(Clock::time_point moment) {
  const auto since = moment.time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
  return {.tv_sec = static_cast<time_t>(seconds.count()),
          .tv_nsec = static_cast<long>(std::chrono::nanoseconds(since - seconds).count())};
}

}  // namespace pelo_base
