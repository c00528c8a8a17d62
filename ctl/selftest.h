// Shows that the daemon at work refuses what it must refuse.
#pragma once

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>

#include "exit_status.h"

struct SelfTestOptions {
  std::optional<std::string> folder;  ///< one that is watched; found in the status area otherwise
  std::chrono::milliseconds bound = std::chrono::seconds(60);  ///< for the answer to the open
};

/// Puts the standard anti-virus test file into a watched folder, opens it in a process of its own,
/// looks whether it was refused, logged and counted, and removes it, also when it is interrupted by
/// SIGINT, SIGTERM or SIGHUP. For a program with one thread.
ExitStatus self_test(const SelfTestOptions& options, std::ostream& out, std::ostream& errors);
