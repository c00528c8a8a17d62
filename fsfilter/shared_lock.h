// The lock inside the shared status area, 24 bytes on every ABI.
#pragma once

#include <chrono>
#include <cstdint>

inline namespace fsfilter_internal {

/// A mutex between processes, placed in shared memory. On 32-bit machines other programs know a
/// pthread_mutex_t of just this size there and use it as one; it is made as one, and locked as the
/// C library does. On 64-bit ones a pthread_mutex_t does not fit.
///
/// Any process can take it and die, or write into it. So it is never waited for without a bound,
/// and nothing but the state is looked at: the C library ends the process for some values of the
/// rest.
class SharedLock {
 public:
  /// Makes it usable and free; for the creator of the area, before anybody else can use it.
  /// @return 0, or an errno value
  int initialize();

  /// @return false when it was not free within `bound`
  bool try_lock_for(std::chrono::milliseconds bound);

  /// For the holder only.
  void unlock();

 private:
  std::uint32_t state_;  ///< 0 free, 1 held, 2 held and somebody may wait
  [[maybe_unused]] std::uint32_t unused_[5];
};

static_assert(sizeof(SharedLock) == 24);
static_assert(alignof(SharedLock) == 4);

}  // namespace fsfilter_internal
