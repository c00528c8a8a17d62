#include "fservice.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "avsdk_scanner.h"
#include "clock.h"
#include "commandparser.h"
#include "daemon_config.h"
#include "descriptor.h"
#include "filter_service.h"
#include "logger.h"
#include "manual_scan.h"

namespace {

constexpr char thread_name[] = "service_thread";  // in whose name its parts log
constexpr std::chrono::seconds longest_wait{3};   // a mount check comes after more than this
constexpr unsigned pass_interval = 60;            // seconds from the end of a pass to the next

using WholeSeconds = std::chrono::time_point<Clock, std::chrono::seconds>;

// What signal handlers ask for: atomics and a semaphore, since a handler may interrupt any thread
// at any point. It exists before main, so that no handler constructs it, and is never destroyed:
// the thread may outlast the static objects' end by a moment.
struct Requests {
  Requests() { (void)sem_init(&wake_up, 0, 0); }

  void wake() { (void)sem_post(&wake_up); }

  // Returns on a wake-up, after the time-out, or on a signal.
  void wait() {
    const timespec deadline = to_timespec(Clock::now() + longest_wait);
    (void)sem_clockwait(&wake_up, CLOCK_MONOTONIC, &deadline);
  }

  std::atomic<bool> update{false};
  std::atomic<bool> scan{false};
  sem_t wake_up;
};
Requests requests;

// Every requested pass, even one that was dropped or broken off, is followed by an alarm, which
// starts the next pass. An alarm that is due sooner, such as the first, keeps its time.
void keep_alarm() {
  if (const unsigned left = alarm(pass_interval); left != 0) {
    (void)alarm(left);
  }
}

// @param last_check of the mount table; set when another one is due
bool mount_check_is_due(WholeSeconds& last_check) {
  const auto now = std::chrono::floor<std::chrono::seconds>(Clock::now());
  if (!GlobalConfig::getGlobalConfig()->mount_tracking || now - last_check <= longest_wait) {
    return false;
  }
  last_check = now;
  return true;
}

void update_definitions() {
  Logger::log(3, thread_name, "update av database");
  const bool updated = AVSDK_scanner::getAVSDK_scanner()->apply_update(
      GlobalConfig::getGlobalConfig()->StagingDirectory);
  Logger::log(3, thread_name, updated ? "av database updated." : "error updating av database");
  if (updated) {
    (void)fsfilter::get()->reloaddb();
  }
}

// Waits until there is something to do, and does it.
void run_cycle(WholeSeconds& last_mount_check) {
  bool mount_check = false;
  while (!requests.update && !requests.scan && !mount_check) {
    requests.wait();
    if (DetachedThread::stopping()) {
      return;
    }
    fsfilter::get()->report();
    mount_check = mount_check_is_due(last_mount_check);
  }
  const bool scan = requests.scan.load();
  if (requests.update.load()) {
    update_definitions();
  }
  if (scan) {
    Logger::log(3, thread_name, "starting scanner");
    scanner_func();
    (void)alarm(pass_interval);
  }
  if (!mount_check || DetachedThread::stopping()) {
    return;
  }
  if (const Descriptor table(open("/etc/mtab", O_RDONLY | O_CLOEXEC)); table) {
    (void)fsfilter::get()->check_mountpts(table.get());
  }
}

}  // namespace

fservice* fservice::get() {
  static fservice service;
  return &service;
}

// What the thread uses is built first, so that it outlives the service at exit.
fservice::fservice() {
  (void)Logger::getLogger();
  (void)fsfilter::get();
  (void)CommandExec::getCommandExec();
  const int error = thread_.start([this] { service_thread(this); });
  if (error != 0) {
    Logger::log_format(1, __func__, "%s:cannot create service thread %s", __func__,
                       std::strerror(error));
  }
}

void fservice::ask_to_stop() {
  thread_.ask_to_stop();
  requests.wake();
}

bool fservice::stop(std::chrono::milliseconds bound) {
  ask_to_stop();
  return thread_.wait_until_left(bound);
}

void fservice::reload_avdb() {
  requests.update.store(true);
  requests.wake();
}

void fservice::start_scanner() {
  requests.scan.store(true);
  requests.wake();
}

void service_thread(void*) {
  Logger::log(2, __func__, "service_thread(): started");
  auto last_mount_check = std::chrono::floor<std::chrono::seconds>(Clock::now());
  fsfilter::get()->getCacheManager()->set_size(GlobalConfig::getGlobalConfig()->MaxCacheEntries);
  while (!DetachedThread::stopping()) {
    try {
      run_cycle(last_mount_check);
    } catch (...) {
      // No memory, or the engine has thrown: only the rest of this cycle is lost.
    }
    requests.update.store(false);
    if (requests.scan.exchange(false)) {
      keep_alarm();
    }
  }
}

bool Poller::CheckForUpdate() {
  struct stat status {};
  if (stat(path_.c_str(), &status) != 0) {
    Logger::log_format(1, __func__, "%s:stat error: %s", __func__, std::strerror(errno));
    return false;
  }
  const bool changed = status.st_mtime != last_modified_;
  last_modified_ = status.st_mtime;
  return changed;
}

void scanner_func() {
  const std::string file = GlobalConfig::getGlobalConfig()->getCommandsFileName();
  Logger::log(2, __func__, "scanner_func(): commands file is: " + file);
  static Poller poller(file);
  if (poller.CheckForUpdate()) {
    Logger::log(2, __func__,
                "scanner_func(): commands file has been updated updated. Reloading...");
    try {
      CommandParser parser;
      parser.parse(file);
      CommandExec::getCommandExec()->update(parser.getCommands());
    } catch (...) {
      poller.forget();  // no memory: the next pass tries again
      throw;
    }
  }
  CommandExec::getCommandExec()->perform();
  Logger::log(2, __func__, "scanner_func(): done");
}
