#include "fsfilter_shmem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "descriptor.h"
#include "fsfilter_object.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds lock_bound{100};
constexpr std::chrono::seconds impatience{10};
constexpr std::uint32_t all_slots = (1U << trusted_slots) - 1;
constexpr mode_t everybody = 0666;
constexpr std::size_t statistics_offset = offsetof(fsfilter_shared_area, statistics);
constexpr std::size_t answered_offset =
    statistics_offset + offsetof(fsfilter_stat_struct, answered);
constexpr std::size_t denied_offset = statistics_offset + offsetof(fsfilter_stat_struct, denied);

class TableLock {
 public:
  explicit TableLock(SharedLock& lock, std::chrono::milliseconds bound = lock_bound)
      : lock_(lock), held_(lock.try_lock_for(bound)) {}
  ~TableLock() {
    if (held_) {
      lock_.unlock();
    }
  }
  TableLock(const TableLock&) = delete;
  TableLock& operator=(const TableLock&) = delete;
  bool held() const { return held_; }

 private:
  SharedLock& lock_;
  bool held_;
};

template <typename T>
T load(T& field) {
  return std::atomic_ref(field).load(std::memory_order_relaxed);
}

template <typename T>
void store(T& field, T value) {
  std::atomic_ref(field).store(value, std::memory_order_relaxed);
}

fsfilter_shared_t map(int fd) {
  void* area =
      mmap(nullptr, sizeof(fsfilter_shared_area), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return area == MAP_FAILED ? nullptr : static_cast<fsfilter_shared_t>(area);
}

// Mapping an object that is too short succeeds, but an access beyond its end kills the process.
bool large_enough(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    return false;
  }
  if (status.st_size < static_cast<off_t>(sizeof(fsfilter_shared_area))) {
    errno = EINVAL;
    return false;
  }
  return true;
}

// A random name, so that nobody can have taken it before.
struct OwnName {
  explicit OwnName(const char* name) {
    std::uint64_t number = 0;
    (void)!getrandom(&number, sizeof number, 0);
    (void)std::snprintf(text, sizeof text, "%s.%016llx", name,
                        static_cast<unsigned long long>(number));
  }
  char text[NAME_MAX + 1];
};

// Reserves the memory, since on a full file system the first write to a mapping would kill the
// process. Writes to the file and not to a mapping, since other processes may truncate it already.
bool fill(int fd) {
  SharedLock lock;
  int error = lock.initialize();
  if (error == 0 && ftruncate(fd, sizeof(fsfilter_shared_area)) != 0) {
    error = errno;
  }
  while (error == 0 || error == EINTR) {
    error = posix_fallocate(fd, 0, sizeof(fsfilter_shared_area));
    if (error == 0) {
      const ssize_t written = pwrite(fd, &lock, sizeof lock, offsetof(fsfilter_shared_area, lock));
      return written == static_cast<ssize_t>(sizeof lock);
    }
  }
  errno = error;
  return false;
}

// The slot that holds the pid, even if its mask bit is not set; -1 if there is none.
int slot_of(fsfilter_shared_t area, std::int32_t pid) {
  for (int slot = 0; slot < trusted_slots; ++slot) {
    if (load(area->trusted_pids[slot]) == pid) {
      return slot;
    }
  }
  return -1;
}

bool in_marked_slot(fsfilter_shared_t area, std::int32_t pid) {
  const std::uint32_t mask = load(area->slot_mask) & all_slots;
  for (int slot = 0; slot < trusted_slots; ++slot) {
    if ((mask >> slot & 1U) != 0 && load(area->trusted_pids[slot]) == pid) {
      return true;
    }
  }
  return false;
}

// Reads `size` bytes, or fails with errno, which is EINVAL if the object ends before.
bool read_all(int fd, void* out, std::size_t size, std::size_t offset) {
  const ssize_t count = pread(fd, out, size, static_cast<off_t>(offset));
  if (count >= 0 && count < static_cast<ssize_t>(size)) {
    errno = EINVAL;
  }
  return count == static_cast<ssize_t>(size);
}

// Copies the whole area, though others may write meanwhile. False with errno, which is EINVAL for a
// shorter object.
bool read_area(int fd, fsfilter_shared_area* copy) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return false;
  }
  return read_all(fd, static_cast<void*>(copy), sizeof *copy, 0);
}

bool read_half(int fd, std::uint32_t* half, std::size_t offset) {
  // Keeps the processor from reading earlier.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  return read_all(fd, half, sizeof *half, offset);
}

// A 32-bit kernel copies the two halves one after the other, while the filter may count. The lower
// half is right if the upper one is the same before and after it. The number of tries is limited,
// since another process may keep changing the upper half.
bool read_counter(int fd, std::size_t offset, std::uint64_t* counter) {
  constexpr std::size_t upper = std::endian::native == std::endian::little ? 4 : 0;
  std::uint32_t low = 0;
  std::uint32_t high = 0;
  bool read = read_half(fd, &high, offset + upper);
  bool whole = false;
  for (int tries = 100; read && !whole && tries > 0; --tries) {
    const std::uint32_t before = high;
    read = read_half(fd, &low, offset + 4 - upper) && read_half(fd, &high, offset + upper);
    whole = before == high;
  }
  *counter = std::uint64_t{high} << 32 | low;
  return read;
}

void copy_text(const char (&text)[FSFILTER_TEXT_SIZE], char (&out)[FSFILTER_TEXT_SIZE + 1]) {
  std::memcpy(out, text, sizeof text);
  out[sizeof text] = '\0';
}

std::int32_t pid_or_nobody(std::int32_t pid) {
  return pid > 0 ? pid : 0;
}

}  // namespace

inline namespace fsfilter_internal {

fsfilter_shared_t fsfilter_shared_create(const char* name) {
  const OwnName own(name);
  const Descriptor object(shm_open(own.text, O_CREAT | O_EXCL | O_RDWR, everybody));
  if (!object) {
    return nullptr;
  }
  fsfilter_shared_t area = fill(object.get()) ? map(object.get()) : nullptr;
  if (area != nullptr && fsfilter_object_publish(own.text, name) == 0) {
    return area;
  }
  const int error = errno;
  if (area != nullptr) {
    (void)munmap(area, sizeof *area);
  }
  (void)shm_unlink(own.text);
  errno = error;
  return nullptr;
}

bool fsfilter_shared_restore(fsfilter_shared_t area) {
  return mmap(area, sizeof *area, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
              -1, 0) == area;
}

fsfilter_shared_t fsfilter_shared_open(const char* name) {
  const Descriptor object(shm_open(name, O_RDWR, everybody));
  return !object || !large_enough(object.get()) ? nullptr : map(object.get());
}

int fsfilter_shared_close(const char* name, fsfilter_shared_t area) {
  if (name == nullptr || area == nullptr) {
    return -1;
  }
  const bool owner = load(area->owner_pid) == getpid();
  (void)munmap(area, sizeof *area);
  return owner ? shm_unlink(name) : 0;
}

int fsfilter_shared_exist(const char* name) {
  return Descriptor(shm_open(name, O_RDWR | O_NONBLOCK, everybody)) ? 1 : 0;
}

// The object is read and not mapped, so that nothing faults when another process truncates it. An
// object of another user is no filter's, since making it takes the same rights as making a filter.
// O_NONBLOCK: another user's file may have a lease, which the open would wait for.
int fsfilter_shared_inuse(const char* name) {
  const Descriptor object(shm_open(name, O_RDWR | O_NONBLOCK, everybody));
  struct stat status {};
  std::int32_t owner = 0;
  if (!object || !large_enough(object.get()) || fstat(object.get(), &status) != 0 ||
      status.st_uid != geteuid() ||
      pread(object.get(), &owner, sizeof owner, offsetof(fsfilter_shared_area, owner_pid)) !=
          static_cast<ssize_t>(sizeof owner)) {
    return -1;
  }
  return fsfilter_object_owned(status, owner) ? 0 : -1;
}

// O_NONBLOCK: another user may have put a pipe in the area's place, and opening that would wait for
// a writer.
int fsfilter_shared_read(const char* name, fsfilter_status_struct* out) {
  const Descriptor object(shm_open(name, O_RDONLY | O_NONBLOCK, 0));
  fsfilter_shared_area area;
  std::uint64_t answered = 0;
  std::uint64_t denied = 0;
  if (!object || !read_area(object.get(), &area) ||
      !read_counter(object.get(), answered_offset, &answered) ||
      !read_counter(object.get(), denied_offset, &denied)) {
    return -1;
  }
  out->answered = answered;
  out->denied = denied;
  out->owner_pid = pid_or_nobody(area.owner_pid);
  for (int slot = 0; slot < trusted_slots; ++slot) {
    const bool held = (area.slot_mask >> slot & 1U) != 0;
    out->trusted_pids[slot] = held ? pid_or_nobody(area.trusted_pids[slot]) : 0;
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
  const TableLock lock(area->lock);
  if (!lock.held()) {
    return -1;
  }
  int slot = slot_of(area, pid);
  if (slot < 0) {
    slot = slot_of(area, 0);
  }
  if (slot < 0) {
    return -1;
  }
  store(area->trusted_pids[slot], pid);
  std::atomic_ref(area->slot_mask).fetch_or(1U << slot, std::memory_order_relaxed);
  return slot;
}

// The bit is toggled and not cleared: it matches its slot afterwards if it did before.
int fsfilter_shared_rm_trusted(fsfilter_shared_t area, std::int32_t pid) {
  if (area == nullptr || pid <= 0) {
    return -1;
  }
  const TableLock lock(area->lock);
  const int slot = lock.held() ? slot_of(area, pid) : -1;
  if (slot < 0) {
    return -1;
  }
  store(area->trusted_pids[slot], 0);
  std::atomic_ref(area->slot_mask).fetch_xor(1U << slot, std::memory_order_relaxed);
  return 0;
}

// Looks without the lock first, so that a process that takes the lock and never releases it can
// delay only events of processes in the table. Not even each of those: after a wait in vain, the
// lock is only tried for a while without waiting, since other events wait behind this one.
int fsfilter_is_trusted(fsfilter_shared_t area, std::int32_t pid) {
  if (area == nullptr || pid <= 0 || !in_marked_slot(area, pid)) {
    return 0;
  }
  static std::atomic<Clock::time_point> patience_again{Clock::time_point::min()};
  const bool patient = Clock::now() >= patience_again.load(std::memory_order_relaxed);
  const TableLock lock(area->lock, patient ? lock_bound : std::chrono::milliseconds(0));
  if (!lock.held() && patient) {
    patience_again.store(Clock::now() + impatience, std::memory_order_relaxed);
  }
  return lock.held() && in_marked_slot(area, pid) ? 1 : 0;
}

}  // namespace fsfilter_internal
