#include "fsfilter_object.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "fsfilter_shmem.h"

namespace {

constexpr int publish_tries = 1000;

struct Close {
  void operator()(FILE* file) const { (void)fclose(file); }
  void operator()(DIR* folder) const { (void)closedir(folder); }
};

struct ShmPath {
  explicit ShmPath(const char* name) { (void)std::snprintf(text, sizeof text, "/dev/shm%s", name); }
  char text[PATH_MAX];
};

/// Calls visit(line) for the lines of /proc/PID/FILE until it returns true. @return whether it did
template <typename Visit>
bool any_line(std::int32_t pid, const char* file, Visit visit) {
  char path[64];
  (void)std::snprintf(path, sizeof path, "/proc/%d/%s", pid, file);
  const std::unique_ptr<FILE, Close> stream(std::fopen(path, "re"));
  char* line = nullptr;
  std::size_t size = 0;
  bool found = false;
  while (stream != nullptr && !found && getline(&line, &size, stream.get()) > 0) {
    found = visit(line);
  }
  std::free(line);
  return found;
}

// Reads the status file: the folder /proc/PID belongs to root for every process that may not be
// dumped.
bool runs_as_our_user(std::int32_t pid) {
  return any_line(pid, "status", [](const char* line) {
    unsigned effective = 0;
    return std::sscanf(line, "Uid: %*u %u", &effective) == 1 && effective == geteuid();
  });
}

bool maps(std::int32_t pid, const struct stat& object) {
  return any_line(pid, "maps", [&object](const char* line) {
    unsigned device_major = 0;
    unsigned device_minor = 0;
    unsigned long long inode = 0;
    return std::sscanf(line, "%*x-%*x %*s %*x %x:%x %llu", &device_major, &device_minor, &inode) ==
               3 &&
           makedev(device_major, device_minor) == object.st_dev && inode == object.st_ino;
  });
}

bool is_owner(std::int32_t pid, const struct stat& object) {
  return pid > 0 && runs_as_our_user(pid) && maps(pid, object);
}

bool any_owner(const struct stat& object) {
  const std::unique_ptr<DIR, Close> processes(opendir("/proc"));
  const dirent* entry = nullptr;
  bool found = false;
  while (processes != nullptr && !found && (entry = readdir(processes.get())) != nullptr) {
    found = is_owner(std::atoi(entry->d_name), object);
  }
  return found;
}

int exchange(const ShmPath& own, const ShmPath& name) {
  return renameat2(AT_FDCWD, own.text, AT_FDCWD, name.text, RENAME_EXCHANGE);
}

}  // namespace

inline namespace fsfilter_internal {

// What bears the name is checked before the exchange and again after it: another filter may have
// taken the name in between.
int fsfilter_object_publish(const char* own, const char* name) {
  const ShmPath from(own);
  const ShmPath to(name);
  for (int tries = publish_tries; tries > 0; --tries) {
    if (renameat2(AT_FDCWD, from.text, AT_FDCWD, to.text, RENAME_NOREPLACE) == 0) {
      return 0;
    }
    if (errno != EEXIST) {
      return -1;
    }
    if (fsfilter_shared_inuse(name) == 0) {
      break;
    }
    if (exchange(from, to) == 0) {
      if (fsfilter_shared_inuse(own) == 0) {
        (void)exchange(from, to);
        break;
      }
      // A folder of another user's with something in it stays, under a name that nobody needs.
      (void)std::remove(from.text);
      return 0;
    }
    // It has vanished, or a user has mounted something on a folder there.
    if (errno != ENOENT &&
        (errno != EBUSY || umount2(to.text, MNT_DETACH | UMOUNT_NOFOLLOW) != 0)) {
      return -1;
    }
  }
  errno = EEXIST;
  return -1;
}

bool fsfilter_object_owned(const struct stat& object, std::int32_t owner) {
  return owner == 0 ? any_owner(object) : is_owner(owner, object);
}

}  // namespace fsfilter_internal
