// The daemon's configuration file: what it makes of it, and what of that may surprise.
#pragma once

#include <string>

#include "daemon_config.h"
#include "findings.h"
#include "path_check.h"
#include "watched_mounts.h"

struct ConfigCheck {
  GlobalConfig settings;  ///< as the daemon has them after reading the file
  HeldPaths exclusions;
  Findings findings;  ///< by line
};

/// Checks a configuration file. The paths it names are looked up; nothing is changed.
/// @param content of the file, which the daemon's own reader reads once more
ConfigCheck check_config(const std::string& file, const std::string& content,
                         const MountFiles& mounts = {});
