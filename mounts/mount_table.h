// Which mount points are watched. The table follows the system's mounts and unmounts.
//
// Owns the table of watched mount points. Never touches a held open or a file of a watched mount:
// its user does the watching and unwatching, and must not wait for a file system's server there.
#pragma once

#include <list>
#include <map>
#include <optional>
#include <string>

#include "descriptor.h"
#include "mountpt.h"
#include "mutex.h"

/// What the table calls to have mounts watched. Called with the table's lock held: none of these
/// may wait for a server or call the table.
class MountWatcher {
 public:
  virtual ~MountWatcher() = default;

  /// Begins to watch; marks a mount that is watched again, since its mark may be gone.
  /// @return 0, or negative with errno
  virtual int watch(const mntpoint& mount, bool served) = 0;
  /// Stops watching a mount.
  /// @param served as it was passed to watch()
  /// @param served_now whether looking up its path may by now wait for a server
  virtual void unwatch(const mntpoint& mount, bool served, bool served_now) = 0;
};

/// The watched mount points by directory. Any thread may call any function.
class MountTable {
 public:
  explicit MountTable(MountWatcher& watcher) : watcher_(watcher) {}

  /// Watches every mount point of the system's table. @return 0, -1 when it cannot be read
  int init();

  /// Forgets all mount points without unwatching them. @return their directories
  std::list<std::string> forget_all();

  /// Watches one mount point unless the settings exclude it. @return 0, or the watcher's result
  int addmnt(const mntinfo& entry);

  /// Whether a mount point with exactly this directory is watched.
  bool has(const std::string& directory) const;
  bool empty() const;

  /// Follows the mounts and unmounts since the last call. @param fd an open mount table. @return 0
  int check_mountpts(int fd);

  /// Notes that a mount point could not be watched after all; it is tried again a minute later.
  void failed(const mntpoint& mount, int error);

  /// The mount points that could not be watched, with the reasons, one line each. A failure is
  /// returned only once while it lasts, that of a served mount while it is mounted.
  std::list<std::string> take_failures();

 private:
  /// A mount point that is watched, or why it is not.
  struct Mount {
    mntpoint point;
    bool served;               ///< whether it is watched as a served one
    std::optional<int> error;  ///< why it is not watched; none if it is
    Clock::time_point retry;   ///< if it is not: not tried again before
    std::optional<int> told;   ///< the error that was returned last as a failure

    bool watched() const { return !error; }
  };

  int addmnt(const mntinfo& entry, const std::list<mntinfo>& table) PELO_REQUIRES(mutex_);
  int watch(const mntinfo& entry, bool served) PELO_REQUIRES(mutex_);
  void note(const mntinfo& entry, bool served, std::optional<int> error, Clock::duration pause)
      PELO_REQUIRES(mutex_);
  void detect_new(const std::list<mntinfo>& table) PELO_REQUIRES(mutex_);
  bool forget_removed(const std::list<mntinfo>& table) PELO_REQUIRES(mutex_);
  bool watch_again(const std::list<mntinfo>& table) PELO_REQUIRES(mutex_);
  bool table_has_changed() PELO_REQUIRES(mutex_);

  MountWatcher& watcher_;
  mutable Mutex mutex_;
  std::map<std::string, Mount> mounts_ PELO_GUARDED_BY(mutex_);  ///< by directory
  Descriptor polled_table_ PELO_GUARDED_BY(mutex_);  ///< the kernel's table, polled for changes
  bool must_renew_ PELO_GUARDED_BY(mutex_) = false;  ///< the table has changed
};
