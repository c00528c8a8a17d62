#include "shared_lock.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "clock.h"

namespace {

// Shared between processes, so without FUTEX_PRIVATE_FLAG. FUTEX_WAIT_BITSET takes an absolute
// time on the monotonic clock, in the kernel's format, whatever the width of a time_t. The kernel
// compares the value before it checks the time, so a process that keeps writing to the word could
// make us wait for ever: we check the time ourselves.
// @return false once the deadline has passed
bool wait_while(std::uint32_t* word, std::uint32_t value, Clock::time_point deadline) {
  const auto since = std::chrono::nanoseconds(deadline.time_since_epoch()).count();
  const long kernel_time[] = {static_cast<long>(since / 1000000000),
                              static_cast<long>(since % 1000000000)};
  (void)syscall(SYS_futex, word, FUTEX_WAIT_BITSET, value, kernel_time, nullptr,
                FUTEX_BITSET_MATCH_ANY);
  return Clock::now() < deadline;
}

}  // namespace

// On a 32-bit machine the lock is made as a free mutex of the C library's, whose first word is the
// state; making one cannot fail.
void SharedLock::initialize() {
  *this = SharedLock();
#if !defined(__LP64__)
  pthread_mutexattr_t attributes;
  pthread_mutex_t mutex;
  static_assert(sizeof mutex == sizeof *this);
  (void)pthread_mutexattr_init(&attributes);
  (void)pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  (void)pthread_mutex_init(&mutex, &attributes);
  (void)pthread_mutexattr_destroy(&attributes);
  std::memcpy(this, &mutex, sizeof mutex);
#endif
}

bool SharedLock::try_lock_for(std::chrono::milliseconds bound) {
  std::atomic_ref state(state_);
  std::uint32_t expected = 0;
  if (state.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
    return true;
  }
  const Clock::time_point deadline = Clock::now() + bound;
  while (state.exchange(2, std::memory_order_acquire) != 0) {
    if (!wait_while(&state_, 2, deadline)) {
      return false;
    }
  }
  return true;
}

void SharedLock::unlock() {
  if (std::atomic_ref(state_).exchange(0, std::memory_order_release) == 2) {
    (void)syscall(SYS_futex, &state_, FUTEX_WAKE, 1, nullptr, nullptr, 0);
  }
}
