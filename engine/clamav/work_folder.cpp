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
std::atomic<unsigned int> times_made = 1;

/// Of a file beside the folder that nobody else can open. Never destroyed: the daemon's last calls
/// come while static objects are being destroyed.
Descriptor& folder_lock = *new Descriptor;

/// Whether it is a directory of root's that nobody else can write to.
bool is_own(const fs::path& directory) {
  struct stat status {};
  return lstat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == 0 &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

/// Makes a directory and those around it if they are missing.
/// @return whether all of them are our own. The root itself is not asked about: an emulator has one
///         of its own.
bool make_own(const fs::path& directory, mode_t mode = 0755) {
  const fs::path around = directory.parent_path();
  if (around != directory.root_path() && !make_own(around)) {
    return false;
  }
  (void)mkdir(directory.c_str(), mode);
  return is_own(directory);
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
  const bool in_memory = take("/run/pelo/engine") && fs::space("/run/pelo").available >= room;
  if (!in_memory && !take("/var/cache/pelo/engine")) {
    return false;
  }
  std::error_code ignored;
  (void)fs::remove_all(folder_in_use, ignored);  // left by a process that crashed
  return keep_work_folder() != 0;
}

// It counts before it makes: who finds the folder in place finds it counted, too. The lock stays as
// it is: threads with a descriptor table of their own come here.
unsigned int keep_work_folder() {
  if (is_own(folder_in_use)) {
    return times_made;
  }
  const unsigned int count = ++times_made;
  return make_own(folder_in_use, 0700) ? count : 0;
}

const char* work_folder() {
  return folder_in_use;
}

}  // namespace clamav_engine
