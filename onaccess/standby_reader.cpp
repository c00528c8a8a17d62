#include "standby_reader.h"

#include <signal.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::chrono::milliseconds look_interval{200};

// The daemon's signals are the main thread's: they interrupt its waits.
void block_all_signals() {
  sigset_t signals;
  (void)sigfillset(&signals);
  (void)sigdelset(&signals, SIGBUS);
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

StandbyReaders::StandbyReaders(IsStuck is_stuck, ReadOne read_one)
    : is_stuck_(std::move(is_stuck)), read_one_(std::move(read_one)) {}

void StandbyReaders::start() {
  stopping_.store(false);
  for (DetachedThread& thread : threads_) {
    (void)thread.start([](void* self) { static_cast<StandbyReaders*>(self)->stand_by(); }, this);
  }
}

bool StandbyReaders::stop(std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  {
    ScopedLock lock(mutex_);
    stopping_.store(true);
    stop_asked_.notify_all();
  }
  bool all_left = true;
  for (DetachedThread& thread : threads_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    all_left = thread.wait_until_left(std::max(left, std::chrono::milliseconds(0))) && all_left;
  }
  return all_left;
}

void StandbyReaders::stand_by() {
  block_all_signals();
  while (!stopping_.load()) {
    while (!stopping_.load() && is_stuck_()) {
      read_one_();
    }
    const auto next_look = std::chrono::steady_clock::now() + look_interval;
    ScopedLock lock(mutex_);
    if (!stopping_.load()) {
      (void)stop_asked_.wait_until(lock, next_look);
    }
  }
}
