// The lock inside the shared status area, 24 bytes on every ABI.
#pragma once

#include <pthread.h>

#include <chrono>
#include <cstdint>

inline namespace fsfilter_internal {

/// A mutex between processes, placed in shared memory. 32-bit machines have a pthread_mutex_t of
/// just this size, which other programs know there; on 64-bit ones it does not fit, and a futex
/// does the same in the same bytes.
///
/// Any process can take it and die, or write into it. So it is never waited for without a bound.
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
#if defined(__LP64__)
  std::uint32_t state_;  ///< 0 free, 1 held, 2 held and somebody may wait
  [[maybe_unused]] std::uint32_t unused_[5];
#else
  pthread_mutex_t mutex_;
#endif
};

static_assert(sizeof(SharedLock) == 24);
static_assert(alignof(SharedLock) == 4);

}  // namespace fsfilter_internal
