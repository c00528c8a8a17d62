// SPDX-License-Identifier: GPL-2.0-only
#include "work_folder.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <filesystem>
#include <system_error>
#include <utility>

#include "descriptor.h"
#include "mutex.h"

namespace clamav_engine {
namespace {

namespace fs = std::filesystem;

struct WorkFolder {
  Mutex mutex;
  std::string path;
  Descriptor lock PELO_GUARDED_BY(mutex);  // shared by all that use the folder
  unsigned int made PELO_GUARDED_BY(mutex) = 1;
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
  constexpr std::uint64_t kRoom = 1U << 30U;
  struct statfs system {};
  return make_own(directory) && statfs(directory, &system) == 0 && system.f_type == TMPFS_MAGIC &&
         system.f_bavail * static_cast<std::uint64_t>(system.f_bsize) >= kRoom;
}

/// @return the folder, locked; none when it cannot be made.
Descriptor make(const std::string& path) {
  Descriptor made(make_own(path) ? open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
  if (fchmod(made.get(), 0700) != 0) {
    return Descriptor();
  }
  if (flock(made.get(), LOCK_EX | LOCK_NB) == 0) {
    // Nobody else uses it: what is in it was left by a process that crashed.
    std::error_code ignored;
    for (const fs::directory_entry& left : fs::directory_iterator(path, ignored)) {
      (void)fs::remove_all(left, ignored);
    }
  }
  return flock(made.get(), LOCK_SH) == 0 ? std::move(made) : Descriptor();
}

}  // namespace

bool open_work_folder() {
  ScopedLock lock(kept.mutex);
  kept.lock.reset();
  kept.path = is_roomy_memory("/run/pelo") ? "/run/pelo/engine" : "/var/cache/pelo/engine";
  kept.lock = make(kept.path);
  return static_cast<bool>(kept.lock);
}

unsigned int keep_work_folder() {
  ScopedLock lock(kept.mutex);
  std::error_code gone;
  const std::string open_one = "/proc/self/fd/" + std::to_string(kept.lock.get());
  if (!fs::equivalent(kept.path, open_one, gone)) {
    kept.lock = make(kept.path);
    ++kept.made;
  }
  return kept.lock ? kept.made : 0;
}

const std::string& work_folder() {
  return kept.path;
}

}  // namespace clamav_engine
