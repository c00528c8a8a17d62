#include "standby_reader.h"

#include <signal.h>

#include <algorithm>
#include <utility>

#include "time_limits.h"

namespace {

constexpr std::size_t stack_size{262144};  // one event record, and little else

// The process's signals are the lookout's.
void block_all_signals() {
  sigset_t signals;
  (void)sigfillset(&signals);
  (void)sigdelset(&signals, SIGBUS);
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

StandbyReaders::StandbyReaders(Duties duties) : duties_(std::move(duties)) {
  for (Reader& reader : readers_) {
    reader.all = this;
  }
}

// Without a lookout, for want of a thread, the main thread reads alone.
void StandbyReaders::start() {
  ScopedLock lock(mutex_);
  ceasing_ = false;
  stopping_.store(false);
  if (!lookout_.wait_until_left(std::chrono::milliseconds(0))) {
    return;
  }
  (void)lookout_.start([](void* self) { static_cast<StandbyReaders*>(self)->look_out(); }, this,
                       stack_size);
  for (Reader& reader : readers_) {
    if (reader.state == State::absent &&
        reader.thread.wait_until_left(std::chrono::milliseconds(0))) {
      make(reader);
    }
  }
}

// While one is stuck the others and the lookout stay: making them again could take for ever.
bool StandbyReaders::stop(std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  const auto left = [deadline] {
    return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now()),
                    std::chrono::milliseconds(0));
  };
  {
    ScopedLock lock(mutex_);
    ceasing_ = true;
    while (busy_.load() != 0 && changed_.wait_until(lock, deadline)) {
    }
    if (busy_.load() != 0) {
      ceasing_ = false;
      return false;
    }
    stopping_.store(true);
    changed_.notify_all();
    for (Reader& reader : readers_) {
      reader.called.notify_all();
    }
  }
  bool all_left = lookout_.wait_until_left(left());
  for (Reader& reader : readers_) {
    all_left = reader.thread.wait_until_left(left()) && all_left;
  }
  return all_left;
}

// The process's signals are taken here: the kernel would rather give them to the main thread, but a
// thread that is stuck in it runs no handler.
void StandbyReaders::look_out() {
  while (!stopping_.load()) {
    duties_.look_after();
    if (duties_.is_stuck()) {
      call_one();
    }
    const auto next_look = std::chrono::steady_clock::now() + time_limits::look_interval;
    ScopedLock lock(mutex_);
    while (!stopping_.load() && changed_.wait_until(lock, next_look)) {
    }
  }
}

// Whether the main thread is stuck is asked again once there is an event: it may be what it was
// waiting for.
void StandbyReaders::stand_by(Reader& reader) {
  block_all_signals();
  while (wait_for_call(reader)) {
    while (is_free(reader) && duties_.is_stuck()) {
      if (duties_.await_event() && duties_.is_stuck()) {
        read_one(reader);
      }
    }
    set_state(reader, State::waiting);
  }
  set_state(reader, State::absent);
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
  if (ceasing_) {
    changed_.notify_all();
  }
}

bool StandbyReaders::is_free(const Reader& reader) {
  ScopedLock lock(mutex_);
  return !ceasing_ && reader.state == State::free;
}

// @return false when the readers stop
bool StandbyReaders::wait_for_call(Reader& reader) {
  ScopedLock lock(mutex_);
  while (!stopping_.load() && reader.state == State::waiting) {
    reader.called.wait(lock);
  }
  return !stopping_.load();
}

void StandbyReaders::set_state(Reader& reader, State state) {
  ScopedLock lock(mutex_);
  reader.state = state;
}

StandbyReaders::Reader* StandbyReaders::find(State state) {
  const auto reader = std::find_if(readers_.begin(), readers_.end(),
                                   [state](const Reader& each) { return each.state == state; });
  return reader == readers_.end() ? nullptr : &*reader;
}

// A look that comes between a free one's last look and its rest finds nobody to call; the lookout's
// next one does.
void StandbyReaders::call_one() {
  ScopedLock lock(mutex_);
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
