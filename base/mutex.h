// The daemon's locks: the standard mutex with Clang's thread-safety annotations, which the
// standard library of g++ does not carry. A clang build rejects an access to a PELO_GUARDED_BY
// member without its lock.
#pragma once

#include <pthread.h>

#include <cerrno>
#include <mutex>

#include "clock.h"

#if defined(__clang__)
#define PELO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define PELO_THREAD_ANNOTATION(x)
#endif

#define PELO_GUARDED_BY(x) PELO_THREAD_ANNOTATION(guarded_by(x))
#define PELO_REQUIRES(...) PELO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define PELO_ACQUIRE(...) PELO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define PELO_RELEASE(...) PELO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

// So that who links one of these libraries may use the same names for things of their own.
inline namespace pelo_base {

/// The standard mutex, annotated. A ScopedLock takes it.
class PELO_THREAD_ANNOTATION(capability("mutex")) Mutex {
  friend class ScopedLock;
  std::mutex mutex_;
};

/// Holds a mutex for a scope. unlock() and lock() open a gap in it, for work that no lock may
/// cover.
class PELO_THREAD_ANNOTATION(scoped_lockable) ScopedLock {
 public:
  explicit ScopedLock(Mutex& mutex) PELO_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~ScopedLock() PELO_RELEASE() = default;

  void lock() PELO_ACQUIRE() { lock_.lock(); }
  void unlock() PELO_RELEASE() { lock_.unlock(); }

 private:
  friend class Condition;

  std::unique_lock<std::mutex> lock_;
};

/// A condition variable for a Mutex. The waits take the lock that guards the condition, held, and
/// give it back held; they may wake without cause. Time-outs run on the monotonic clock.
///
/// POSIX's own, since it needs neither construction nor destruction, as the standard mutex needs
/// none: threads that are never joined may use it until the process has ended.
class Condition {
 public:
  constexpr Condition() = default;
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void notify_one() { (void)pthread_cond_signal(&condition_); }
  void notify_all() { (void)pthread_cond_broadcast(&condition_); }

  void wait(ScopedLock& held) {
    (void)pthread_cond_wait(&condition_, held.lock_.mutex()->native_handle());
  }

  /// @return false when the deadline has passed
  bool wait_until(ScopedLock& held, Clock::time_point deadline) {
    const timespec at = to_timespec(deadline);
    return pthread_cond_clockwait(&condition_, held.lock_.mutex()->native_handle(), CLOCK_MONOTONIC,
                                  &at) != ETIMEDOUT;
  }

 private:
  pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

}  // namespace pelo_base
