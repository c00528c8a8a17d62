// What the tests of scheduled scans share: a daemon with a time of day of its own, commands files,
// and passes on request.
#pragma once

#include <csignal>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "fixture.h"

namespace e2e {

constexpr const char* day_words[] = {"SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT"};

/// One command of the commands file.
struct Job {
  int hour = 0;
  int minute = 0;
  int day = 0;  // 0: Sunday
  std::string folder;
  std::string repeat = "NO";
  std::string action = "REPORT";
  bool recursive = false;

  /// Its lines in the commands file.
  std::string block() const;

  /// Its line in the status area.
  std::string key() const;
};

/// A job runs only when its minute has come and was not over when the commands file was loaded. So
/// the daemon gets a time zone in which it starts a few seconds into a minute, and a test that
/// needs a due job late in a minute waits for the next one.
class ScheduleTest : public E2eTest {
 protected:
  /// One worker, whose engine handle is the first; the handles of folder scans follow.
  void prepare() override { set_threads(1); }

  /// Starts the daemon at 12:00 and `second` seconds of its local time, and waits until it answers
  /// and its worker has a handle.
  void start_at_noon(Launch how = {}, int second = 2);

  /// The local time of the daemon, now or at another time.
  std::tm local_time() const { return local_time(time(nullptr)); }
  std::tm local_time(time_t at) const;

  /// The daemon's time zone, as TZ has it.
  std::string time_zone() const;

  /// A job that is due in a minute with at least half of it left for the load: the current one, or
  /// the next, for which it then waits. All that are made before a commands file is written have
  /// the same minute; one that is needed for a later file is made anew.
  Job due_job(const std::string& folder, const std::string& repeat = "NO");

  /// Replaces the commands file, in one step. Each has another modification time.
  void write_commands(const std::string& text);
  void write_jobs(const std::vector<Job>& jobs);
  std::string commands_file() const { return work("conf/sdcommands.conf"); }

  /// SIGUSR2; waits until a pass that began after the call is done. A request that comes while the
  /// service thread is busy is dropped, so it is made again.
  void run_pass();

  /// SIGUSR2, again from time to time like run_pass(), until `holds` says yes: for what happens
  /// while a pass lasts.
  template <typename Predicate>
  bool request_pass_until(Predicate holds) {
    return eventually([&] {
      daemon().signal(SIGUSR2);
      return eventually(holds, request_again);
    });
  }

  /// Writes the jobs and runs a pass.
  void run_jobs(const std::vector<Job>& jobs);

  size_t scans_started() const { return count_of(log(), "Scan started: "); }
  size_t scans_completed() const { return count_of(log(), "Scan completed: "); }
  static std::vector<std::string> jobs() { return StatusArea::map()->jobs(); }

  /// The records of a folder scan, from the header's last newline on.
  static std::string start_record(const std::string& folder, int recursion = 5);
  static std::string stop_record(const std::string& folder, bool detections, int handle = 2);

  /// All that the engine was given to scan in folder scans and on access, in order.
  std::vector<std::string> scanned() const;

 private:
  static constexpr Duration request_again = std::chrono::seconds(3);

  time_t behind_utc_ = 0;       // seconds
  std::optional<std::tm> due_;  // of the jobs for the next commands file
  time_t modified_ = 1'000'000'000;
};

}  // namespace e2e
