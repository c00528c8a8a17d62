// SPDX-License-Identifier: GPL-2.0-only
// std::mutex with the annotations of Clang's thread-safety analysis, which checks in the clang
// builds that what is marked PELO_GUARDED_BY is touched only under its lock.
#ifndef PELOWATCHD_ENGINE_CLAMAV_ANNOTATED_MUTEX_H
#define PELOWATCHD_ENGINE_CLAMAV_ANNOTATED_MUTEX_H

#include <mutex>

#if defined(__clang__)
#define PELO_ANNOTATION(x) __attribute__((x))
#else
#define PELO_ANNOTATION(x)
#endif
#define PELO_GUARDED_BY(mutex) PELO_ANNOTATION(guarded_by(mutex))
#define PELO_REQUIRES(mutex) PELO_ANNOTATION(requires_capability(mutex))

namespace clamav_engine {

class PELO_ANNOTATION(capability("mutex")) AnnotatedMutex {
 public:
  void lock() PELO_ANNOTATION(acquire_capability()) { mutex_.lock(); }
  void unlock() PELO_ANNOTATION(release_capability()) { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// Holds the mutex from construction to destruction.
class PELO_ANNOTATION(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(AnnotatedMutex& mutex) PELO_ANNOTATION(acquire_capability(mutex))
      : mutex_(mutex) {
    mutex_.lock();
  }
  ~MutexLock() PELO_ANNOTATION(release_capability()) { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  AnnotatedMutex& mutex_;
};

}  // namespace clamav_engine

#endif
