#include "filter_service.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "event_worker.h"
#include "logger.h"

namespace {

using namespace std::chrono_literals;

constexpr auto stop_grace = 2s;            // for workers inside the engine
constexpr auto stop_bound = 2700ms;        // for everything
constexpr auto leave_interval = 1ms;       // between two looks at the filter while they leave
constexpr std::int64_t stuck_after = 100;  // milliseconds with one event
// How long the main thread may do without a reader before its loop and after it. The first is long:
// what standby readers allow then is not scanned.
constexpr auto start_limit = 2s;
constexpr auto teardown_limit = 300ms;
constexpr auto overdue_limit = 30s;  // of the first event in the queue, before all are let go
constexpr auto standby_stop_bound = 200ms;
constexpr int standby_wait = 20;        // milliseconds for an event, so that they end soon
constexpr auto front_limit = 900ms;     // an event may be first in the queue this long
constexpr auto look_interval = 250ms;   // at the front of the queue
constexpr auto report_interval = 1min;  // of unscanned events
constexpr auto teardown_lock_bound = 300ms;
constexpr std::time_t hung_after = 3;  // seconds, of a marked worker

std::int64_t monotonic_nanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

threadInfo::threadInfo(unsigned long thread) : tid(thread), ts(std::time(nullptr)) {}

fsfilter* fsfilter::get() {
  static fsfilter service;
  return &service;
}

// The logger and the cache are touched first, so that they outlive the service at exit.
fsfilter::fsfilter()
    : standby_([this] { return reader_is_stuck(); }, [this] { read_in_its_place(); },
               [this] { let_go_of_overdue(); }),
      held_limit_(INT_MAX) {
  for (std::atomic<int>& fd : efp_.in_work) {
    fd.store(-1, std::memory_order_relaxed);
  }
  (void)Logger::getLogger();
  cache_ = CCaching::getCacheManager();
  cache_->clear();
}

fsfilter::~fsfilter() {
  cache_->clear();
  (void)unreg_filter();
}

int fsfilter::reg_filter() {
  if (ctx_ != nullptr) {
    Logger::append(1, "reg_filter FSFilter alredy registered\n");
    return -1;
  }
  const int result = register_filter(&ctx_);
  if (result == 0) {
    not_looping_since_.store(monotonic_nanoseconds());
    standby_.start();
  }
  return result;
}

// A thread still busy with this filter must find the handle valid, so it is then released instead
// of closed, after every open that is held has been answered: a thread inside a system call keeps
// the kernel's side alive.
int fsfilter::unreg_filter() {
  if (ctx_ == nullptr) {
    return -1;
  }
  const bool alone = standby_.stop(standby_stop_bound) && worker_count_.load() == 0;
  if (!alone || !mutex_.try_lock_for(teardown_lock_bound)) {
    threads_left_ = true;
    allow_all_held();
    const int released = release_filter(ctx_);
    join_workers();
    for (const unsigned long tid : started_) {
      (void)pthread_detach(tid);  // left to themselves
    }
    return released;
  }
  const int result = unregister_filter(ctx_);
  ctx_ = nullptr;
  mutex_.unlock();
  join_workers();
  return result;
}

// They have left the list and only return; nothing they still do can wait for the filter.
void fsfilter::join_workers() {
  std::list<unsigned long> finished;
  {
    ScopedLock lock(leaving_mutex_);
    finished.swap(finished_);
  }
  for (const unsigned long tid : finished) {
    (void)pthread_join(tid, nullptr);
    started_.remove(tid);
  }
}

int fsfilter::include(const std::list<std::string>& paths) {
  int result = 0;
  for (const std::string& entry : paths) {
    Logger::append(2, "include Include folder " + entry + "\n");
    std::string path = entry.substr(0, FSFILTER_PATH_MAX - 1);
    if (path.ends_with('/')) {
      path.pop_back();
    }
    if (add_inclusion(ctx_, path.c_str()) != 0) {
      Logger::append(1, "include include fails: " + entry + ": " + std::strerror(errno) + "\n");
      result = -1;
    }
  }
  return result;
}

int fsfilter::exclude(const std::list<std::string>& paths) {
  int result = 0;
  for (const std::string& entry : paths) {
    if (add_exclusion(ctx_, entry.c_str()) != 0) {
      Logger::append(1, "exclude exclude fails: " + entry + ": " + std::strerror(errno) + "\n");
      result = -1;
    }
  }
  return result;
}

int fsfilter::post(fsfilter_event_struct& event) {
  ScopedLock lock(efp_.mutex);
  const bool was_empty = efp_.queue.empty();
  if (!efp_.queue.push(event)) {
    return -1;
  }
  efp_.held.fetch_add(1, std::memory_order_relaxed);
  if (was_empty) {
    efp_.cond.notify_one();
  }
  return 0;
}

void fsfilter::stop() {
  std::int64_t never = 0;
  (void)stop_time_.compare_exchange_strong(never, monotonic_nanoseconds());
  stop_requested_.store(true);
  efp_.running.store(0);
}

fsfilter::Clock::time_point fsfilter::stop_deadline() const {
  const std::int64_t stopped = stop_time_.load();
  const std::int64_t begin = stopped == 0 ? monotonic_nanoseconds() : stopped;
  return Clock::time_point(
      std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(begin) + stop_bound));
}

bool fsfilter::stop_overdue() const {
  const std::int64_t stopped = stop_time_.load();
  return stopped != 0 && std::chrono::nanoseconds(monotonic_nanoseconds() - stopped) > stop_grace;
}

int fsfilter::reloaddb() {
  efp_.update_barrier.request();
  cache_->clear();
  return 0;
}

int fsfilter::start_threads(int wanted) {
  const int n = std::clamp(wanted, 0, eventsForProcessing::most_workers);
  ScopedLock lock(mutex_);
  if (!threads_.empty()) {
    Logger::append(1, "start_threads threads already started\n");
    return -1;
  }
  efp_.running.store(stop_requested_.load() ? 0 : 1);
  efp_.start_barrier.set_parties(n + 1);
  efp_.update_barrier.set_parties(n);
  for (int started = 0; started < n; ++started) {
    pthread_t thread{};
    const int error = pthread_create(&thread, nullptr, &event_processing_thread, this);
    if (error != 0) {
      Logger::append_format(1, "start_threads can't create thread %s\n", std::strerror(error));
      // Those that exist must not wait for those that do not.
      efp_.start_barrier.set_parties(started + 1);
      efp_.update_barrier.set_parties(started);
      return -1;
    }
    threads_.emplace_back(thread);
    started_.push_back(thread);
    worker_count_.fetch_add(1);
  }
  return 0;
}

int fsfilter::cancel_thread(unsigned long tid) {
  Logger::append(3, "cancel_thread cancel_thread(): begin\n");
  bool found = false;
  {
    ScopedLock lock(mutex_);
    const auto thread = std::find(threads_.begin(), threads_.end(), threadInfo(tid));
    found = thread != threads_.end();
    if (found) {
      (void)pthread_cancel(tid);
      threads_.erase(thread);
    }
  }
  Logger::append(3, "cancel_thread cancel_thread(): done\n");
  if (found) {
    // Only now, with nothing left to log: the list is of threads that may be waited for.
    ScopedLock lock(leaving_mutex_);
    finished_.push_back(tid);
    worker_count_.fetch_sub(1);
    worker_left_.notify_all();
  }
  return 0;
}

int fsfilter::mark_thread(unsigned long tid, int where) {
  Logger::append_format(3, "mark_thread mark thread %u %d\n", static_cast<unsigned>(tid), where);
  {
    ScopedLock lock(mutex_);
    const auto thread = std::find(threads_.begin(), threads_.end(), threadInfo(tid));
    if (thread != threads_.end()) {
      thread->ts = std::time(nullptr);
      thread->where = where;
    }
  }
  Logger::append(3, "mark_thread mark thread done\n");
  return 0;
}

// try_lock: whoever works on the mount table may wait for a file server that waits for us.
int fsfilter::check_threads() {
  if (!mutex_.try_lock()) {
    return 0;
  }
  const std::time_t now = std::time(nullptr);
  for (const threadInfo& thread : threads_) {
    if (thread.where == 0) {
      continue;
    }
    const auto tid = static_cast<unsigned>(thread.tid);
    Logger::append_format(3, "check_threads check thread %u: ts %u\n", tid,
                          static_cast<unsigned>(thread.ts));
    if (now - thread.ts > hung_after) {
      Logger::append_format(1, "check_threads thread %u hungup in %d\n", tid, thread.where);
    }
  }
  mutex_.unlock();
  return 0;
}

void fsfilter::loop() {
  {
    ScopedLock lock(efp_.mutex);
    efp_.ctx = ctx_;
  }
  efp_.running.store(1);
  if (stop_requested_.load()) {
    efp_.running.store(0);  // a stop that came during start-up
  }
  efp_.start_barrier.arrive_and_wait();
  looping_.store(true);
  while (worker_count_.load() > 0 && !stop_overdue()) {
    const bool running = efp_.running.load() != 0;
    fsfilter_event_struct event;
    if (request_event(ctx_, &event, running ? 1 : 0) == 0) {
      handing_out_since_.store(monotonic_nanoseconds(), std::memory_order_relaxed);
      hand_out(event);
      handing_out_since_.store(0, std::memory_order_relaxed);
    } else if (!running) {
      wait_for_leavers();
    }
    keep_workers_going();
    (void)check_threads();
  }
  not_looping_since_.store(monotonic_nanoseconds());
  looped_.store(true);
  looping_.store(false);
  Logger::append(2, "loop fsfilter::loop(): exitting event loop\n");
}

bool fsfilter::reader_is_stuck() const {
  if (looping_.load()) {
    const std::int64_t handing_out = handing_out_since_.load(std::memory_order_relaxed);
    return fsfilter_reader_busy(ctx_) > stuck_after ||
           (handing_out != 0 && monotonic_nanoseconds() - handing_out > stuck_after * 1'000'000);
  }
  const std::chrono::nanoseconds absent(monotonic_nanoseconds() - not_looping_since_.load());
  return absent > (looped_.load() ? std::chrono::nanoseconds(teardown_limit) : start_limit);
}

// When no worker has taken an event for that long, what waits is let go unscanned: each of them may
// be reading a file whose server waits for one of these events.
void fsfilter::let_go_of_overdue() {
  const Clock::time_point now = Clock::now();
  ScopedLock lock(efp_.mutex);
  const std::uint64_t front = efp_.queue.empty() ? 0 : efp_.queue.front().message_id;
  if (front != overdue_front_ || front == 0) {
    overdue_front_ = front;
    overdue_since_ = now;
    return;
  }
  if (now - overdue_since_ < overdue_limit || efp_.running.load() == 0) {
    return;
  }
  // Not more than there are now: what comes meanwhile may find the workers at work again.
  for (int left = efp_.held.load(); left > 0 && !efp_.queue.empty(); --left) {
    std::unique_ptr<QueuedEvent> overdue = efp_.queue.pop();
    lock.unlock();
    allow_unscanned(overdue->event);
    efp_.held.fetch_sub(1, std::memory_order_relaxed);
    lock.lock();
  }
}

void fsfilter::read_in_its_place() {
  if (!looping_.load()) {
    if (allow_one_event(ctx_, standby_wait) == 0) {
      over_limit_.fetch_add(1, std::memory_order_relaxed);
    }
    return;
  }
  fsfilter_event_struct event;
  if (request_event_aside(ctx_, &event, standby_wait) == 0) {
    hand_out(event);
  }
}

// What the workers left, and what those have who cannot be waited for. Their own answers, should
// they come, find nobody waiting.
void fsfilter::allow_all_held() {
  ScopedLock lock(efp_.mutex);
  while (!efp_.queue.empty()) {
    allow(efp_.queue.pop()->event);
  }
  for (const std::atomic<int>& fd : efp_.in_work) {
    if (fd.load() >= 0) {
      allow_held(ctx_, fd.load());
    }
  }
}

void fsfilter::hand_out(fsfilter_event_struct& event) {
  if (event.type != FSFILTER_OPEN && event.type != FSFILTER_CLOSE_WR) {
    allow(event);
  } else if (efp_.held.load(std::memory_order_relaxed) >= held_limit_ || post(event) != 0) {
    allow_unscanned(event);
  }
}

void fsfilter::allow(fsfilter_event_struct& event) {
  event.result = FSFILTER_ALLOW;
  (void)set_result(ctx_, &event);
}

// What was written is not known to be clean any more, scan or no scan.
void fsfilter::allow_unscanned(fsfilter_event_struct& event) {
  if (event.type == FSFILTER_CLOSE_WR) {
    cache_->erase(event.path);
  }
  over_limit_.fetch_add(1, std::memory_order_relaxed);
  allow(event);
}

// The loop's share in the workers' progress, once in each of its turns. post() wakes one worker
// when the queue becomes non-empty; these are the cases in which that is not enough.
void fsfilter::keep_workers_going() {
  const bool stopping = efp_.running.load() == 0;
  if (stopping) {
    efp_.update_barrier.open();
  }
  const bool stuck = front_is_stuck();
  if (stuck) {
    efp_.update_barrier.let_through();
  }
  if (stopping || stuck || efp_.update_barrier.pending()) {
    ScopedLock lock(efp_.mutex);
    if (stopping || !efp_.queue.empty()) {
      efp_.cond.notify_all();
    }
  }
}

// Whether the same event has been first in the queue for too long: the one worker that was woken
// for it may be scanning something large while others sleep.
bool fsfilter::front_is_stuck() {
  const Clock::time_point now = Clock::now();
  if (now < next_look_ && !efp_.update_barrier.pending()) {
    return false;
  }
  next_look_ = now + look_interval;
  std::uint64_t front = 0;
  {
    ScopedLock lock(efp_.mutex);
    front = efp_.queue.empty() ? 0 : efp_.queue.front().message_id;
  }
  if (front == 0 || front != front_seen_) {
    front_seen_ = front;
    front_since_ = now;
    return false;
  }
  return now - front_since_ >= front_limit;
}

void fsfilter::wait_for_leavers() {
  const auto deadline = Clock::now() + leave_interval;
  ScopedLock lock(leaving_mutex_);
  if (worker_count_.load() > 0) {
    (void)worker_left_.wait_until(lock, deadline);
  }
}

void fsfilter::report() {
  if (!problems_.empty()) {
    Logger::append(1, "initialize " + problems_ + "\n");
    problems_.clear();
  }
  const Clock::time_point now = Clock::now();
  if (now < next_report_) {
    return;
  }
  std::uint64_t unscanned = over_limit_.load(std::memory_order_relaxed);
  {
    ScopedLock lock(mutex_);
    if (ctx_ == nullptr) {
      return;
    }
    unscanned += fsfilter_unnamed_events(ctx_);
  }
  if (unscanned != reported_) {
    Logger::append_format(1,
                          "report %llu file events were allowed without a scan: too many "
                          "at once, or path too long\n",
                          static_cast<unsigned long long>(unscanned - reported_));
    reported_ = unscanned;
    next_report_ = now + report_interval;
  }
}
