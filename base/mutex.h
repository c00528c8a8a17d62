// The daemon's locks: the standard mutex with Clang's thread-safety annotations, which the
// standard library of g++ does not carry. A clang build rejects an access to a PELO_GUARDED_BY
// member without its lock.
#pragma once

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <mutex>

#if defined(__clang__)
#define PELO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define PELO_THREAD_ANNOTATION(x)
#endif

#define PELO_CAPABILITY PELO_THREAD_ANNOTATION(capability("mutex"))
#define PELO_SCOPED_CAPABILITY PELO_THREAD_ANNOTATION(scoped_lockable)
#define PELO_GUARDED_BY(x) PELO_THREAD_ANNOTATION(guarded_by(x))
#define PELO_REQUIRES(...) PELO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define PELO_ACQUIRE(...) PELO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define PELO_ACQUIRE_SHARED(...) PELO_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define PELO_TRY_ACQUIRE(...) PELO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define PELO_RELEASE(...) PELO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define PELO_RELEASE_GENERIC(...) PELO_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define PELO_NO_THREAD_SAFETY_ANALYSIS PELO_THREAD_ANNOTATION(no_thread_safety_analysis)

// So that who links one of these libraries may use the same names for things of their own.
inline namespace pelo_base {

/// The standard mutex, annotated.
class PELO_CAPABILITY Mutex {
 public:
  void lock() PELO_ACQUIRE() { mutex_.lock(); }
  void unlock() PELO_RELEASE() { mutex_.unlock(); }
  bool try_lock() PELO_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

/// Holds a mutex for a scope. unlock() and lock() open a gap in it, for work that no lock may
/// cover.
class PELO_SCOPED_CAPABILITY ScopedLock {
 public:
  explicit ScopedLock(Mutex& mutex) PELO_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~ScopedLock() PELO_RELEASE() {
    if (held_)
      mutex_.unlock();
  }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

  void lock() PELO_ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }
  void unlock() PELO_RELEASE() {
    held_ = false;
    mutex_.unlock();
  }

 private:
  friend class Condition;

  Mutex& mutex_;
  bool held_ = true;
};

/// A condition variable for a Mutex. The waits take the lock that guards the condition, held, and
/// give it back held; they may wake without cause. Time-outs run on the monotonic clock.
///
/// POSIX's own, since it needs neither construction nor destruction, as the standard mutex needs
/// none: threads that are never joined may use it until the process has ended.
class Condition {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  constexpr Condition() = default;
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void notify_one() { (void)pthread_cond_signal(&condition_); }
  void notify_all() { (void)pthread_cond_broadcast(&condition_); }

  void wait(ScopedLock& held) {
    (void)pthread_cond_wait(&condition_, held.mutex_.mutex_.native_handle());
  }

  /// @return false when the deadline has passed
  bool wait_until(ScopedLock& held, Deadline deadline) {
    const auto since = deadline.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
    timespec at{};
    at.tv_sec = static_cast<time_t>(seconds.count());
    at.tv_nsec = static_cast<long>(std::chrono::nanoseconds(since - seconds).count());
    return pthread_cond_clockwait(&condition_, held.mutex_.mutex_.native_handle(), CLOCK_MONOTONIC,
                                  &at) != ETIMEDOUT;
  }

 private:
  pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

}  // namespace pelo_base
