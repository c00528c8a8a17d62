#include "standby_reader.h"

#include <signal.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::chrono::milliseconds look_interval{200};
constexpr std::size_t stack_size{262144};  // one event record, and little else

// The daemon's signals are the main thread's: they interrupt its waits.
void block_all_signals() {
  sigset_t signals;
  (void)sigfillset(&signals);
  (void)sigdelset(&signals, SIGBUS);
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

StandbyReaders::StandbyReaders(IsStuck is_stuck, ReadOne read_one, LookAfter look_after)
    : is_stuck_(std::move(is_stuck)),
      read_one_(std::move(read_one)),
      look_after_(std::move(look_after)) {}

void StandbyReaders::start() {
  stopping_.store(false);
  for (std::size_t number = 0; number < count; ++number) {
    Reader& reader = readers_[number];
    reader.all = this;
    reader.number = number;
    const int error = reader.thread.start(
        [](void* self) {
          auto* own = static_cast<Reader*>(self);
          own->all->stand_by(*own);
        },
        &reader, stack_size);
    if (error != 0) {
      return;
    }
  }
}

bool StandbyReaders::stop(std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  {
    ScopedLock lock(mutex_);
    stopping_.store(true);
    changed_.notify_all();
  }
  bool all_left = true;
  for (Reader& reader : readers_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    all_left =
        reader.thread.wait_until_left(std::max(left, std::chrono::milliseconds(0))) && all_left;
  }
  return all_left;
}

void StandbyReaders::stand_by(Reader& reader) {
  block_all_signals();
  while (wait_for_call(reader)) {
    if (reader.number == 0) {
      look_after_();
    }
    while (!stopping_.load() && is_stuck_()) {
      call(reader.number + 1);
      read_one_();
    }
  }
}

// The lookout calls itself, each time its interval is over.
// @return false when the readers stop
bool StandbyReaders::wait_for_call(Reader& reader) {
  const auto next_look = std::chrono::steady_clock::now() + look_interval;
  ScopedLock lock(mutex_);
  while (!stopping_.load() && !reader.called) {
    if (reader.number != 0) {
      changed_.wait(lock);
    } else if (!changed_.wait_until(lock, next_look)) {
      break;
    }
  }
  reader.called = false;
  return !stopping_.load();
}

void StandbyReaders::call(std::size_t number) {
  if (number < count) {
    ScopedLock lock(mutex_);
    readers_[number].called = true;
    changed_.notify_all();
  }
}
