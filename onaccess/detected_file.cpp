#include "detected_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace {

// O_PATH: nothing is read, so no access is reported for these opens.
constexpr int directory_flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Opens a directory one component after the other, and fails if any of them is a link.
int open_directory(const std::string& path) {
  int directory = open("/", directory_flags);
  std::size_t begin = 1;
  while (directory >= 0 && begin < path.size()) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string component = path.substr(begin, end - begin);
    const int next =
        component.empty() ? dup(directory) : openat(directory, component.c_str(), directory_flags);
    (void)close(directory);
    directory = next;
    begin = end + 1;
  }
  return directory;
}

// @param flags for fstatat: whether the comparison follows a link
bool unlink_if_same(int directory, const char* name, const FileIdentity& identity, int flags) {
  struct stat status {};
  return fstatat(directory, name, &status, flags) == 0 && S_ISREG(status.st_mode) &&
         status.st_dev == identity.device && status.st_ino == identity.inode &&
         unlinkat(directory, name, 0) == 0;
}

}  // namespace

FileIdentity identify(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    return {};
  }
  return {status.st_dev, status.st_ino, status.st_nlink};
}

bool remove_if_same(const char* path, const FileIdentity& identity) {
  const std::string whole(path);
  const std::size_t slash = whole.rfind('/');
  if (identity.links == 0 || slash == std::string::npos || whole.front() != '/') {
    return false;
  }
  const int directory = open_directory(whole.substr(0, slash));
  if (directory < 0) {
    return false;
  }
  const bool removed =
      unlink_if_same(directory, whole.c_str() + slash + 1, identity, AT_SYMLINK_NOFOLLOW);
  (void)close(directory);
  return removed;
}

bool remove_if_same_at(int directory, const char* name, const FileIdentity& identity) {
  return unlink_if_same(directory, name, identity, 0);
}
