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

}  // namespace

int MountTable::init() {
  ScopedLock lock(mutex_);
  // Opened first: a change that comes after the table was read must be seen by the next check.
  changes_.reset(open("/proc/self/mounts", O_RDONLY | O_CLOEXEC));
  std::list<mntinfo> table;
  if (read_mountinfo(table) != 0) {
    return -1;
  }
  for (const mntinfo& entry : table) {
    (void)add(entry, table);
  }
  return 0;
}

std::list<std::string> MountTable::forget_all() {
  ScopedLock lock(mutex_);
  std::list<std::string> directories;
  for (const auto& [directory, watched] : watched_) {
    directories.push_back(directory);
  }
  watched_.clear();
  return directories;
}

int MountTable::add(const mntinfo& entry) {
  ScopedLock lock(mutex_);
  return add(entry, {entry});
}

// Of several mounts on a served directory only the last is watched: its path leads to no other.
int MountTable::add(const mntinfo& entry, const std::list<mntinfo>& table) {
  const bool served = is_served(entry.name, table);
  const auto top = std::find_if(table.rbegin(), table.rend(), [&entry](const mntinfo& other) {
    return other.name == entry.name;
  });
  if (served && !(*top == entry)) {
    return 0;
  }
  if (GlobalConfig::getGlobalConfig()->isExcluded(entry.name)) {
    Logger::log(2, "addmnt", "addmnt(): mount point '" + entry.name + "' excluded by config");
    return 0;
  }
  const int result = watch(entry, served);
  if (result == 0) {
    Logger::log(2, "addmnt",
                "addmnt(): adding mount point: '" + entry.name + "' type: '" + entry.type + "'");
  }
  return result;
}

int MountTable::watch(const mntinfo& entry, bool served) {
  const mntpoint mount(entry);
  const int result = watcher_.watch(mount, served);
  if (result == 0) {
    watched_.insert_or_assign(entry.name, Watched{mount, served});
    failures_.erase(entry.name);
  } else if (!network_file_system(entry.type.c_str())) {
    note_failure(entry, errno, Clock::duration::zero());
  }
  return result;
}

bool MountTable::has(const std::string& directory) const {
  ScopedLock lock(mutex_);
  return watched_.contains(directory);
}

bool MountTable::empty() const {
  ScopedLock lock(mutex_);
  return watched_.empty();
}

int MountTable::check(int fd) {
  (void)lseek(fd, 0, SEEK_SET);
  ScopedLock lock(mutex_);
  changed_ = changed() || changed_;
  std::list<mntinfo> table;
  if (read_mountinfo(fd, table) != 0) {
    Logger::log(1, "check_mountpts", "read_mountinfo fails");
    return -1;
  }
  // A running system has mounts, so an empty table could not be read.
  if (table.empty()) {
    return 0;
  }
  detect_new(table);
  const bool any_served = std::any_of(watched_.begin(), watched_.end(),
                                      [](const auto& each) { return each.second.served; });
  if (forget_removed(table) || changed_) {
    changed_ = false;
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
  const auto other_kinds = std::erase_if(watched_, [&](const auto& each) {
    const auto& [mount, served] = each.second;
    const bool other_kind = served != is_served(mount.name(), table);
    if (other_kind) {
      watcher_.unwatch(mount, served, !served);
    }
    return other_kind;
  });
  for (const auto& [directory, watched] : std::map(watched_)) {
    if (watch(watched.mount.get(), watched.served) != 0) {
      watched_.erase(directory);
    }
  }
  return other_kinds > 0;
}

// A mount that was replaced by another in the same place leaves no trace in the table, but poll()
// tells whether the table has changed since the last call.
bool MountTable::changed() {
  pollfd table{changes_.get(), POLLPRI, 0};
  return poll(&table, 1, 0) != 0;
}

void MountTable::detect_new(const std::list<mntinfo>& table) {
  for (const mntinfo& entry : table) {
    if (watched_.contains(entry.name)) {
      continue;
    }
    const auto failure = failures_.find(entry.name);
    if (failure == failures_.end() || failure->second.retry <= Clock::now()) {
      Logger::log(2, "check_mountpts", "detect new mount point " + entry.name);
      (void)add(entry, table);
    }
  }
}

// The kernel removes a mark with its mount. Removing the mark of a mount that is gone therefore
// removes that of the mount around it, so what is still watched must be marked again afterwards.
// @return whether any mount was removed
bool MountTable::forget_removed(const std::list<mntinfo>& table) {
  std::erase_if(failures_, [&table](const auto& failure) {
    return std::none_of(table.begin(), table.end(), [&failure](const mntinfo& entry) {
      return entry.name == failure.first && entry.type == failure.second.type;
    });
  });
  return std::erase_if(watched_, [&](const auto& each) {
           const auto& [mount, served] = each.second;
           if (std::find(table.begin(), table.end(), mount.get()) != table.end()) {
             return false;
           }
           Logger::log(2, "check_mountpts", "mount point has been removed " + mount.name());
           watcher_.unwatch(mount, served, is_served(mount.name(), table));
           return true;
         }) > 0;
}

void MountTable::failed(const mntpoint& mount, int error) {
  ScopedLock lock(mutex_);
  if (const auto found = watched_.find(mount.name());
      found != watched_.end() && found->second.mount.get() == mount.get()) {
    watched_.erase(found);
    note_failure(mount.get(), error, retry_pause);
  }
}

void MountTable::note_failure(const mntinfo& entry, int error, Clock::duration pause) {
  Failure& failure = failures_[entry.name];
  failure.told = failure.told && failure.error == error && failure.type == entry.type;
  failure.type = entry.type;
  failure.error = error;
  failure.retry = Clock::now() + pause;
}

std::list<std::string> MountTable::take_failures() {
  std::list<std::string> texts;
  ScopedLock lock(mutex_);
  for (auto& [directory, failure] : failures_) {
    if (!failure.told) {
      failure.told = true;
      texts.push_back("mount point '" + directory + "' type: '" + failure.type +
                      "' is not watched: " + std::strerror(failure.error));
    }
  }
  return texts;
}
