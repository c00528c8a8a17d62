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

constexpr const char* kInMemory = "/run/pelo";
constexpr const char* kOnDisk = "/var/cache/pelo";

/// Never destroyed: the daemon's last calls come while static objects are being destroyed.
struct WorkFolder {
  Mutex mutex;
  std::string path;
  Descriptor lock PELO_GUARDED_BY(mutex);  // shared by all that use the folder
  unsigned int made PELO_GUARDED_BY(mutex) = 0;

  static WorkFolder& get() {
    static auto* const folder = new WorkFolder;
    return *folder;
  }
};

/// Makes the directories of an absolute path that are missing.
/// @return the last one; none unless all are root's and writable by nobody else.
Descriptor open_own(const fs::path& path) {
  Descriptor directory;
  for (const fs::path& component : path.relative_path()) {
    // The root itself is not opened: an emulator has one of its own.
    const std::string name = (directory ? "" : "/") + component.string();
    const int at = directory ? directory.get() : AT_FDCWD;
    (void)mkdirat(at, name.c_str(), 0755);
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    Descriptor next(openat(at, name.c_str(), kFlags));
    struct stat status {};
    if (fstat(next.get(), &status) != 0 || status.st_uid != 0 ||
        (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      return Descriptor();
    }
    directory = std::move(next);
  }
  return directory;
}

bool is_roomy_memory(const Descriptor& directory) {
  constexpr std::uint64_t kRoom = 1U << 30U;
  struct statfs system {};
  return fstatfs(directory.get(), &system) == 0 && system.f_type == TMPFS_MAGIC &&
         system.f_bavail * static_cast<std::uint64_t>(system.f_bsize) >= kRoom;
}

void empty(const std::string& path) {
  std::error_code ignored;
  for (fs::directory_iterator entry(path, ignored), end; entry != end; entry.increment(ignored)) {
    (void)fs::remove_all(entry->path(), ignored);
  }
}

/// @return the folder, locked; none when it cannot be made.
Descriptor make(const std::string& path) {
  Descriptor folder = open_own(path);
  if (!folder || fchmod(folder.get(), 0700) != 0) {
    return Descriptor();
  }
  if (flock(folder.get(), LOCK_EX | LOCK_NB) == 0) {
    empty(path);  // nobody else uses it: this was left by a process that crashed
  }
  return flock(folder.get(), LOCK_SH) == 0 ? std::move(folder) : Descriptor();
}

bool is_in_place(const std::string& path, const Descriptor& folder) {
  struct stat there {};
  struct stat own {};
  return fstat(folder.get(), &own) == 0 && lstat(path.c_str(), &there) == 0 &&
         there.st_dev == own.st_dev && there.st_ino == own.st_ino;
}

std::string choose() {
  const Descriptor in_memory = open_own(kInMemory);
  return std::string(in_memory && is_roomy_memory(in_memory) ? kInMemory : kOnDisk) + "/engine";
}

}  // namespace

unsigned int keep_work_folder() {
  WorkFolder& folder = WorkFolder::get();
  ScopedLock lock(folder.mutex);
  if (folder.path.empty()) {
    folder.path = choose();
  }
  if (!is_in_place(folder.path, folder.lock)) {
    folder.lock = make(folder.path);
    folder.made += folder.lock ? 1 : 0;
  }
  return folder.lock ? folder.made : 0;
}

const std::string& work_folder() {
  return WorkFolder::get().path;
}

void give_up_work_folder() {
  WorkFolder& folder = WorkFolder::get();
  ScopedLock lock(folder.mutex);
  folder.lock.reset();
  folder.path.clear();
}

}  // namespace clamav_engine
