// The daemon's locks: the standard mutexes with Clang's thread-safety annotations, which the
// standard library of g++ does not carry. A clang build rejects an access to a PELO_GUARDED_BY
// member without its lock.
#pragma once

#include <chrono>
#include <condition_variable>
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

/// One standard mutex type, annotated.
template <typename StdMutex>
class PELO_CAPABILITY AnnotatedMutex {
 public:
  void lock() PELO_ACQUIRE() { mutex_.lock(); }
  void unlock() PELO_RELEASE() { mutex_.unlock(); }
  bool try_lock() PELO_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  /// For the timed mutexes. On the wall clock, whose call ThreadSanitizer knows: a clock set
  /// meanwhile lengthens the wait at worst.
  bool try_lock_for(std::chrono::milliseconds bound) PELO_TRY_ACQUIRE(true) {
    return mutex_.try_lock_until(std::chrono::system_clock::now() + bound);
  }

 private:
  friend class Condition;
  StdMutex mutex_;
};

using Mutex = AnnotatedMutex<std::mutex>;
using RecursiveTimedMutex = AnnotatedMutex<std::recursive_timed_mutex>;

/// Holds a mutex for a scope. unlock() and lock() open a gap in it, for work that no lock may
/// cover.
template <typename M>
class PELO_SCOPED_CAPABILITY ScopedLock {
 public:
  explicit ScopedLock(M& mutex) PELO_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  /// Takes over a mutex that the caller has locked, with try_lock() for instance.
  ScopedLock(M& mutex, std::adopt_lock_t) PELO_REQUIRES(mutex) : mutex_(mutex) {}
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

  M& mutex_;
  bool held_ = true;
};

/// A condition variable for a Mutex. The waits take the lock that guards the condition, held, and
/// give it back held; they may wake without cause. Time-outs run on the monotonic clock.
class Condition {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  void notify_one() { condition_.notify_one(); }
  void notify_all() { condition_.notify_all(); }

  void wait(ScopedLock<Mutex>& held) {
    std::unique_lock<std::mutex> lock(held.mutex_.mutex_, std::adopt_lock);
    condition_.wait(lock);
    (void)lock.release();
  }

  /// @return false when the deadline has passed
  bool wait_until(ScopedLock<Mutex>& held, Deadline deadline) {
    std::unique_lock<std::mutex> lock(held.mutex_.mutex_, std::adopt_lock);
    const std::cv_status status = condition_.wait_until(lock, deadline);
    (void)lock.release();
    return status == std::cv_status::no_timeout;
  }

 private:
  std::condition_variable condition_;
};
