// pelowatchd: holds every open of a file on the watched mounts until a scan has allowed it.
//
// The order in which the daemon comes up and goes down.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "avsdk_scanner.h"
#include "clock.h"
#include "command_line.h"
#include "daemon_config.h"
#include "daemonize.h"
#include "filter_service.h"
#include "fservice.h"
#include "logger.h"
#include "process_setup.h"
#include "signals.h"

namespace {

[[noreturn]] void fail_registration(int error) {
  Logger::log(1, "initialize", std::string("the filter cannot be made: ") + std::strerror(error));
  Logger::append_error(
      0, 0, "Unable to register filter. Check that daemon is run under root permissions.");
  Logger::drain(std::chrono::seconds(5));
  if (!Logger::stop()) {
    _exit(255);
  }
  std::exit(-1);
}

[[noreturn]] void end_process() {
  (void)remove_pidfile(pidfile_name);
  _exit(0);
}

std::chrono::milliseconds time_until(Clock::time_point deadline) {
  const auto left = deadline - Clock::now();
  return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(left),
                  std::chrono::milliseconds(50));
}

/// Brings everything up: logger, filter, pid file, engine with its definitions, path lists,
/// workers, marks, service thread, first alarm. Exits the process with status -1 when the filter
/// cannot be registered; any other failure is logged and start-up goes on. From the first mark on,
/// the main thread opens no file. Loading the definitions may take half a minute; a stop during
/// that time ends the process within three seconds, with status 0.
///
/// From the first mark on opens are held until the loop runs, so what may take long comes before:
/// definitions, if the engine can prepare them, paths and workers.
void initialize() {
  const GlobalConfig& config = *GlobalConfig::getGlobalConfig();
  fsfilter& service = *fsfilter::get();

  (void)Logger::start();
  Logger::enable();
  if (const int error = service.reg_filter(); error != 0) {
    fail_registration(error > 0 ? error : errno);
  }
  const bool lookout = service.start_lookout(take_signals, end_process) == 0;
  (void)set_pidfile_dir(pidfile_directory);
  if (create_pidfile(pidfile_name) == nullptr) {
    Logger::print(1, "Unable to create pid file: %s\n", std::strerror(errno));
  }
  AVSDK_scanner::getAVSDK_scanner()->prepare_definitions();
  service.getefp()->set_most_held(raise_descriptor_limit(config.MaxThreads));
  service.getefp()->set_hold_limit(std::chrono::seconds(config.HoldLimit));

  // Otherwise every start would log a line for each mount point and path.
  Logger::drain(std::chrono::seconds(1));
  Logger::disable();
  (void)service.include(config.IncludeList);
  (void)service.exclude(config.ExcludeDirectory);
  (void)service.exclude(config.ExcludeFile);
  if (service.start_threads(config.MaxThreads) != 0) {
    service.note_problem("not every worker could be started. ");
  }
  (void)(config.mount_tracking ? service.init_mountpts() : service.addmnt({"/", "root"}));
  if (service.watches_nothing()) {
    service.note_problem("no mount point is watched. ");
  }
  (void)fservice::get()->start();
  Logger::enable();

  if (!lookout) {
    take_signals();  // last, so that no other thread inherits it
  }
  (void)alarm(first_pass_delay);
}

/// Takes everything down after the event loop has returned; held opens are let go early, by closing
/// the filter. If a thread is still busy, for example in the engine, ends the process at once with
/// status 0, so that no static object is destroyed while that thread uses it.
void uninitialize() {
  Logger::print(2, "uninitialize\n");
  fservice::get()->ask_to_stop();  // first: it may need time to finish the file that it scans
  fsfilter& service = *fsfilter::get();
  (void)service.uninit_mountpts();
  (void)service.unreg_filter();
  const auto deadline = service.stop_deadline();
  const bool service_ended = fservice::get()->stop(time_until(deadline));
  const bool logger_ended = Logger::stop(time_until(deadline));
  if (service.threads_left() || !service_ended || !logger_ended) {
    end_process();
  }
  (void)remove_pidfile(pidfile_name);
}

}  // namespace

int main(int argc, char** argv) {
  prepare_process();
  parse_arguments(argc, argv);
  Logger::open();  // before the standard streams are gone
  hold_signals();
  (void)daemonize(notdetach);
  setsignals();
  end_at_foreign_exit();
  initialize();
  end_at_foreign_exit();  // again, to run before objects built since are destroyed
  fsfilter::get()->loop();
  uninitialize();
  return 0;
}
