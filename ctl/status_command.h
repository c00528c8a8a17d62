// The commands that show the status.
#pragma once

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>

#include "exit_status.h"

struct StatusOptions {
  bool json = false;
  bool watch = false;
  std::chrono::milliseconds interval = std::chrono::seconds(2);  ///< between two looks
};

/// Shows the status once, or again and again until SIGINT ends the program. On a terminal each look
/// takes the place of the one before it.
ExitStatus show_status(const StatusOptions& options, std::ostream& out);

/// Show one list of a running daemon, one entry a line or as an array.
ExitStatus show_jobs(bool json, std::ostream& out, std::ostream& errors);
ExitStatus show_mounts(bool json, std::ostream& out, std::ostream& errors);

/// Shows the metrics, or puts them into a file.
ExitStatus show_metrics(const std::optional<std::string>& file, std::ostream& out,
                        std::ostream& errors);
