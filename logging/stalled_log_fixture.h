// A disk that stalls, for the logger's tests. For one file of a program: it stands before the C
// library's writev, with which the logger writes its records.
#pragma once

#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "mutex.h"
#include "wait.h"

/// While one exists, whoever writes a record waits.
class StalledDisk {
 public:
  StalledDisk() { set_stalled(true); }
  ~StalledDisk() { set_stalled(false); }
  StalledDisk(const StalledDisk&) = delete;
  StalledDisk& operator=(const StalledDisk&) = delete;

  /// Waits until somebody is held up. @return false when that takes very long
  static bool wait_for_a_writer() {
    return eventually([] {
      ScopedLock lock(mutex);
      return waiting > 0;
    });
  }

  /// Lets everybody on.
  static void set_stalled(bool now) {
    ScopedLock lock(mutex);
    stalled = now;
    changed.notify_all();
  }

  /// For writev.
  static void pass() {
    ScopedLock lock(mutex);
    for (++waiting; stalled;) {
      changed.wait(lock);
    }
    --waiting;
  }

 private:
  static inline Mutex mutex;
  static inline Condition changed;
  static inline bool stalled PELO_GUARDED_BY(mutex) = false;
  static inline int waiting PELO_GUARDED_BY(mutex) = 0;
};

ssize_t writev(int fd, const iovec* parts, int count) {
  StalledDisk::pass();
  return syscall(SYS_writev, fd, parts, count);
}
