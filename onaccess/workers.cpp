#include "workers.h"

#include <algorithm>
#include <cerrno>

#include "logger.h"

int Workers::start(int wanted, void* (*body)(void*), void* argument) {
  ScopedLock lock(mutex_);
  for (int started = 0; started < wanted; ++started) {
    pthread_t thread{};
    if (const int error = pthread_create(&thread, nullptr, body, argument); error != 0) {
      errno = error;
      return started;
    }
    threads_.emplace_back(thread);
    started_.push_back(thread);
  }
  return wanted;
}

bool Workers::empty() {
  ScopedLock lock(mutex_);
  return threads_.empty();
}

int Workers::cancel_thread(unsigned long tid) {
  Logger::log(3, __func__, "cancel_thread(): begin");
  Logger::log(3, __func__, "cancel_thread(): done");
  ScopedLock lock(mutex_);  // after the logging: a thread off the list may be joined
  if (tid == pthread_self()) {
    threads_.remove(threadInfo(tid));
    left_.notify_all();
  } else if (const auto thread = find(tid); thread != threads_.end()) {
    thread->cancelled = true;
  }
  return 0;
}

bool Workers::cancelled() {
  ScopedLock lock(mutex_);
  const auto worker = find(pthread_self());
  return worker != threads_.end() && worker->cancelled;
}

std::list<threadInfo>::iterator Workers::find(unsigned long tid) {
  return std::find(threads_.begin(), threads_.end(), threadInfo(tid));
}

int Workers::mark_thread(unsigned long tid, int where) {
  Logger::log_format(3, __func__, "mark thread %u %d", static_cast<unsigned>(tid), where);
  {
    ScopedLock lock(mutex_);
    if (const auto thread = find(tid); thread != threads_.end()) {
      thread->ts = std::time(nullptr);
      thread->where = where;
    }
  }
  Logger::log(3, __func__, "mark thread done");
  return 0;
}

int Workers::check_threads() {
  constexpr std::time_t hung_after = 3;  // seconds that a worker has been marked as busy
  ScopedLock lock(mutex_);
  const std::time_t now = std::time(nullptr);
  for (const threadInfo& thread : threads_) {
    if (thread.where == 0) {
      continue;
    }
    const auto tid = static_cast<unsigned>(thread.tid);
    Logger::log_format(3, __func__, "check thread %u: ts %u", tid,
                       static_cast<unsigned>(thread.ts));
    if (now - thread.ts > hung_after) {
      Logger::log_format(1, __func__, "thread %u hungup in %d", tid, thread.where);
    }
  }
  return 0;
}

bool Workers::wait_until_left(Clock::time_point deadline) {
  ScopedLock lock(mutex_);
  while (!threads_.empty() && left_.wait_until(lock, deadline)) {
  }
  return threads_.empty();
}

// A thread that is off the list is about to return; one that is still on it may never do so.
void Workers::join() {
  ScopedLock lock(mutex_);
  for (const pthread_t thread : started_) {
    const bool busy = find(thread) != threads_.end();
    (void)(busy ? pthread_detach(thread) : pthread_join(thread, nullptr));
  }
  started_.clear();
}
