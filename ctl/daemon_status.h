// What can be known of the daemon from outside: the status area, its process, its log file.
//
// Every process can write the area, so all of it is treated as hostile: its content is shown, and
// nothing else is decided by it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "clock.h"
#include "exit_status.h"
#include "next_due.h"
#include "processes.h"
#include "running_daemon.h"

struct TrustedProcess {
  pid_t pid = 0;
  std::string name;  ///< empty when it has ended
};

struct ListedJob {
  std::string text;                ///< as the area has it
  std::optional<Command> command;  ///< nothing when the text is none
  NextDue next;                    ///< once it has been worked out
};

/// The counters at one moment.
struct Counters {
  std::uint64_t answered = 0;
  std::uint64_t denied = 0;
  Clock::time_point at;  ///< the clock's epoch while they are not known
};

struct DaemonStatus {
  std::time_t now = 0;
  pid_t pid = 0;  ///< of the daemon that runs, 0 for none
  std::optional<ProcessFacts> process;
  std::optional<LogFile> log;
  NoLog no_log;                     ///< why there is none
  std::uint64_t dropped_texts = 0;  ///< that its logger's thread has dropped

  std::string no_area;    ///< why it is not known, if there should be one
  bool has_area = false;  ///< the status area is known; the following are what it says
  pid_t owner_pid = 0;
  Counters counters;
  std::vector<TrustedProcess> trusted;
  std::vector<std::string> mounts;
  std::vector<std::string> inclusions;
  std::vector<std::string> exclusions;
  std::vector<ListedJob> jobs;

  std::vector<std::string> problems;  ///< one line each, fit for a terminal

  bool running() const { return pid != 0; }
};

/// Looks at everything once, when the jobs are due apart. Opens nothing that the daemon holds for
/// longer than any open.
DaemonStatus read_status();

/// What a command that shows what the area says ends with: exit_ok when there is an area of a
/// running daemon, else the reason is printed.
ExitStatus require_area(const DaemonStatus& status, std::ostream& errors);

/// Works out when the jobs are due next, for which the daemon's configuration is read. The times
/// are the daemon's local ones; without the right to see its time zone, the caller's.
void work_out_jobs(DaemonStatus& status);

/// Events a second.
struct Rates {
  double answered = 0;
  double denied = 0;
  double seconds = 0;  ///< over which they were measured
};

/// Between two moments; zero when the counters were not known or started anew.
Rates rates_between(const Counters& before, const Counters& after);

/// Since the daemon's start.
Rates rates_since_start(const DaemonStatus& status);
