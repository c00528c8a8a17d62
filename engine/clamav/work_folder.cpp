// SPDX-License-Identifier: GPL-2.0-only
#include "work_folder.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "annotated_mutex.h"
#include "unique_fd.h"

namespace clamav_engine {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = "pelo-engine-";
constexpr std::string_view kPlaceholder = "XXXXXX";

/// The lock says that the folder's process lives; it ends with the process, however that ends.
struct Folder {
  fs::path path;
  UniqueFd lock;
};

/// Never destroyed: the daemon's last calls come while static objects are being destroyed.
std::optional<Folder>& current() {
  static auto* const folder = new std::optional<Folder>;
  return *folder;
}

UniqueFd open_directory(const fs::path& path) {
  return UniqueFd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool protects_its_entries(const fs::path& directory) {
  struct stat status {};
  return lstat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         (status.st_uid == 0 || status.st_uid == geteuid()) &&
         ((status.st_mode & S_ISVTX) != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) == 0);
}

/// @param path canonical
bool is_trustworthy(const fs::path& path) {
  fs::path reached;
  return std::all_of(path.begin(), path.end(), [&](const fs::path& name) {
    reached /= name;
    return protects_its_entries(reached);
  });
}

bool lock(const UniqueFd& folder) {
  return flock(folder.get(), LOCK_EX | LOCK_NB) == 0;
}

// Another process may take the folder for a leftover in the moment before it is locked; it is gone
// then, or has that process's lock.
bool make_in(const fs::path& directory) {
  std::string name = directory / std::string(kPrefix).append(kPlaceholder);
  if (mkdtemp(name.data()) == nullptr) {
    return false;
  }
  UniqueFd folder = open_directory(name);
  struct stat status {};
  if (lock(folder) && fstat(folder.get(), &status) == 0 && status.st_nlink > 0) {
    current().emplace(Folder{std::move(name), std::move(folder)});
    return true;
  }
  (void)rmdir(name.c_str());
  return false;
}

bool has_name_of_ours(const fs::path& path) {
  const std::string name = path.filename();
  return name.starts_with(kPrefix) && name.size() == kPrefix.size() + kPlaceholder.size();
}

bool is_leftover(const UniqueFd& folder) {
  struct stat status {};
  return fstat(folder.get(), &status) == 0 && status.st_uid == geteuid() &&
         (status.st_mode & ALLPERMS) == S_IRWXU && lock(folder);
}

void remove_leftovers(const fs::path& directory) {
  std::error_code ignored;
  for (fs::directory_iterator entry(directory, ignored), end; entry != end;
       entry.increment(ignored)) {
    if (!has_name_of_ours(entry->path())) {
      continue;
    }
    const UniqueFd folder = open_directory(entry->path());
    if (is_leftover(folder)) {
      (void)fs::remove_all(entry->path(), ignored);
    }
  }
}

bool make_in_trustworthy(const char* wanted) {
  std::error_code missing;
  const fs::path directory = fs::canonical(wanted, missing);
  if (missing || !is_trustworthy(directory)) {
    return false;
  }
  remove_leftovers(directory);
  return make_in(directory) || make_in(directory);
}

}  // namespace

bool make_work_folder() {
  constexpr const char* kOwn = "/var/cache/pelo";
  const char* const wanted = getenv("TMPDIR");
  if (current() || (wanted != nullptr && make_in_trustworthy(wanted))) {
    return true;
  }
  (void)mkdir(kOwn, 0755);
  return make_in_trustworthy(kOwn) || make_in_trustworthy("/tmp");
}

const fs::path& work_folder() {
  static const fs::path none;
  return current() ? current()->path : none;
}

bool keep_work_folder() {
  static AnnotatedMutex mutex;
  const MutexLock lock_of_all(mutex);
  if (!current()) {
    return false;
  }
  if (mkdir(work_folder().c_str(), 0700) != 0) {
    return errno == EEXIST;
  }
  current()->lock = open_directory(work_folder());
  (void)lock(current()->lock);
  return true;
}

void remove_work_folder() {
  if (current()) {
    std::error_code ignored;
    (void)fs::remove_all(current()->path, ignored);
    current().reset();
  }
}

}  // namespace clamav_engine
