#include "shared_lock.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <ctime>

namespace {

/// The time as the system call takes it on every ABI, whatever the width of a time_t.
struct KernelTime {
  long seconds;  // of the monotonic clock, so that 32 bits will do
  long nanoseconds;
};

KernelTime now() {
  timespec at{};
  (void)clock_gettime(CLOCK_MONOTONIC, &at);
  return {static_cast<long>(at.tv_sec), at.tv_nsec};
}

KernelTime deadline_after(std::chrono::milliseconds bound) {
  KernelTime at = now();
  at.nanoseconds += static_cast<long>(bound.count() % 1000) * 1000000;
  at.seconds += static_cast<long>(bound.count() / 1000) + at.nanoseconds / 1000000000;
  at.nanoseconds %= 1000000000;
  return at;
}

bool past(const KernelTime& deadline) {
  const KernelTime at = now();
  return at.seconds != deadline.seconds ? at.seconds > deadline.seconds
                                        : at.nanoseconds >= deadline.nanoseconds;
}

// Shared between processes, so without FUTEX_PRIVATE_FLAG. FUTEX_WAIT_BITSET takes an absolute
// time on the monotonic clock. The kernel compares the value before it checks the time, so a
// process that keeps writing to the word could make us wait for ever: we check the time ourselves.
// @return false once the deadline has passed
bool wait_while(std::uint32_t* word, std::uint32_t value, const KernelTime& deadline) {
  (void)syscall(SYS_futex, word, FUTEX_WAIT_BITSET, value, &deadline, nullptr,
                FUTEX_BITSET_MATCH_ANY);
  return !past(deadline);
}

}  // namespace

#if defined(__LP64__)

int SharedLock::initialize() {
  std::atomic_ref(state_).store(0);
  return 0;
}

#else

// Copies the bytes of a free mutex, whose first word is the state.
int SharedLock::initialize() {
  pthread_mutex_t mutex;
  static_assert(sizeof mutex == sizeof *this);
  pthread_mutexattr_t attributes;
  int error = pthread_mutexattr_init(&attributes);
  if (error == 0) {
    error = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    if (error == 0) {
      error = pthread_mutex_init(&mutex, &attributes);
    }
    (void)pthread_mutexattr_destroy(&attributes);
  }
  if (error == 0) {
    std::memcpy(this, &mutex, sizeof mutex);
  }
  return error;
}

#endif

bool SharedLock::try_lock_for(std::chrono::milliseconds bound) {
  std::atomic_ref state(state_);
  std::uint32_t expected = 0;
  if (state.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
    return true;
  }
  const KernelTime deadline = deadline_after(bound);
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
