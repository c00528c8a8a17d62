// The time that how long something has lasted is measured with.
#pragma once

#include <chrono>
#include <cstdint>

inline namespace fsfilter_internal {

/// Of a clock that nobody sets.
inline std::int64_t monotonic_milliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace fsfilter_internal
