// The filter service's mount table: which mount points are watched, and how that follows the
// system's mounts and unmounts.
#include <unistd.h>

#include <algorithm>

#include "daemon_config.h"
#include "filter_service.h"
#include "logger.h"

int fsfilter::init_mountpts() {
  std::list<mntinfo> table;
  if (read_mountinfo(table) != 0) {
    return -1;
  }
  for (const mntinfo& entry : table) {
    (void)addmnt(entry);  // has reported its failure; the next refresh tries again
  }
  return 0;
}

bool fsfilter::watches_nothing() {
  ScopedLock lock(mutex_);
  return mount_table_.empty();
}

// The marks go with the filter in any case. So if the service thread is stuck in a file system
// that does not answer, it is not waited for.
int fsfilter::uninit_mountpts() {
  Logger::append(3, "uninit_mountpts uninit_mountpts(): begin\n");
  if (mutex_.try_lock_for(time_limits::teardown_lock)) {
    const ScopedLock lock(mutex_, std::adopt_lock);
    for (const auto& [directory, mount] : mount_table_) {
      (void)mount.unreg(ctx_);
    }
    mount_table_.clear();
  }
  Logger::append(3, "uninit_mountpts uninit_mountpts(): done\n");
  return 0;
}

int fsfilter::addmnt(const mntinfo& entry) {
  if (GlobalConfig::getGlobalConfig()->isExcluded(entry.name)) {
    Logger::append(2, "addmnt addmnt(): mount point '" + entry.name + "' excluded by config\n");
    return 0;
  }
  not_looping_.begin_once();
  ScopedLock lock(mutex_);
  const mntpoint mount(entry);
  const int result = mount.reg(ctx_);
  if (result == 0) {
    Logger::append(2, "addmnt addmnt(): adding mount point: '" + entry.name + "' type: '" +
                          entry.type + "'\n");
    mount_table_.insert_or_assign(entry.name, mount);
  }
  return result;
}

bool fsfilter::hasmnt(const std::string& directory) {
  ScopedLock lock(mutex_);
  return mount_table_.contains(directory);
}

int fsfilter::check_mountpts(int fd) {
  Logger::append(3, "check_mountpts check_mountpts\n");
  (void)lseek(fd, 0, SEEK_SET);
  {
    ScopedLock lock(mutex_);
    std::list<mntinfo> table;
    if (read_mountinfo(fd, table) != 0) {
      Logger::append(1, "check_mountpts read_mountinfo fails\n");
      return -1;
    }
    // While readers are stuck by the dozen nothing is watched; it is marked again afterwards.
    if (standby_.overwhelmed()) {
      return 0;
    }
    // A system without any mount does not run a daemon: the table could not be read.
    if (ctx_ != nullptr && !table.empty()) {
      detect_new_mounts(table);
      forget_removed_mounts(table);
      mark_again();
      if (standby_.overwhelmed()) {
        suspend_watching();  // meanwhile
      } else if (unwatched_.exchange(false)) {
        cache_->clear();  // nobody has seen what was written
      }
    }
  }
  Logger::append(3, "check_mountpts check_mountpts done\n");
  return 0;
}

void fsfilter::detect_new_mounts(const std::list<mntinfo>& table) {
  for (const mntinfo& entry : table) {
    if (!mount_table_.contains(entry.name)) {
      Logger::append(2, "check_mountpts detect new mount point " + entry.name + "\n");
      (void)addmnt(entry);
    }
  }
}

void fsfilter::forget_removed_mounts(const std::list<mntinfo>& table) {
  std::erase_if(mount_table_, [&](const auto& registered) {
    const mntpoint& mount = registered.second;
    if (std::find(table.begin(), table.end(), mount.get()) != table.end()) {
      return false;
    }
    Logger::append(2, "check_mountpts mount point has been removed " + mount.name() + "\n");
    (void)mount.unreg(ctx_);
    return true;
  });
}

// Marks go with their mounts, and removing the mark of a mount that has gone hits the mount around
// it. So every mount point is marked once more: those around a removed one, and those whose mount
// was replaced by another in the same place since last time.
void fsfilter::mark_again() {
  for (const auto& [directory, mount] : mount_table_) {
    (void)mount.reg(ctx_);
  }
}
