#include "lifecycle.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "avsdk_scanner.h"
#include "daemon_config.h"
#include "daemonize.h"
#include "filter_service.h"
#include "fservice.h"
#include "logger.h"
#include "process_setup.h"
#include "signals.h"

namespace {

constexpr char daemon_name[] = "pelowatchd";
constexpr unsigned first_pass_delay = 10;  // seconds

[[noreturn]] void fail_registration() {
  Logger::error_info error;
  error.error_description =
      "Unable to register filter. Check that daemon is run under root permissions.";
  Logger::append_error(error);
  Logger::drain(std::chrono::seconds(5));
  if (!Logger::stop()) {
    _exit(255);
  }
  std::exit(-1);
}

void write_pidfile() {
  (void)set_pidfile_dir("/var/run/pelo/");
  if (create_pidfile(daemon_name) == nullptr) {
    Logger::print(1, "Unable to create pid file: %s\n", std::strerror(errno));
  }
}

int watch_mounts(const GlobalConfig& config, fsfilter& service) {
  return config.mount_tracking ? service.init_mountpts() : service.addmnt({"/", "root"});
}

// Definitions may take half a minute to load, and once a mount is marked its opens would wait for
// them. The handle that has them loaded is given back at once; the engine keeps them for those of
// the workers.
void load_definitions() {
  AVSDK_scanner& scanner = *AVSDK_scanner::getAVSDK_scanner();
  void* handle = nullptr;
  if (scanner.get_thread_scan_handler(&handle, false)) {
    scanner.release_thread_scan_handler(handle);
  }
}

std::chrono::milliseconds time_until(std::chrono::steady_clock::time_point deadline) {
  const auto left = deadline - std::chrono::steady_clock::now();
  return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(left),
                  std::chrono::milliseconds(50));
}

}  // namespace

int initialize() {
  const GlobalConfig& config = *GlobalConfig::getGlobalConfig();
  fsfilter& service = *fsfilter::get();

  hold_signals();
  (void)Logger::start();
  Logger::enable();
  service.set_last_resort([] {
    (void)remove_pidfile(daemon_name);
    _exit(0);
  });
  release_signals();  // to the lookout, which reg_filter() makes
  const int registered = service.reg_filter();
  if (service.has_lookout()) {
    hold_signals();
  }
  if (registered != 0) {
    fail_registration();
  }
  write_pidfile();
  load_definitions();
  service.set_held_limit(raise_descriptor_limit());

  // Start-up would fill the log with a line for every mount point and path, each time.
  Logger::drain(std::chrono::seconds(1));
  Logger::disable();
  (void)watch_mounts(config, service);
  if (service.watches_nothing()) {
    service.note_problem("no mount point is watched. ");
  }
  if (service.include(config.IncludeList) != 0) {
    service.note_problem("a path to include does not exist. ");
  }
  const bool bad_directory = service.exclude(config.ExcludeDirectory) != 0;
  const bool bad_file = service.exclude(config.ExcludeFile) != 0;
  if (bad_directory || bad_file) {
    service.note_problem("a path to exclude does not exist. ");
  }
  if (service.start_threads(config.MaxThreads) != 0) {
    service.note_problem("not every worker could be started. ");
  }
  (void)fservice::get()->start();
  if (!service.stopping()) {
    Logger::enable();
  }

  (void)alarm(first_pass_delay);
  return 0;
}

int uninitialize() {
  Logger::print(2, "uninitialize\n");
  fservice::get()->ask_to_stop();  // first: it may need the time for the file it is scanning
  fsfilter& service = *fsfilter::get();
  (void)service.uninit_mountpts();
  (void)service.unreg_filter();
  const auto deadline = service.stop_deadline();
  const bool service_ended = fservice::get()->stop(time_until(deadline));
  const bool logger_ended = Logger::stop(time_until(deadline));
  (void)remove_pidfile(daemon_name);
  if (service.threads_left() || !service_ended || !logger_ended) {
    _exit(0);
  }
  return 0;
}
