// The on-access workers as threads: starts them, watches over them, waits for their end.
//
// Owns the threads and the list of them. Never owns a held open: those go from the queue straight
// to a worker. Hands off to: nobody.
#pragma once

#include <pthread.h>

#include <ctime>
#include <list>

#include "mutex.h"

/// One worker in the list.
struct threadInfo {
  explicit threadInfo(unsigned long thread) : tid(thread), ts(std::time(nullptr)) {}
  bool operator==(const threadInfo& other) const { return tid == other.tid; }

  unsigned long tid;  ///< its pthread_t
  std::time_t ts;     ///< when it was created or last marked, in seconds
  int where = 0;      ///< the place at which it is busy; 0: idle
  bool cancelled = false;
};

/// The list of workers. Any thread may call any function, unless its comment says otherwise.
class Workers {
 public:
  /// Starts workers. For the main thread.
  /// @return how many were started; fewer than wanted, with errno, when one could not be
  int start(int wanted, void* (*body)(void*), void* argument);

  bool empty();

  /// Takes the calling worker off the list, as its last act, or asks another one to leave after its
  /// next event. @return 0
  int cancel_thread(unsigned long tid);

  /// Whether the calling thread is a worker that was asked to leave.
  bool cancelled();

  /// Notes that a worker is busy at a place, 0 for idle. @return 0
  int mark_thread(unsigned long tid, int where);

  /// Logs the busy workers, and again those that have been busy for more than three seconds.
  /// @return 0
  int check_threads();

  /// Waits until all have left. @return false when the deadline has passed first
  bool wait_until_left(Clock::time_point deadline);

  /// Joins the threads that have left and detaches the others. For the main thread, as its last
  /// call.
  void join();

 private:
  std::list<threadInfo>::iterator find(unsigned long tid) PELO_REQUIRES(mutex_);

  Mutex mutex_;
  Condition left_;
  std::list<threadInfo> threads_ PELO_GUARDED_BY(mutex_);
  std::list<pthread_t> started_;  ///< to be joined; only for the main thread
};
