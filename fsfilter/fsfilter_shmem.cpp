#include "fsfilter_shmem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "clock.h"
#include "descriptor.h"

namespace {

using TableLock = std::unique_lock<SharedLock>;

constexpr std::chrono::milliseconds lock_bound{100};
constexpr std::chrono::seconds impatience{10};
constexpr mode_t everybody = 0666;
constexpr int publish_tries = 1000;

fsfilter_shared_t map(int fd) {
  void* area =
      mmap(nullptr, sizeof(fsfilter_shared_area), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return area == MAP_FAILED ? nullptr : static_cast<fsfilter_shared_t>(area);
}

// Opens an object that may be an area, and none that is too short: mapping it succeeds, but an
// access beyond its end kills the process. O_NONBLOCK: another user may have put a pipe in the
// area's place, or a file with a lease, and the open would wait.
Descriptor open_object(const char* name, int access, struct stat* status) {
  Descriptor object(shm_open(name, access | O_NONBLOCK, everybody));
  if (!object || fstat(object.get(), status) != 0) {
    return Descriptor();
  }
  if (!S_ISREG(status->st_mode) ||
      status->st_size < static_cast<off_t>(sizeof(fsfilter_shared_area))) {
    errno = EINVAL;
    return Descriptor();
  }
  return object;
}

// Writes to the file and not to a mapping: on a full file system the first write to a mapping would
// kill the process, and other processes may truncate the file already.
bool fill(int fd) {
  fsfilter_shared_area area{};
  area.lock.initialize();
  errno = ENOSPC;  // of a write that ends early
  return write(fd, &area, sizeof area) == static_cast<ssize_t>(sizeof area);
}

// The slot that holds the pid, among those of the mask; -1 if there is none.
int slot_of(fsfilter_shared_t area, std::int32_t pid, std::uint32_t mask = ~0U) {
  for (int slot = 0; slot < FSFILTER_TRUSTED_MAX; ++slot) {
    if ((mask >> slot & 1U) != 0 && std::atomic_ref(area->trusted_pids[slot]).load() == pid) {
      return slot;
    }
  }
  return -1;
}

bool in_marked_slot(fsfilter_shared_t area, std::int32_t pid) {
  return slot_of(area, pid, std::atomic_ref(area->slot_mask).load()) >= 0;
}

void copy_text(const char (&text)[FSFILTER_TEXT_SIZE], char (&out)[FSFILTER_TEXT_SIZE + 1]) {
  std::memcpy(out, text, sizeof text);
  out[sizeof text] = '\0';
}

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

bool is_living_owner(std::int32_t pid, const struct stat& object) {
  return pid > 0 && runs_as_our_user(pid) && maps(pid, object);
}

bool any_owner(const struct stat& object) {
  const std::unique_ptr<DIR, Close> processes(opendir("/proc"));
  const dirent* entry = nullptr;
  bool found = false;
  while (processes != nullptr && !found && (entry = readdir(processes.get())) != nullptr) {
    found = is_living_owner(std::atoi(entry->d_name), object);
  }
  return found;
}

int exchange(const ShmPath& own, const ShmPath& name) {
  return renameat2(AT_FDCWD, own.text, AT_FDCWD, name.text, RENAME_EXCHANGE);
}

// Renames an object to its final name. Anything else of that name gives way, even another user's
// folder, link or pipe, unless it is an object whose owner is alive. It is removed, but for a
// folder with something in it, which only loses its name. If this fails, with EEXIST for a living
// owner, the object keeps its own name.
//
// What bears the name is checked before the exchange and again after it: another filter may have
// taken the name in between.
int publish(const char* own, const char* name) {
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

}  // namespace

inline namespace fsfilter_internal {

// The object is made under a random name, which nobody can have taken before.
fsfilter_shared_t fsfilter_shared_create(const char* name) {
  char own[NAME_MAX + 1];
  unsigned long long number = 0;
  (void)!getrandom(&number, sizeof number, 0);
  (void)std::snprintf(own, sizeof own, "%s.%016llx", name, number);
  const Descriptor object(shm_open(own, O_CREAT | O_EXCL | O_RDWR, everybody));
  if (!object) {
    return nullptr;
  }
  fsfilter_shared_t area = fill(object.get()) ? map(object.get()) : nullptr;
  if (area != nullptr && publish(own, name) == 0) {
    return area;
  }
  const int error = errno;
  if (area != nullptr) {
    (void)munmap(area, sizeof *area);
  }
  (void)shm_unlink(own);
  errno = error;
  return nullptr;
}

fsfilter_shared_t fsfilter_shared_open(const char* name) {
  struct stat status {};
  const Descriptor object = open_object(name, O_RDWR, &status);
  return object ? map(object.get()) : nullptr;
}

int fsfilter_shared_close(const char* name, fsfilter_shared_t area) {
  if (name == nullptr || area == nullptr) {
    return -1;
  }
  const bool owner = std::atomic_ref(area->owner_pid).load() == getpid();
  (void)munmap(area, sizeof *area);
  return owner ? shm_unlink(name) : 0;
}

int fsfilter_shared_exist(const char* name) {
  return Descriptor(shm_open(name, O_RDWR | O_NONBLOCK, everybody)) ? 1 : 0;
}

// The object is read and not mapped, so that nothing faults when another process truncates it. An
// object of another user is no filter's, since making it takes the same rights as making a filter.
int fsfilter_shared_inuse(const char* name) {
  struct stat status {};
  const Descriptor object = open_object(name, O_RDWR, &status);
  std::int32_t owner = 0;
  const bool in_use =
      object && status.st_uid == geteuid() &&
      pread(object.get(), &owner, sizeof owner, offsetof(fsfilter_shared_area, owner_pid)) ==
          static_cast<ssize_t>(sizeof owner) &&
      (owner == 0 ? any_owner(status) : is_living_owner(owner, status));
  return in_use ? 0 : -1;
}

int fsfilter_shared_read(const char* name, fsfilter_status_struct* out) {
  struct stat status {};
  const Descriptor object = open_object(name, O_RDONLY, &status);
  if (!object) {
    return -1;
  }
  fsfilter_shared_area area;
  errno = EINVAL;  // of a read that ends early
  if (pread(object.get(), &area, sizeof area, 0) != static_cast<ssize_t>(sizeof area)) {
    return -1;
  }
  out->answered = area.statistics.answered;
  out->denied = area.statistics.denied;
  out->owner_pid = std::max(area.owner_pid, 0);
  for (int slot = 0; slot < FSFILTER_TRUSTED_MAX; ++slot) {
    const bool held = (area.slot_mask >> slot & 1U) != 0;
    out->trusted_pids[slot] = held ? std::max(area.trusted_pids[slot], 0) : 0;
  }
  copy_text(area.statistics.jobs, out->jobs);
  copy_text(area.inclusions, out->inclusions);
  copy_text(area.exclusions, out->exclusions);
  copy_text(area.mounts, out->mounts);
  return 0;
}

int fsfilter_shared_add_trusted(fsfilter_shared_t area, std::int32_t pid) {
  if (area == nullptr || pid <= 0) {
    return -1;
  }
  const TableLock lock(area->lock, lock_bound);
  int slot = lock ? slot_of(area, pid) : -1;
  if (lock && slot < 0) {
    slot = slot_of(area, 0);
  }
  if (slot < 0) {
    return -1;
  }
  std::atomic_ref(area->trusted_pids[slot]).store(pid);
  std::atomic_ref(area->slot_mask).fetch_or(1U << slot);
  return slot;
}

// The bit is toggled and not cleared: it matches its slot afterwards if it did before.
int fsfilter_shared_rm_trusted(fsfilter_shared_t area, std::int32_t pid) {
  if (area == nullptr || pid <= 0) {
    return -1;
  }
  const TableLock lock(area->lock, lock_bound);
  const int slot = lock ? slot_of(area, pid) : -1;
  if (slot < 0) {
    return -1;
  }
  std::atomic_ref(area->trusted_pids[slot]).store(0);
  std::atomic_ref(area->slot_mask).fetch_xor(1U << slot);
  return 0;
}

// Looks without the lock first, so that a process that takes the lock and never releases it can
// delay only events of processes in the table. And those only once in ten seconds: after a wait
// in vain the lock is tried without waiting, since other events wait behind this one.
int fsfilter_is_trusted(fsfilter_shared_t area, std::int32_t pid) {
  if (area == nullptr || pid <= 0 || !in_marked_slot(area, pid)) {
    return 0;
  }
  static std::atomic<Clock::time_point> patience_again{Clock::time_point::min()};
  const bool patient = Clock::now() >= patience_again.load(std::memory_order_relaxed);
  const TableLock lock(area->lock, patient ? lock_bound : std::chrono::milliseconds(0));
  if (!lock && patient) {
    patience_again.store(Clock::now() + impatience, std::memory_order_relaxed);
  }
  return lock && in_marked_slot(area, pid) ? 1 : 0;
}

}  // namespace fsfilter_internal
