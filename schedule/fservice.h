// The service thread: slow work, away from the signal handlers and the on-access workers.
//
// It applies definition updates, runs the scheduled-scan pass and follows the mount table, one
// after the other, in this order. Requests that come while a cycle runs are dropped when it ends:
// that is what makes one cycle out of a burst of signals.
#pragma once

#include <atomic>
#include <chrono>
#include <ctime>
#include <string>

#include "detached_thread.h"

/// The service of the process. The thread runs from construction to stop().
class fservice {
 public:
  /// Built, with its thread, on the first call, which start-up makes as its last step.
  static fservice* get();

  fservice(const fservice&) = delete;
  fservice& operator=(const fservice&) = delete;

  /// @return 0; the thread already runs
  static int start() { return 0; }

  /// Asks the thread to end at its next wait, or between two files of a folder scan.
  void ask_to_stop();

  /// The same, and waits until it has ended.
  /// @return false when it is still busy after `bound`; it must then not meet the end of the
  ///         process's static objects
  bool stop(std::chrono::milliseconds bound = std::chrono::seconds(5));

  /// Ask for a definition update, or for a pass of the scheduled scans. Safe in a signal handler,
  /// on any thread, and before the service exists: its first cycle then serves the request.
  static void reload_avdb();
  static void start_scanner();

 private:
  fservice();
  ~fservice();

  [[noreturn]] void service_thread();
  bool wait_for_work();
  static void update_definitions();
  static void check_mounts();

  DetachedThread thread_;
  std::chrono::steady_clock::time_point last_mount_check_{};
};

/// Watches the modification time of one file, in whole seconds.
class Poller {
 public:
  explicit Poller(std::string path);

  /// Whether the time differs from the one last seen, in whichever direction. A file that cannot
  /// be asked is logged and has not changed.
  bool CheckForUpdate();

 private:
  std::time_t last_modified_ = 0;
  std::string path_;
};

/// One scheduled-scan pass: reloads the commands file if it changed and runs what is due. For the
/// service thread.
void scanner_func();
