// pelowatchctl check: what the daemon would make of its configuration and commands files.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>

#include "confparser.h"
#include "exit_status.h"
#include "watched_mounts.h"

struct CheckOptions {
  std::string config_file = "/opt/pelo/etc/pelowatchd.conf";
  std::optional<std::string> commands_file;     ///< by default where the configuration says
  std::optional<ConfParser::time_T> loaded_at;  ///< by default now, in local time
  bool json = false;
  MountFiles mounts = {};
};

/// "HH:MM" from 00:00 to 23:59; nothing for any other text.
std::optional<ConfParser::time_T> time_of_day(const std::string& text);

/// Reads both files, writes what was found, the settings and the jobs to `out`, and to `errors` one
/// line when a file cannot be read. Changes nothing.
/// @return 0 when nothing was found, 1 when something was, 2 when a file cannot be read. There may
///         be no commands file, unless the options name one.
ExitStatus run_check(const CheckOptions& options, std::ostream& out, std::ostream& errors);
