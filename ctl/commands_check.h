// The commands file of scheduled scans: what the daemon makes of it, and what of that may surprise.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "commandparser.h"
#include "findings.h"
#include "path_check.h"

/// A time of day at which the daemon reads the file: jobs that start earlier wait for another.
struct LoadTime {
  ConfParser::time_T time;
  bool now = false;  ///< the present one, and not one that somebody asked about
};

/// The configuration's part in what becomes of a job.
struct JobSettings {
  const HeldPaths& exclusions;
  int max_recursion;
  std::string file;  ///< that they are from
};

struct CheckedJob {
  Command command;
  std::size_t line = 0;  ///< of the "scan" before it, or of its first setting if that stands before
};

struct CommandsCheck {
  std::vector<CheckedJob> jobs;  ///< as they stand in the file; of several equal ones the first
  Findings findings;             ///< by line
};

/// Checks a commands file. The folders it names are looked up; nothing is changed.
/// @param content of the file, which the daemon's own reader reads once more
CommandsCheck check_commands(const std::string& file, const std::string& content,
                             const LoadTime& loaded, const JobSettings& settings);

/// "/data and what is below it, on Monday from 02:30 on, every week; REPORT"
std::string in_words(const Command& command);
