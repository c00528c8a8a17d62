#include "mount_table.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "daemon_config.h"
#include "logger.h"
#include "network_file_system.h"
#include "served_mount.h"

namespace {

constexpr std::chrono::minutes retry_pause{1};

constexpr char check_name[] = "check_mountpts";  // in whose name its parts log

}  // namespace

int MountTable::init() {
  ScopedLock lock(mutex_);
  // Opened first: a change that comes after the table was read must be seen by the next check.
  polled_table_.reset(open("/proc/self/mounts", O_RDONLY | O_CLOEXEC));
  std::list<mntinfo> table;
  if (read_mountinfo(table) != 0) {
    return -1;
  }
  for (const mntinfo& entry : table) {
    (void)addmnt(entry, table);
  }
  return 0;
}

std::list<std::string> MountTable::forget_all() {
  ScopedLock lock(mutex_);
  std::list<std::string> directories;
  for (const auto& [directory, mount] : mounts_) {
    directories.push_back(directory);
  }
  mounts_.clear();
  return directories;
}

int MountTable::addmnt(const mntinfo& entry) {
  ScopedLock lock(mutex_);
  return addmnt(entry, {entry});
}

// Of several mounts on a served directory only the last is watched: its path leads to none of the
// others.
int MountTable::addmnt(const mntinfo& entry, const std::list<mntinfo>& table) {
  const bool served = is_served(entry.name, table);
  const auto top = std::find_if(table.rbegin(), table.rend(), [&entry](const mntinfo& other) {
    return other.name == entry.name;
  });
  if (served && !(*top == entry)) {
    return 0;
  }
  if (GlobalConfig::getGlobalConfig()->isExcluded(entry.name)) {
    Logger::log(2, __func__, "addmnt(): mount point '" + entry.name + "' excluded by config");
    return 0;
  }
  const int result = watch(entry, served);
  if (result == 0) {
    Logger::log(2, __func__,
                "addmnt(): adding mount point: '" + entry.name + "' type: '" + entry.type + "'");
  }
  return result;
}

int MountTable::watch(const mntinfo& entry, bool served) {
  const int result = watcher_.watch(mntpoint(entry), served);
  note(entry, served, result == 0 ? std::nullopt : std::optional(errno), Clock::duration::zero());
  return result;
}

bool MountTable::has(const std::string& directory) const {
  ScopedLock lock(mutex_);
  const auto found = mounts_.find(directory);
  return found != mounts_.end() && found->second.watched();
}

bool MountTable::empty() const {
  ScopedLock lock(mutex_);
  return std::none_of(mounts_.begin(), mounts_.end(),
                      [](const auto& each) { return each.second.watched(); });
}

int MountTable::check_mountpts(int fd) {
  (void)lseek(fd, 0, SEEK_SET);
  ScopedLock lock(mutex_);
  must_renew_ = table_has_changed() || must_renew_;
  std::list<mntinfo> table;
  if (read_mountinfo(fd, table) != 0) {
    Logger::log(1, __func__, "read_mountinfo fails");
    return -1;
  }
  // A running system has mounts, so an empty table could not be read.
  if (table.empty()) {
    return 0;
  }
  detect_new(table);
  const bool any_served = std::any_of(mounts_.begin(), mounts_.end(), [](const auto& each) {
    return each.second.watched() && each.second.served;
  });
  if (forget_removed(table) || must_renew_) {
    must_renew_ = false;
    if (watch_again(table) || any_served) {
      detect_new(table);  // what a served mount has covered or uncovered
    }
  }
  return 0;
}

// A served mount may have been mounted over another one or have been unmounted there. Then the same
// path leads to a mount of the other kind, which must be watched in the other way: as a new one.
// @return whether there are such
bool MountTable::watch_again(const std::list<mntinfo>& table) {
  const auto other_kinds = std::erase_if(mounts_, [&](const auto& each) {
    const Mount& mount = each.second;
    const bool other_kind = mount.watched() && mount.served != is_served(mount.point.name(), table);
    if (other_kind) {
      watcher_.unwatch(mount.point, mount.served, !mount.served);
    }
    return other_kind;
  });
  for (const auto& [directory, mount] : mounts_) {
    if (mount.watched()) {
      (void)watch(mount.point.get(), mount.served);
    }
  }
  return other_kinds > 0;
}

// A mount that was replaced by another in the same place leaves no trace in the table, but poll()
// tells whether the table has changed since the last call.
bool MountTable::table_has_changed() {
  pollfd table{polled_table_.get(), POLLPRI, 0};
  return poll(&table, 1, 0) != 0;
}

void MountTable::detect_new(const std::list<mntinfo>& table) {
  for (const mntinfo& entry : table) {
    const auto known = mounts_.find(entry.name);
    if (known == mounts_.end() ||
        (!known->second.watched() && known->second.retry <= Clock::now())) {
      Logger::log(2, check_name, "detect new mount point " + entry.name);
      (void)addmnt(entry, table);
    }
  }
}

// The kernel removes a mark with its mount. Removing the mark of a mount that is gone therefore
// removes that of the mount around it, so what is still watched must be marked again afterwards.
// @return whether any mount was removed
bool MountTable::forget_removed(const std::list<mntinfo>& table) {
  bool any = false;
  std::erase_if(mounts_, [&](const auto& each) {
    const Mount& mount = each.second;
    const bool removed = std::find(table.begin(), table.end(), mount.point.get()) == table.end();
    if (removed && mount.watched()) {
      Logger::log(2, check_name, "mount point has been removed " + each.first);
      watcher_.unwatch(mount.point, mount.served, is_served(each.first, table));
      any = true;
    }
    return removed;
  });
  return any;
}

void MountTable::failed(const mntpoint& mount, int error) {
  ScopedLock lock(mutex_);
  if (const auto found = mounts_.find(mount.name()); found != mounts_.end() &&
                                                     found->second.watched() &&
                                                     found->second.point.get() == mount.get()) {
    note(mount.get(), found->second.served, error, retry_pause);
  }
}

// Of a network's file system it is known that the filter refuses it. That a served mount could be
// watched is not known yet when its watching begins.
void MountTable::note(const mntinfo& entry, bool served, std::optional<int> error,
                      Clock::duration pause) {
  const auto before = mounts_.find(entry.name);
  std::optional<int> told;
  if (network_file_system(entry.type.c_str())) {
    told = error;
  } else if (before != mounts_.end() && before->second.point.get() == entry && (error || served)) {
    told = before->second.told;
  }
  mounts_.insert_or_assign(entry.name,
                           Mount{mntpoint(entry), served, error, Clock::now() + pause, told});
}

std::list<std::string> MountTable::take_failures() {
  std::list<std::string> texts;
  ScopedLock lock(mutex_);
  for (auto& [directory, mount] : mounts_) {
    if (mount.error && mount.told != mount.error) {
      mount.told = mount.error;
      texts.push_back("mount point '" + directory + "' type: '" + mount.point.type() +
                      "' is not watched: " + std::strerror(*mount.error));
    }
  }
  return texts;
}
