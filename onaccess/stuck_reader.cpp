// The filter service while its main thread does not get on, or its workers do not: nothing that is
// held may wait for good. The lookout's and the standby readers' work, and the last way out.
#include <pthread.h>

#include <thread>

#include "filter_service.h"

namespace {

using namespace std::chrono_literals;

constexpr int event_wait = 20;  // milliseconds, so that standby readers end soon
constexpr auto drain_interval = 1ms;
constexpr int drained_after = 5;  // looks in a row without an event

}  // namespace

bool fsfilter::reader_is_stuck() const {
  if (leaving_.load()) {
    return true;
  }
  if (looping_.load()) {
    return std::chrono::milliseconds(fsfilter_reader_busy(ctx_)) > time_limits::stuck ||
           handing_out_.age() > time_limits::stuck;
  }
  return not_looping_.age() > (looped_.load() ? time_limits::after_loop : time_limits::before_loop);
}

bool fsfilter::event_comes() {
  return await_event(ctx_, event_wait) == 0;
}

// Nobody scans before the loop, after it, and when the workers' time to end is over.
void fsfilter::read_in_its_place() {
  if (!looping_.load() || stop_overdue()) {
    if (allow_one_event(ctx_) == 0) {
      count_unscanned();
    }
    return;
  }
  fsfilter_event_struct event;
  if (request_event_aside(ctx_, &event) == 0) {
    hand_out(event);
  }
}

void fsfilter::look_after() {
  const Clock::duration waits = first_waits(standby_front_);
  const bool stuck = reader_is_stuck();
  if (stuck && looping_.load()) {
    keep_workers_going(waits);
    wake_workers();  // the main thread may be waiting for one of these events
  }
  if (waits >= patience_ || first_is_let_go()) {
    let_go_of_queue();
  }
  // Outside of the loop nobody scans, and the main thread may be stuck in whatever it is doing.
  if (stop_overdue() && (stuck || !looping_.load()) && !leaving_.load()) {
    (void)unregister_all_mounting_points(ctx_);  // a kill from now on leaves nothing held
    let_go_of_queue();
    let_go_of_work();
    if (stop_requested_since_.age() > time_limits::last_resort) {
      end_stuck_process();
    }
  }
}

void fsfilter::end_stuck_process() {
  if (last_resort_ != nullptr) {
    let_go_of_all();
    (void)release_filter(ctx_);
    last_resort_();
  }
}

// With a reader stuck in each of the last places nobody would answer anybody: better that nothing
// is held. What is watched is marked again when the readers are free.
void fsfilter::suspend_watching() {
  (void)unregister_all_mounting_points(ctx_);
  unwatched_.store(true);
  suspended_.store(true);
}

// Until the workers have caught up with what they were too late for, they are too late for the
// rest.
bool fsfilter::first_is_let_go() {
  ScopedLock lock(efp_.mutex);
  return !efp_.queue.empty() && efp_.queue.first().let_go;
}

// Each worker may be reading a file whose server waits for one of these events. They keep their
// places, and are scanned if a worker gets on: its late answer finds nobody waiting. Closing them
// here could get stuck like reading them. Under the lock, so that nobody takes one meanwhile,
// closes it, and its number belongs to another event.
void fsfilter::let_go_of_queue() {
  ScopedLock lock(efp_.mutex);
  efp_.queue.for_each([this](QueuedEvent& queued) {
    if (!queued.let_go) {
      queued.let_go = true;
      count_unscanned();
      allow_held(ctx_, queued.event.fd);
    }
  });
}

// A number may belong to another event by the time it is answered: at the end all are allowed.
void fsfilter::let_go_of_work() {
  for (const std::atomic<int>& fd : efp_.in_work) {
    if (const int held = fd.load(); held >= 0) {
      allow_held(ctx_, held);
    }
  }
}

// A thread inside the kernel's read keeps the kernel's side alive even when the filter is released.
// Then nobody would ever let go of what it holds; so the marks must have gone before, and every
// event have been read. An open that has passed its mark may still be on its way into the kernel's
// queue, and no call tells when there are no more: so it is looked at several times.
void fsfilter::let_go_of_all() {
  (void)unregister_all_mounting_points(ctx_);
  let_go_of_queue();
  let_go_of_work();
  leaving_.store(true);
  const Clock::time_point bound = Clock::now() + time_limits::drain_bound;
  for (int quiet = 0; quiet < drained_after && Clock::now() < bound;) {
    std::this_thread::sleep_for(drain_interval);
    const bool more = await_event(ctx_, 0) == 0;
    quiet = more ? 0 : quiet + 1;
    if (more) {
      standby_.call_one();
    }
  }
}

// A thread still busy with this filter must find the handle valid, so it is released instead of
// closed.
int fsfilter::leave_filter() {
  threads_left_ = true;
  leaving_.store(true);
  standby_.start();
  let_go_of_all();
  const int released = release_filter(ctx_);
  join_workers();
  for (const unsigned long tid : started_) {
    (void)pthread_detach(tid);  // left to themselves
  }
  started_.clear();
  return released;
}
