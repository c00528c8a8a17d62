// Waiting for something to become true, within a bound.
#pragma once

#include <chrono>
#include <thread>

/// Far above what any machine needs, below every test's time limit.
inline constexpr std::chrono::seconds generous_bound{PELO_SLOW ? 90 : 30};

/// Waits until `condition()` holds.
/// @return false when it still does not after `bound`
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds bound = generous_bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    // Others need the processor between two questions.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}
