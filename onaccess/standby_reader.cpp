#include "standby_reader.h"

#include <signal.h>

#include <algorithm>
#include <utility>

#include "time_limits.h"

namespace {

constexpr std::size_t stack_size{262144};       // one event record, and little else
constexpr std::chrono::seconds leave_bound{1};  // for threads that only have to return

std::chrono::milliseconds left_until(std::chrono::steady_clock::time_point deadline) {
  return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(
                      deadline - std::chrono::steady_clock::now()),
                  std::chrono::milliseconds(0));
}

/// Holds back all signals but those of faults, in this thread and those that it makes meanwhile.
class SignalsHeldBack {
 public:
  SignalsHeldBack() {
    sigset_t signals;
    (void)sigfillset(&signals);
    (void)sigdelset(&signals, SIGBUS);
    (void)pthread_sigmask(SIG_BLOCK, &signals, &before_);
  }
  ~SignalsHeldBack() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsHeldBack(const SignalsHeldBack&) = delete;
  SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace

StandbyReaders::StandbyReaders(Duties duties) : duties_(std::move(duties)) {
  for (Reader& reader : readers_) {
    reader.all = this;
  }
}

// Without a lookout, for want of a thread, the main thread reads alone.
void StandbyReaders::start() {
  ScopedLock lock(mutex_);
  if (lookout_ended_ && lookout_.wait_until_left(std::chrono::milliseconds(0))) {
    ending_ = false;
    lookout_ended_ =
        lookout_.start([](void* self) { static_cast<StandbyReaders*>(self)->look_out(); }, this,
                       stack_size) != 0;
  }
  if (lookout_ended_) {
    return;
  }
  ceasing_ = false;
  // The process's signals are the lookout's.
  const SignalsHeldBack held_back;
  for (Reader& reader : readers_) {
    if (reader.state == State::absent &&
        reader.thread.wait_until_left(std::chrono::milliseconds(0))) {
      make(reader);
    }
  }
}

// In three steps, so that a stop in vain leaves all of them: to make them again could take for
// ever.
bool StandbyReaders::stop(std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  {
    ScopedLock lock(mutex_);
    ceasing_ = true;
    while (anybody_reads() && changed_.wait_until(lock, deadline)) {
    }
    if (!anybody_reads()) {
      lookout_ending_ = true;
      changed_.notify_all();
      while (!lookout_ended_ && changed_.wait_until(lock, deadline)) {
      }
      lookout_ending_ = false;
    }
    if (!lookout_ended_ || anybody_reads()) {
      ceasing_ = false;
      call();
      return false;
    }
    ending_ = true;
    for (Reader& reader : readers_) {
      reader.called.notify_all();
    }
  }
  // Nothing holds these up any more.
  const auto all_left = std::chrono::steady_clock::now() + leave_bound;
  (void)lookout_.wait_until_left(left_until(all_left));
  for (Reader& reader : readers_) {
    (void)reader.thread.wait_until_left(left_until(all_left));
  }
  return true;
}

// The process's signals are taken here: the kernel would rather give them to the main thread, but a
// thread that is stuck in it runs no handler.
void StandbyReaders::look_out() {
  for (;;) {
    duties_.look_after();
    const bool stuck = duties_.is_stuck();
    const auto next_look = std::chrono::steady_clock::now() + time_limits::look_interval;
    ScopedLock lock(mutex_);
    if (stuck) {
      call();
    }
    while (!lookout_ending_ && changed_.wait_until(lock, next_look)) {
    }
    if (lookout_ending_) {
      lookout_ended_ = true;
      changed_.notify_all();
      return;
    }
  }
}

// Whether the main thread is stuck is asked again once there is an event: it may be what it was
// waiting for.
void StandbyReaders::stand_by(Reader& reader) {
  while (wait_for_call(reader)) {
    while (stays_free(reader)) {
      if (duties_.await_event() && duties_.is_stuck()) {
        read_one(reader);
      }
    }
  }
}

void StandbyReaders::read_one(Reader& reader) {
  if (!begin_read(reader)) {
    return;
  }
  if (overwhelmed()) {
    duties_.overwhelmed();
  }
  call_one();
  duties_.read_one();
  end_read(reader);
}

// @return false when none may any more
bool StandbyReaders::begin_read(Reader& reader) {
  ScopedLock lock(mutex_);
  if (ceasing_) {
    return false;
  }
  reader.state = State::busy;
  busy_.fetch_add(1);
  return true;
}

// One that is free is enough: all would wake for each event.
void StandbyReaders::end_read(Reader& reader) {
  ScopedLock lock(mutex_);
  reader.state = find(State::free) == nullptr ? State::free : State::waiting;
  busy_.fetch_sub(1);
}

// Whether the main thread is stuck is asked under the lock: who calls has seen it stuck, and must
// find this reader either free, and then it sees the same, or waiting.
bool StandbyReaders::stays_free(Reader& reader) {
  ScopedLock lock(mutex_);
  if (reader.state == State::free && (ceasing_ || !duties_.is_stuck())) {
    reader.state = State::waiting;
  }
  if (ceasing_) {
    changed_.notify_all();
  }
  return reader.state == State::free;
}

// @return false when the readers end
bool StandbyReaders::wait_for_call(Reader& reader) {
  ScopedLock lock(mutex_);
  while (!ending_ && reader.state == State::waiting) {
    reader.called.wait(lock);
  }
  if (ending_) {
    reader.state = State::absent;
  }
  return !ending_;
}

bool StandbyReaders::anybody_reads() {
  return find(State::busy) != nullptr || find(State::free) != nullptr;
}

StandbyReaders::Reader* StandbyReaders::find(State state) {
  const auto reader = std::find_if(readers_.begin(), readers_.end(),
                                   [&](const Reader& each) { return each.state == state; });
  return reader == readers_.end() ? nullptr : &*reader;
}

void StandbyReaders::call_one() {
  ScopedLock lock(mutex_);
  call();
}

void StandbyReaders::call() {
  if (ceasing_ || find(State::free) != nullptr) {
    return;
  }
  if (Reader* reader = find(State::waiting); reader != nullptr) {
    reader->state = State::free;
    reader->called.notify_all();
  }
}

void StandbyReaders::make(Reader& reader) {
  reader.state = State::waiting;
  const int error = reader.thread.start(
      [](void* self) {
        auto* own = static_cast<Reader*>(self);
        own->all->stand_by(*own);
      },
      &reader, stack_size);
  if (error != 0) {
    reader.state = State::absent;
  }
}
