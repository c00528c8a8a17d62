// SPDX-License-Identifier: GPL-2.0-only
#include "work_folder.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <filesystem>
#include <system_error>

#include "descriptor.h"
#include "mutex.h"

namespace clamav_engine {
namespace {

namespace fs = std::filesystem;

struct WorkFolder {
  Mutex mutex;
  std::string path;
  Descriptor lock PELO_GUARDED_BY(mutex);  // of a file beside it that nobody else can open
  struct stat identity PELO_GUARDED_BY(mutex) {};
  unsigned int made PELO_GUARDED_BY(mutex) = 0;
};

/// Never destroyed: the daemon's last calls come while static objects are being destroyed.
WorkFolder& kept = *new WorkFolder;

/// Makes a directory and those around it if they are missing.
/// @return whether all of them are root's and writable by nobody else. The root itself is not
///         asked about: an emulator has one of its own.
bool make_own(const fs::path& directory) {
  if (directory == directory.root_path()) {
    return true;
  }
  if (!make_own(directory.parent_path())) {
    return false;
  }
  (void)mkdir(directory.c_str(), 0755);
  struct stat status {};
  return lstat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == 0 &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool is_roomy_memory(const char* directory) {
  constexpr std::uint64_t room = 1U << 30U;
  struct statfs system {};
  return make_own(directory) && statfs(directory, &system) == 0 && system.f_type == TMPFS_MAGIC &&
         system.f_bavail * static_cast<std::uint64_t>(system.f_bsize) >= room;
}

void remove_content(const fs::path& directory) {
  std::error_code ignored;
  for (fs::directory_iterator left(directory, ignored), end; left != end; left.increment(ignored)) {
    (void)fs::remove_all(*left, ignored);
  }
}

bool make_folder() PELO_REQUIRES(kept.mutex) {
  ++kept.made;
  return make_own(kept.path) && chmod(kept.path.c_str(), 0700) == 0 &&
         stat(kept.path.c_str(), &kept.identity) == 0;
}

bool is_in_place() PELO_REQUIRES(kept.mutex) {
  struct stat status {};
  return lstat(kept.path.c_str(), &status) == 0 && status.st_dev == kept.identity.st_dev &&
         status.st_ino == kept.identity.st_ino;
}

}  // namespace

bool open_work_folder() {
  ScopedLock lock(kept.mutex);
  const std::string around = is_roomy_memory("/run/pelo") ? "/run/pelo" : "/var/cache/pelo";
  kept.path = around + "/engine";
  if (!make_folder()) {
    return false;
  }
  const std::string lock_file = kept.path + ".lock";
  kept.lock.reset(open(lock_file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (flock(kept.lock.get(), LOCK_EX | LOCK_NB) == 0) {
    // Nobody else uses the folder: what is in it was left by a process that crashed.
    remove_content(kept.path);
  }
  return flock(kept.lock.get(), LOCK_SH) == 0;
}

// The lock stays as it is: threads with a descriptor table of their own come here, too.
unsigned int keep_work_folder() {
  ScopedLock lock(kept.mutex);
  return is_in_place() || make_folder() ? kept.made : 0;
}

const std::string& work_folder() {
  return kept.path;
}

}  // namespace clamav_engine
