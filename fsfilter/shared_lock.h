// The lock inside the shared status area, 24 bytes on every ABI.
#pragma once

#include <chrono>
#include <cstdint>

inline namespace fsfilter_internal {

/// A mutex between processes, placed in shared memory. On 32-bit machines a pthread_mutex_t has
/// just this size, and other programs use the lock as one; so it is made as one and locked as the C
/// library does. On 64-bit machines a pthread_mutex_t does not fit.
///
/// Any process can take it and die, or write into it. So every wait for it has a bound, and only
/// the state is read: the C library ends the process for some values of the other fields.
class SharedLock {
 public:
  /// Makes the lock free; for the creator of the area, before anybody else can use it.
  void initialize();

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
