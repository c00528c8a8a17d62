// Which pelowatchd runs, and where its files are.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <variant>

#include "daemon_config.h"
#include "processes.h"

inline const std::string pid_file = std::string(pidfile_directory) + pidfile_name + ".pid";

/// Why there is no daemon to talk to.
struct NoDaemon {
  bool running = false;  ///< there is a process, but none to send a signal to
  std::string reason;    ///< one line, fit for a terminal
};

/// The process that the pid file names. Refused when there is no such file, when it names nobody
/// that runs, and when it names a process that is no pelowatchd. The status area is no way to it,
/// since anybody can write there; it only tells that a daemon runs which the file does not name.
std::variant<ProcessHandle, NoDaemon> find_daemon();

/// The pid in the pid file; 0 when there is none, as in what is no regular file.
pid_t pid_in_file();

struct LogFile {
  std::string path;
  std::uint64_t bytes = 0;
};

/// Why nothing is known of a log file.
struct NoLog {
  bool hidden = false;  ///< only the right to see it is missing
  std::string reason;   ///< one line, fit for a terminal
};

/// The log file that the process has open, under the name that it has now.
std::variant<LogFile, NoLog> log_file_of(pid_t pid);

/// How many texts the process could not log, as its logger's thread tells by its name: 0 unless one
/// of its threads has such a name.
std::uint64_t dropped_texts_of(pid_t pid);

/// The time of day at which the daemon last read its commands file, as far as can be told from
/// outside: it does so ten seconds after its start, and then within a minute of every change. Found
/// through the daemon's command line and configuration, as far as these are regular files; without
/// them, by its start alone. A change of the file's rights alone counts as a change too.
ConfParser::time_T commands_loaded(pid_t pid, std::time_t started);
