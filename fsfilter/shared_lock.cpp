#include "shared_lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <ctime>

namespace {

timespec monotonic_deadline(std::chrono::milliseconds bound) {
  timespec at{};
  (void)clock_gettime(CLOCK_MONOTONIC, &at);
  const long nanoseconds = at.tv_nsec + static_cast<long>(bound.count() % 1000) * 1000000;
  at.tv_sec += static_cast<time_t>(bound.count() / 1000 + nanoseconds / 1000000000);
  at.tv_nsec = nanoseconds % 1000000000;
  return at;
}

}  // namespace

#if defined(__LP64__)

namespace {

bool past(const timespec& deadline) {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec != deadline.tv_sec ? now.tv_sec > deadline.tv_sec
                                       : now.tv_nsec >= deadline.tv_nsec;
}

// Shared between processes, so without FUTEX_PRIVATE_FLAG. FUTEX_WAIT_BITSET takes an absolute
// time on the monotonic clock. The kernel compares the value before it looks at the time, so that
// a process which keeps writing to the word could keep a waiter going: hence the look of our own.
// @return false once the deadline has passed
bool wait_while(std::uint32_t* word, std::uint32_t value, const timespec& deadline) {
  (void)syscall(SYS_futex, word, FUTEX_WAIT_BITSET, value, &deadline, nullptr,
                FUTEX_BITSET_MATCH_ANY);
  return !past(deadline);
}

}  // namespace

int SharedLock::initialize() {
  std::atomic_ref(state_).store(0);
  return 0;
}

bool SharedLock::try_lock_for(std::chrono::milliseconds bound) {
  std::atomic_ref state(state_);
  std::uint32_t expected = 0;
  if (state.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
    return true;
  }
  const timespec deadline = monotonic_deadline(bound);
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

#else

int SharedLock::initialize() {
  pthread_mutexattr_t attributes;
  int error = pthread_mutexattr_init(&attributes);
  if (error == 0) {
    error = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    if (error == 0) {
      error = pthread_mutex_init(&mutex_, &attributes);
    }
    (void)pthread_mutexattr_destroy(&attributes);
  }
  return error;
}

bool SharedLock::try_lock_for(std::chrono::milliseconds bound) {
  const timespec deadline = monotonic_deadline(bound);
  return pthread_mutex_clocklock(&mutex_, CLOCK_MONOTONIC, &deadline) == 0;
}

void SharedLock::unlock() {
  (void)pthread_mutex_unlock(&mutex_);
}

#endif
