// The system's mount table, and the mount points that the filter watches.
#pragma once

#include <cstddef>
#include <list>
#include <string>

#include "fsfilter.h"

/// One entry of the mount table.
struct mntinfo {
  std::string name;  ///< the directory, as the table writes it: blanks stay octal escapes
  std::string type;  ///< the file system type

  bool operator==(const mntinfo& other) const = default;
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
  /// @return 0, or the filter's negative result
  int reg(fsfilter_handle_t filter) const;

  /// Stops watching whatever mount the directory lies on now; when this one has gone, that is the
  /// mount around it.
  int unreg(fsfilter_handle_t filter) const;

 private:
  mntinfo info_;
};

/// Whether an entry is left out: below /sys, /proc and /dev by plain prefix, and desktop mounts.
int excluded_point(const mntinfo& entry);

/// How much of a mount table is read, in bytes.
inline constexpr std::size_t mount_table_limit = 8192;

/// Appends the entries of an open mount table, read from its current position up to the limit, in
/// as many reads as it takes. @return 0
int read_mountinfo(int fd, std::list<mntinfo>& entries);

/// The same for "/etc/mtab". @return 0, or -1 when it cannot be opened, with a message on standard
/// error
int read_mountinfo(std::list<mntinfo>& entries);
