// The daemon's configuration file: what it makes of it, and what of that may surprise.
#pragma once

#include <string>
#include <vector>

#include "daemon_config.h"
#include "file_lines.h"
#include "findings.h"
#include "path_check.h"

/// Where the value of a key is from.
struct SettingOrigin {
  const GlobalConfig::Key* key;
  /// The lines that count: one, or for a list all of its key. None for a default.
  std::vector<FileLine> lines;
};

struct ConfigCheck {
  GlobalConfig settings;               ///< as the daemon has them after reading the file
  std::vector<SettingOrigin> origins;  ///< of every key, in the order of GlobalConfig::keys()
  HeldPaths exclusions;
  Findings findings;  ///< by line
};

/// Checks a configuration file. The paths it names are looked up; nothing is changed.
/// @param content of the file; the daemon's own reader reads the file once more
ConfigCheck check_config(const std::string& file, const std::string& content,
                         const MountFiles& mounts = {});
