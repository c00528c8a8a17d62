// Which of the mounted file systems the daemon watches: those that its own reading of the mount
// table gives and its filter takes.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>

#include "daemon_config.h"
#include "mountpt.h"

/// Where the mounts are listed.
struct MountFiles {
  std::string table = "/etc/mtab";           ///< as the daemon reads them
  std::string ids = "/proc/self/mountinfo";  ///< with the numbers by which files name them
};

class WatchedMounts {
 public:
  /// Reads the lists as they are now.
  /// @param settings with the mount points that are excluded; must outlive the object
  WatchedMounts(const MountFiles& files, const GlobalConfig& settings);

  /// Why the daemon watches nothing on the mount that holds the path: a sentence about that mount.
  /// @return nothing when the mount is watched, and when nobody can tell
  std::optional<std::string> why_unwatched(const std::string& path) const;

  /// What keeps the daemon from knowing all mounts; empty when nothing does.
  const std::string& problem() const { return problem_; }

 private:
  void read_table(const std::string& file);
  void read_ids(const std::string& file);

  /// Why the mount is not watched; empty when it is.
  std::string reason(const mntinfo& mount) const;

  const GlobalConfig& settings_;
  std::list<mntinfo> table_;  ///< the entries that the daemon sees
  std::map<std::uint64_t, mntinfo> by_id_;
  std::string problem_;
};
