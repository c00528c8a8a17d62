#include "fservice.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "avsdk_scanner.h"
#include "commandparser.h"
#include "daemon_config.h"
#include "filter_service.h"
#include "logger.h"
#include "manual_scan.h"

namespace {

using namespace std::chrono_literals;

constexpr time_t wait_seconds = 3;
constexpr auto mount_check_interval = 3s;  // more than this since the last check
constexpr unsigned pass_interval = 60;     // seconds from the end of a pass to the next

// What signal handlers ask for. Atomics and a semaphore, because a handler may interrupt any
// thread at any point; counted, so that the thread can tell a request it has served from one that
// came while it was busy.
class Requests {
 public:
  struct Counts {
    unsigned updates = 0;
    unsigned scans = 0;
  };

  Requests() { (void)sem_init(&wake_, 0, 0); }

  void request_update() {
    updates_.fetch_add(1);
    wake();
  }

  void request_scan() {
    scans_.fetch_add(1);
    wake();
  }

  void wake() { (void)sem_post(&wake_); }

  Counts counts() const { return {updates_.load(), scans_.load()}; }

  // Returns on a wake-up, after the time-out, or on a signal. Further wake-ups are swallowed: one
  // look at the counts serves them all.
  void wait() {
    timespec deadline{};
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += wait_seconds;
    (void)sem_clockwait(&wake_, CLOCK_MONOTONIC, &deadline);
    while (sem_trywait(&wake_) == 0) {
    }
  }

 private:
  std::atomic<unsigned> updates_{0};
  std::atomic<unsigned> scans_{0};
  sem_t wake_;
};

// Exists before main, so that no handler constructs it, and is never destroyed: the thread may
// outlast the static objects' end by a moment.
Requests requests;

// A dropped request for a pass must not end the chain of passes; an alarm that is due sooner, such
// as the first one after start-up, keeps its time.
void arm_alarm_again() {
  const unsigned left = alarm(pass_interval);
  if (left != 0 && left < pass_interval) {
    (void)alarm(left);
  }
}

}  // namespace

fservice* fservice::get() {
  static fservice service;
  return &service;
}

// What the thread uses is touched first, so that it outlives the service at exit; the engine's
// adapter and the watch of the commands file outlive it because uninitialize() has ended the
// thread.
fservice::fservice() {
  (void)Logger::getLogger();
  (void)fsfilter::get();
  (void)CommandExec::getCommandExec();
  const int error =
      thread_.start([](void* self) { static_cast<fservice*>(self)->service_thread(); }, this);
  if (error != 0) {
    char text[200] = "";
    Logger::append_format(1, "fservice fservice:cannot create service thread %s\n",
                          strerror_r(error, text, sizeof text));
  }
}

fservice::~fservice() {
  (void)stop();
}

void fservice::ask_to_stop() {
  thread_.cancel();
  requests.wake();
}

bool fservice::stop(std::chrono::milliseconds bound) {
  ask_to_stop();
  return thread_.wait_until_left(bound);
}

void fservice::reload_avdb() {
  requests.request_update();
}

void fservice::start_scanner() {
  requests.request_scan();
}

void fservice::service_thread() {
  Logger::append(2, "service_thread service_thread(): started\n");
  last_mount_check_ = std::chrono::steady_clock::now();
  fsfilter::get()->getCacheManager()->set_size(GlobalConfig::getGlobalConfig()->MaxCacheEntries);
  Requests::Counts served;
  for (;;) {
    bool mount_check = false;
    Requests::Counts seen = requests.counts();
    while (seen.updates == served.updates && seen.scans == served.scans && !mount_check) {
      mount_check = wait_for_work();
      seen = requests.counts();
    }
    if (seen.updates != served.updates) {
      update_definitions();
    }
    if (seen.scans != served.scans) {
      Logger::append(3, "service_thread starting scanner\n");
      scanner_func();
      (void)alarm(pass_interval);
    }
    if (mount_check) {
      check_mounts();
    }
    served = requests.counts();
    if (served.scans != seen.scans) {
      arm_alarm_again();
    }
  }
}

// @return whether the mount table is due for a look
bool fservice::wait_for_work() {
  requests.wait();
  DetachedThread::cancellation_point();
  fsfilter::get()->report();
  const auto now = std::chrono::steady_clock::now();
  const auto since = std::chrono::floor<std::chrono::seconds>(now) -
                     std::chrono::floor<std::chrono::seconds>(last_mount_check_);
  if (!GlobalConfig::getGlobalConfig()->mount_tracking || since <= mount_check_interval) {
    return false;
  }
  last_mount_check_ = now;
  return true;
}

void fservice::update_definitions() {
  Logger::append(3, "service_thread update av database\n");
  if (AVSDK_scanner::getAVSDK_scanner()->apply_update(
          GlobalConfig::getGlobalConfig()->StagingDirectory)) {
    Logger::append(3, "service_thread av database updated.\n");
    (void)fsfilter::get()->reloaddb();
  } else {
    Logger::append(3, "service_thread error updating av database\n");
    fsfilter::get()->wake_to_renew();
  }
}

void fservice::check_mounts() {
  const int fd = open("/etc/mtab", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    (void)fsfilter::get()->check_mountpts(fd);
    (void)close(fd);
  }
}

Poller::Poller(std::string path) : path_(std::move(path)) {}

bool Poller::CheckForUpdate() {
  struct stat status {};
  if (stat(path_.c_str(), &status) != 0) {
    char text[200] = "";
    Logger::append(1, std::string("CheckForUpdate CheckForUpdate:stat error: ") +
                          strerror_r(errno, text, sizeof text) + "\n");
    return false;
  }
  const bool changed = status.st_mtime != last_modified_;
  last_modified_ = status.st_mtime;
  return changed;
}

void scanner_func() {
  const std::string file = GlobalConfig::getGlobalConfig()->getCommandsFileName();
  Logger::append(2, "scanner_func scanner_func(): commands file is: " + file + "\n");
  static Poller poller(file);
  if (poller.CheckForUpdate()) {
    Logger::append(
        2, "scanner_func scanner_func(): commands file has been updated updated. Reloading...\n");
    CommandParser parser;
    parser.parse(file);
    CommandExec::getCommandExec()->update(parser.getCommands());
  }
  CommandExec::getCommandExec()->perform();
  Logger::append(2, "scanner_func scanner_func(): done\n");
}
