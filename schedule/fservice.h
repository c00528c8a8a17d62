// The service thread: slow work, away from the signal handlers and the on-access workers.
//
// It applies definition updates, runs the scheduled-scan pass and follows the mount table, one
// after the other, in this order. Requests that come while a cycle runs are dropped when it ends,
// so a burst of signals causes one cycle.
#pragma once

#include <chrono>
#include <ctime>
#include <string>

#include "detached_thread.h"

/// The service of the process. The thread runs from construction to stop().
class fservice {
 public:
  /// Built, with its thread, on the first call, which start-up makes as its last step.
  static fservice* get();

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
  ~fservice() { ask_to_stop(); }  // without a wait, which may be this very thread's for itself

  DetachedThread thread_;
};

/// The thread's body: serves requests and follows the mounts until the thread is asked to stop.
void service_thread(void* fservice);

/// Watches the modification time of one file, in whole seconds.
class Poller {
 public:
  explicit Poller(const std::string& path) : path_(path) {}

  /// Whether the time differs from the one last seen, in either direction. If stat() fails, this is
  /// logged and the file counts as unchanged.
  bool CheckForUpdate();

  /// The file counts as never seen: for who could not read what had changed.
  void forget() { last_modified_ = 0; }

 private:
  std::time_t last_modified_ = 0;
  std::string path_;
};

/// One scheduled-scan pass: reloads the commands file if it changed and runs what is due. For the
/// service thread.
void scanner_func();
