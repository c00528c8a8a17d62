#include "filter_service.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "event_worker.h"
#include "logger.h"
#include "time_limits.h"

namespace {

using namespace std::chrono_literals;

constexpr auto leave_interval = 1ms;    // between two looks at the filter while workers leave
constexpr auto report_interval = 1min;  // of unscanned events
constexpr std::time_t hung_after = 3;   // seconds, of a marked worker

}  // namespace

threadInfo::threadInfo(unsigned long thread) : tid(thread), ts(std::time(nullptr)) {}

fsfilter* fsfilter::get() {
  static fsfilter service;
  return &service;
}

// The logger and the cache are touched first, so that they outlive the service at exit.
fsfilter::fsfilter()
    : standby_({.is_stuck = [this] { return reader_is_stuck(); },
                .await_event = [this] { return event_comes(); },
                .read_one = [this] { read_in_its_place(); },
                .look_after = [this] { look_after(); },
                .overwhelmed = [this] { suspend_watching(); }}),
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
    standby_.start();
  }
  return result;
}

int fsfilter::unreg_filter() {
  if (ctx_ == nullptr) {
    return -1;
  }
  const std::optional<int> result = worker_count_.load() == 0 ? close_filter() : std::nullopt;
  if (!result) {
    return leave_filter();
  }
  join_workers();
  return *result;
}

// @return nothing, and nothing has changed, when somebody is stuck with the filter
std::optional<int> fsfilter::close_filter() {
  if (!mutex_.try_lock_for(time_limits::teardown_lock)) {
    return std::nullopt;
  }
  const ScopedLock lock(mutex_, std::adopt_lock);
  if (!standby_.stop(time_limits::standby_stop)) {
    return std::nullopt;
  }
  const int result = unregister_filter(ctx_);
  ctx_ = nullptr;
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
    if (std::erase(started_, tid) > 0) {
      (void)pthread_join(tid, nullptr);
    }
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
  stop_requested_since_.begin_once();
  stop_requested_.store(true);
  efp_.running.store(0);
}

fsfilter::Clock::time_point fsfilter::stop_deadline() const {
  return stop_requested_since_.moment().value_or(Clock::now()) + time_limits::stop_bound;
}

bool fsfilter::stop_overdue() const {
  return stop_requested_since_.age() > time_limits::stop_grace;
}

int fsfilter::reloaddb() {
  efp_.update_barrier.request();
  cache_->clear();
  wake_to_renew();
  return 0;
}

void fsfilter::wake_to_renew() {
  ScopedLock lock(efp_.mutex);
  efp_.cond.notify_all();
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
  const ScopedLock lock(mutex_, std::adopt_lock);
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
      handing_out_.begin();
      hand_out(event);
      handing_out_.end();
    } else if (!running) {
      wait_for_leavers();
    }
    if (const Clock::time_point now = Clock::now();
        !running || now >= next_look_ || efp_.update_barrier.pending()) {
      next_look_ = now + time_limits::front_interval;
      keep_workers_going(first_waits(front_));
    }
    (void)check_threads();
  }
  not_looping_.begin();
  looped_.store(true);
  looping_.store(false);
  Logger::append(2, "loop fsfilter::loop(): exitting event loop\n");
}

void fsfilter::hand_out(fsfilter_event_struct& event) {
  if (event.type != FSFILTER_OPEN && event.type != FSFILTER_CLOSE_WR) {
    allow(event);
  } else if (too_many_held() || post(event) != 0) {
    allow_unscanned(event);
  }
}

// Standby readers hold a descriptor each, too.
bool fsfilter::too_many_held() const {
  return efp_.held.load(std::memory_order_relaxed) + standby_.busy() >= held_limit_;
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
  count_unscanned();
  allow(event);
}

// How long the same event has been first in the queue.
fsfilter::Clock::duration fsfilter::first_waits(FrontWatch& watch) {
  ScopedLock lock(efp_.mutex);
  return watch.look(efp_.queue.empty() ? 0 : efp_.queue.front().message_id, Clock::now());
}

// post() wakes one worker when the queue becomes non-empty; these are the cases in which that is
// not enough. One is that the worker woken for the first event is scanning something large, and
// others sleep.
void fsfilter::keep_workers_going(Clock::duration first_waits) {
  const bool stopping = efp_.running.load() == 0;
  if (stopping) {
    efp_.update_barrier.open();
  }
  const bool stuck = first_waits >= time_limits::front;
  if (stuck) {
    efp_.update_barrier.let_through();
  }
  if (stopping || stuck || efp_.update_barrier.pending()) {
    wake_workers();
  }
}

void fsfilter::wake_workers() {
  ScopedLock lock(efp_.mutex);
  if (efp_.running.load() == 0 || !efp_.queue.empty()) {
    efp_.cond.notify_all();
  }
}

void fsfilter::wait_for_leavers() {
  const auto deadline = Clock::now() + leave_interval;
  ScopedLock lock(leaving_mutex_);
  if (worker_count_.load() > 0) {
    (void)worker_left_.wait_until(lock, deadline);
  }
}

// Under the lock, so that the area is not unmapped meanwhile.
bool fsfilter::publish_jobs(const std::string& text) {
  ScopedLock lock(mutex_);
  if (ctx_ == nullptr) {
    return false;
  }
  auto& area = fsfilter_stat(ctx_)->jobs;
  std::memset(area, 0, sizeof area);
  std::memcpy(area, text.data(), std::min(text.size(), sizeof area));
  return true;
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
  std::uint64_t unscanned = unscanned_.load(std::memory_order_relaxed);
  {
    ScopedLock lock(mutex_);
    if (ctx_ == nullptr) {
      return;
    }
    unscanned += fsfilter_unnamed_events(ctx_);
  }
  if (unscanned != reported_) {
    Logger::append_format(1,
                          "report %llu file events were allowed without a scan: nobody "
                          "to scan them in time, or path too long\n",
                          static_cast<unsigned long long>(unscanned - reported_));
    reported_ = unscanned;
    next_report_ = now + report_interval;
  }
  if (suspended_.exchange(false)) {
    Logger::append(1,
                   "report nothing was watched for a while: too many opens wait for a file "
                   "system that does not answer\n");
    next_report_ = now + report_interval;
  }
  if (const std::uint64_t dropped = Logger::dropped(); dropped != reported_dropped_) {
    Logger::append_format(1, "report %llu log records were dropped: too many at once\n",
                          static_cast<unsigned long long>(dropped - reported_dropped_));
    reported_dropped_ = dropped;
    next_report_ = now + report_interval;
  }
}
