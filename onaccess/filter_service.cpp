#include "filter_service.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "daemon_config.h"
#include "event_worker.h"
#include "fsfilter_group.h"
#include "logger.h"
#include "network_file_system.h"
#include "time_limits.h"

namespace {

constexpr std::chrono::minutes report_interval{1};  // of unscanned events and denied opens

// Both are built before the service, so they are destroyed after it.
CCaching* cache_after_logger() {
  (void)Logger::getLogger();
  return CCaching::getCacheManager();
}

// @return 0, or -1 when an entry failed
template <typename Add>
int try_each(const char* function, const std::list<std::string>& paths, Add add) {
  int result = 0;
  for (const std::string& entry : paths) {
    if (add(entry) != 0) {
      Logger::log(1, function,
                  std::string(function) + " fails: " + entry + ": " + std::strerror(errno));
      result = -1;
    }
  }
  return result;
}

}  // namespace

fsfilter* fsfilter::get() {
  static fsfilter service;
  return &service;
}

fsfilter::fsfilter()
    : cache_(cache_after_logger()),
      lanes_(efp_, *cache_,
             [this](const mntpoint& mount, int error) { mounts_.failed(mount, error); }),
      mounts_(*this) {
  cache_->clear();
}

fsfilter::~fsfilter() {
  cache_->clear();
  (void)unreg_filter();
}

int fsfilter::reg_filter() {
  if (ctx_ != nullptr) {
    Logger::log(1, __func__, "FSFilter alredy registered");
    return -1;
  }
  return register_filter(&ctx_);
}

// If a thread is left behind, the handle stays valid for it. Its late answers reach nobody.
int fsfilter::unreg_filter() {
  if (ctx_ == nullptr) {
    return -1;
  }
  efp_.running.store(0);
  let_go();
  const auto deadline = std::min(stop_deadline(), Clock::now() + time_limits::leave);
  threads_left_ = !workers_.wait_until_left(deadline) || !lanes_.wait_until_left(deadline);
  workers_.join();
  if (threads_left_) {
    fsfilter_keep_handle(ctx_);
  } else {
    efp_.drop();
  }
  ScopedLock lock(mutex_);
  const int result = unregister_filter(ctx_);
  ctx_ = nullptr;
  return result;
}

// The marks are removed first, because the process does not end while one of its threads is stuck
// in the kernel.
int fsfilter::start_lookout(void (*take_signals)(), void (*last_resort)()) {
  fsfilter_keep_handle(ctx_);
  return lookout_.start(take_signals, [filter = ctx_, last_resort] {
    (void)fsfilter_unmark_all(filter);
    (void)unregister_filter(filter);
    last_resort();
  });
}

int fsfilter::include(const std::list<std::string>& paths) {
  const char* const function = __func__;
  return try_each(function, paths, [this, function](const std::string& entry) {
    Logger::log(2, function, "Include folder " + entry);
    return add_inclusion(ctx_, trimmed_include(entry).c_str());
  });
}

int fsfilter::exclude(const std::list<std::string>& paths) {
  return try_each(__func__, paths,
                  [this](const std::string& entry) { return add_exclusion(ctx_, entry.c_str()); });
}

void fsfilter::stop() {
  lookout_.note_stop();
  efp_.running.store(0);
}

Clock::time_point fsfilter::stop_deadline() const {
  return lookout_.stop().value_or(Clock::now()) + time_limits::stop_bound;
}

int fsfilter::reloaddb() {
  efp_.update_barrier.request();
  cache_->clear();
  return 0;
}

// The order matters: a stop may come at any moment of start-up. stop() notes the stop before it
// clears the flag; here the flag is set before the stop is looked for. So the flag ends up cleared.
void fsfilter::set_running() {
  efp_.running.store(1);
  if (stopping()) {
    efp_.running.store(0);
  }
}

int fsfilter::start_threads(int wanted) {
  if (!workers_.empty()) {
    Logger::log(1, __func__, "threads already started");
    return -1;
  }
  const int n = std::clamp(wanted, 0, most_workers);
  set_running();
  efp_.start_barrier.emplace(n + 1);
  const int started = workers_.start(n, &event_processing_thread, this);
  efp_.update_barrier.set_parties(started);
  if (started < n) {
    Logger::log_format(1, __func__, "can't create thread %s", std::strerror(errno));
    // The workers that exist must not wait for those that could not be made.
    efp_.start_barrier->count_down(n - started);
    return -1;
  }
  return 0;
}

// The lanes begin before the workers do. A worker may hold the loader's lock while it waits for an
// answer; the service thread, which makes a lane's threads under mutex_, would wait for the worker,
// and this thread for the service thread.
void fsfilter::loop() {
  efp_.set_filter(ctx_);
  set_running();
  {
    ScopedLock lock(mutex_);
    lanes_.begin();
  }
  efp_.start_barrier->arrive_and_wait();
  while (!workers_.empty() && efp_.running.load() != 0) {
    fsfilter_event_struct event;
    if (request_event(ctx_, &event, 1) == 0) {
      (void)post(event);
    }
    efp_.tend();
    (void)check_threads();
  }
  lookout_.note_stop();  // the loop also ends when there are no workers
  let_go();
  (void)workers_.wait_until_left(*lookout_.stop() + time_limits::stop_grace);
  Logger::log(2, __func__, "fsfilter::loop(): exitting event loop");
}

// Lets go of everything that is held at once, whatever the workers do: every single answer would
// wake all processes that wait in the kernel. The marks go first, so that nothing new is held.
void fsfilter::let_go() {
  (void)fsfilter_unmark_all(ctx_);
  (void)fsfilter_release_group(ctx_);
  efp_.end();
  ScopedLock lock(mutex_);
  lanes_.end();
}

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
    Logger::log(1, "initialize", problems_);  // in the name of who has noted them
    problems_.clear();
  }
  for (const std::string& text : mounts_.take_failures()) {
    Logger::log(1, __func__, text);
  }
  if (Clock::now() < next_report_) {
    return;
  }
  std::uint64_t unscanned = eventsForProcessing::unscanned();
  std::uint64_t denied = 0;
  {
    ScopedLock lock(mutex_);
    if (ctx_ == nullptr) {
      return;
    }
    unscanned += fsfilter_unnamed_events(ctx_);
    denied = fsfilter_failed_reads(ctx_);
  }
  report_increase(
      unscanned, reported_unscanned_,
      "file events were allowed without a scan: nobody to scan them in time, or path too long");
  report_increase(denied, reported_denied_,
                  "opens were denied by the kernel: their events could not be read");
}

void fsfilter::report_increase(std::uint64_t number, std::uint64_t& reported, const char* what) {
  if (number != reported) {
    Logger::log_format(1, "report", "%llu %s", static_cast<unsigned long long>(number - reported),
                       what);
    reported = number;
    next_report_ = Clock::now() + report_interval;
  }
}

int fsfilter::init_mountpts() {
  lanes_.prepare(ctx_);
  return mounts_.init();
}

// No path is looked up here: that could wait for a server.
int fsfilter::uninit_mountpts() {
  Logger::log(3, __func__, "uninit_mountpts(): begin");
  if (ctx_ != nullptr) {
    let_go();
    for (const std::string& directory : mounts_.forget_all()) {
      (void)fsfilter_forget_mount(ctx_, directory.c_str());
    }
  }
  Logger::log(3, __func__, "uninit_mountpts(): done");
  return 0;
}

int fsfilter::check_mountpts(int fd) {
  Logger::log(3, __func__, "check_mountpts");
  {
    ScopedLock lock(mutex_);
    if (ctx_ != nullptr && !stopping() && mounts_.check_mountpts(fd) != 0) {
      return -1;
    }
  }
  Logger::log(3, __func__, "check_mountpts done");
  return 0;
}

int fsfilter::watch(const mntpoint& mount, bool served) {
  return served && !network_file_system(mount.type().c_str()) ? lanes_.open(mount)
                                                              : mount.reg(ctx_);
}

// The kernel removes a mark with its mount. If the path may lead to a server, it is only taken off
// the list and not looked up; if our mark has come to lie on the server's mount, only removing all
// marks takes it away. The mounts that stay are marked again.
void fsfilter::unwatch(const mntpoint& mount, bool served, bool served_now) {
  if (served) {
    lanes_.close(mount);
  } else if (served_now) {
    (void)fsfilter_unmark_all(ctx_);
  }
  if (served || served_now) {
    (void)fsfilter_forget_mount(ctx_, mount.name().c_str());
  } else {
    (void)mount.unreg(ctx_);
  }
}
