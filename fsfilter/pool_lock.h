// The worker pool's lock: POSIX mutexes and condition variables with Clang's thread-safety
// annotations. They need no construction and no destruction, since detached workers may use them
// until the process has ended.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define FSFILTER_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define FSFILTER_THREAD_ANNOTATION(x)
#endif

#define FSFILTER_CAPABILITY FSFILTER_THREAD_ANNOTATION(capability("mutex"))
#define FSFILTER_SCOPED_CAPABILITY FSFILTER_THREAD_ANNOTATION(scoped_lockable)
#define FSFILTER_GUARDED_BY(x) FSFILTER_THREAD_ANNOTATION(guarded_by(x))
#define FSFILTER_REQUIRES(...) FSFILTER_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define FSFILTER_ACQUIRE(...) FSFILTER_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define FSFILTER_RELEASE(...) FSFILTER_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

inline namespace fsfilter_internal {

class FSFILTER_CAPABILITY PoolMutex {
 public:
  void lock() FSFILTER_ACQUIRE() { (void)pthread_mutex_lock(&mutex_); }
  void unlock() FSFILTER_RELEASE() { (void)pthread_mutex_unlock(&mutex_); }

 private:
  friend class PoolCondition;
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a mutex for a scope.
class FSFILTER_SCOPED_CAPABILITY PoolLock {
 public:
  explicit PoolLock(PoolMutex& mutex) FSFILTER_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~PoolLock() FSFILTER_RELEASE() { mutex_.unlock(); }
  PoolLock(const PoolLock&) = delete;
  PoolLock& operator=(const PoolLock&) = delete;

 private:
  PoolMutex& mutex_;
};

class PoolCondition {
 public:
  void notify_one() { (void)pthread_cond_signal(&condition_); }
  void notify_all() { (void)pthread_cond_broadcast(&condition_); }

  /// May wake without cause.
  void wait(PoolMutex& held) FSFILTER_REQUIRES(held) {
    (void)pthread_cond_wait(&condition_, &held.mutex_);
  }

 private:
  pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

}  // namespace fsfilter_internal
