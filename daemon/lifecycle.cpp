#include "lifecycle.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "avsdk_scanner.h"
#include "daemon_config.h"
#include "daemonize.h"
#include "filter_service.h"
#include "fservice.h"
#include "logger.h"
#include "process_setup.h"

namespace {

constexpr char daemon_name[] = "pelowatchd";
constexpr unsigned first_pass_delay = 10;  // seconds

[[noreturn]] void fail_registration() {
  Logger::error_info error;
  error.error_description =
      "Unable to register filter. Check that daemon is run under root permissions.";
  Logger::append_error(error);
  Logger::drain(std::chrono::seconds(5));
  (void)Logger::stop();
  std::exit(-1);
}

void write_pidfile() {
  (void)set_pidfile_dir("/var/run/pelo/");
  if (create_pidfile(daemon_name) == nullptr) {
    Logger::print(1, "Unable to create pid file: %s\n", std::strerror(errno));
  }
}

void watch_mounts(const GlobalConfig& config, fsfilter& service) {
  if (config.mount_tracking) {
    (void)service.init_mountpts();
  } else {
    (void)service.addmnt({"/", "root"});
  }
}

}  // namespace

int initialize() {
  const GlobalConfig& config = *GlobalConfig::getGlobalConfig();
  fsfilter& service = *fsfilter::get();

  (void)Logger::start();
  Logger::enable();
  if (service.reg_filter() != 0) {
    fail_registration();
  }
  write_pidfile();
  (void)AVSDK_scanner::getAVSDK_scanner();
  service.set_held_limit(raise_descriptor_limit());

  // Start-up would fill the log with a line for every mount point and path, each time.
  Logger::disable();
  watch_mounts(config, service);
  (void)service.include(config.IncludeList);
  (void)service.exclude(config.ExcludeDirectory);
  (void)service.exclude(config.ExcludeFile);
  (void)service.start_threads(config.MaxThreads);
  (void)fservice::get()->start();
  Logger::enable();

  (void)alarm(first_pass_delay);
  return 0;
}

int uninitialize() {
  Logger::print(2, "uninitialize\n");
  fsfilter& service = *fsfilter::get();
  service.uninit_mountpts();
  (void)service.unreg_filter();
  const bool service_ended = fservice::get()->stop();
  const bool logger_ended = Logger::stop();
  (void)remove_pidfile(daemon_name);
  if (service.threads_left() || !service_ended || !logger_ended) {
    (void)std::fflush(stdout);
    _exit(0);
  }
  return 0;
}
