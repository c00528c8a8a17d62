// SPDX-License-Identifier: GPL-2.0-only
#include "work_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <system_error>

#include "descriptor.h"

namespace clamav_engine {
namespace {

namespace fs = std::filesystem;

const char* folder_in_use = nullptr;
std::atomic<std::uint64_t> times_made = 0;

/// Holds the lock of a file beside the folder, which nobody else can open. Never destroyed: the
/// daemon's last calls come while static objects are being destroyed.
Descriptor& folder_lock = *new Descriptor;

/// Whether it is a directory of root's with which others can do no more than the mode says.
bool is_own(const fs::path& directory, mode_t mode, struct stat& status) {
  return lstat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == 0 &&
         (status.st_mode & ACCESSPERMS & ~mode) == 0;
}

/// Makes a directory and those around it if they are missing.
/// @return whether all of them are our own. The root itself is not asked about: an emulator has one
///         of its own.
bool make_own(const fs::path& directory) {
  constexpr mode_t mode = 0755;
  const fs::path around = directory.parent_path();
  if (around != directory.root_path() && !make_own(around)) {
    return false;
  }
  (void)mkdir(directory.c_str(), mode);
  struct stat status {};
  return is_own(directory, mode, status);
}

/// Chooses a folder, unless another process has it.
bool take(const char* folder) {
  const std::string lock_file = std::string(folder) + ".lock";
  if (!make_own(fs::path(folder).parent_path())) {
    return false;
  }
  folder_in_use = folder;
  folder_lock.reset(open(lock_file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  return flock(folder_lock.get(), LOCK_EX | LOCK_NB) == 0;
}

}  // namespace

bool open_work_folder() {
  constexpr std::uintmax_t room = 1U << 30U;
  const bool in_run = take("/run/pelo/engine") && fs::space("/run/pelo").available >= room;
  if (!in_run && !take("/var/cache/pelo/engine")) {
    return false;
  }
  std::error_code ignored;
  (void)fs::remove_all(folder_in_use, ignored);  // left by a process that crashed
  return keep_work_folder() != 0;
}

// Others may have made the folder again, which its inode number tells, but a file system may give
// ours the number of the one that has gone. The lock stays as it is: threads with a descriptor
// table of their own come here.
std::uint64_t keep_work_folder() {
  constexpr mode_t mode = 0700;
  constexpr unsigned int inode_bits = 48;
  struct stat status {};
  if (!is_own(folder_in_use, mode, status)) {
    ++times_made;
    (void)make_own(fs::path(folder_in_use).parent_path());
    (void)mkdir(folder_in_use, mode);
    (void)chmod(folder_in_use, mode);  // what could not be removed, since it is a mount
    if (!is_own(folder_in_use, mode, status)) {
      return 0;
    }
  }
  return times_made << inode_bits ^ status.st_ino;
}

const char* work_folder() {
  return folder_in_use;
}

}  // namespace clamav_engine
