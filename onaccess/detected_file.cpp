#include "detected_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "descriptor.h"

namespace {

// O_PATH: nothing is read, so no access is reported for these opens.
constexpr int directory_flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Opens a directory one component after the other, and fails if any of them is a link.
Descriptor open_directory(const std::string& path) {
  Descriptor directory(open("/", directory_flags));
  std::size_t begin = 1;
  while (directory && begin < path.size()) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string component = path.substr(begin, end - begin);
    if (!component.empty()) {
      directory.reset(openat(directory.get(), component.c_str(), directory_flags));
    }
    begin = end + 1;
  }
  return directory;
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
  const Descriptor directory = open_directory(whole.substr(0, slash));
  return remove_if_same_at(directory.get(), whole.c_str() + slash + 1, identity,
                           AT_SYMLINK_NOFOLLOW);
}

bool remove_if_same_at(int directory, const char* name, const FileIdentity& identity, int flags) {
  struct stat status {};
  return fstatat(directory, name, &status, flags) == 0 && S_ISREG(status.st_mode) &&
         status.st_dev == identity.device && status.st_ino == identity.inode &&
         unlinkat(directory, name, 0) == 0;
}
