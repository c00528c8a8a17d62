// Reading the system's mount table, and one mount point of it.
#pragma once

#include <cstddef>
#include <list>
#include <string>

#include "fsfilter.h"

/// One entry of the mount table.
struct mntinfo {
  std::string name;          ///< the directory, as the table writes it: blanks stay octal escapes
  std::string type;          ///< the file system type
  std::string options = {};  ///< only of an overlay, to find its layers; otherwise empty

  /// By directory and type.
  bool operator==(const mntinfo& other) const { return name == other.name && type == other.type; }
  bool operator==(const std::string& directory) const { return name == directory; }
};

/// One mount point that can be registered with a filter. Registering twice is harmless.
class mntpoint {
 public:
  explicit mntpoint(mntinfo info);

  const std::string& name() const { return info_.name; }
  const std::string& type() const { return info_.type; }
  const mntinfo& get() const { return info_; }

  /// Watches the mount point. A failure is reported on standard error.
  /// @return 0, or the filter's negative result with its errno
  int reg(fsfilter_handle_t filter) const;

  /// Stops watching the mount that the directory lies on now. If this mount is gone, that is the
  /// mount around it.
  int unreg(fsfilter_handle_t filter) const;

 private:
  mntinfo info_;
};

/// Whether an entry is left out: names that begin with /sys, /proc or /dev, and desktop mounts.
int excluded_point(const mntinfo& entry);

/// The most that is read of a mount table, in bytes.
inline constexpr std::size_t mount_table_limit = 8192;

/// Appends the entries of an open mount table, read from its current position up to the limit, in
/// as many reads as it takes. @return 0
int read_mountinfo(int fd, std::list<mntinfo>& entries);

/// The same for "/etc/mtab". @return 0, or -1 when it cannot be opened, with a message on standard
/// error
int read_mountinfo(std::list<mntinfo>& entries);
