#include "fsfilter_shmem.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::chrono::milliseconds lock_bound{100};
constexpr std::int64_t impatient_seconds = 10;
constexpr std::uint32_t all_slots = (1U << trusted_slots) - 1;
constexpr mode_t everybody = 0666;
constexpr std::size_t statistics_offset = offsetof(fsfilter_shared_area, statistics);
constexpr std::size_t answered_offset =
    statistics_offset + offsetof(fsfilter_stat_struct, answered);
constexpr std::size_t denied_offset = statistics_offset + offsetof(fsfilter_stat_struct, denied);

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) {
      const int error = errno;
      (void)close(fd_);
      errno = error;
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

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

std::int64_t monotonic_seconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

fsfilter_shared_t map(int fd) {
  void* area =
      mmap(nullptr, sizeof(fsfilter_shared_area), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return area == MAP_FAILED ? nullptr : static_cast<fsfilter_shared_t>(area);
}

// Mapping a short object succeeds; touching what is missing would end the process.
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

int open_new(const char* name) {
  const int flags = O_CREAT | O_EXCL | O_RDWR;
  const int fd = shm_open(name, flags, everybody);
  if (fd >= 0 || errno != EEXIST) {
    return fd;
  }
  if (fsfilter_shared_inuse(name) != -1) {
    errno = EEXIST;
    return -1;
  }
  (void)shm_unlink(name);
  return shm_open(name, flags, everybody);
}

// With its memory reserved: on a full file system the first write would end the process.
fsfilter_shared_t size_and_map(int fd) {
  if (ftruncate(fd, sizeof(fsfilter_shared_area)) != 0) {
    return nullptr;
  }
  int error = 0;
  do {
    error = posix_fallocate(fd, 0, sizeof(fsfilter_shared_area));
  } while (error == EINTR);
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  fsfilter_shared_t area = map(fd);
  if (area == nullptr) {
    return nullptr;
  }
  error = area->lock.initialize();
  if (error != 0) {
    (void)munmap(area, sizeof *area);
    errno = error;
    return nullptr;
  }
  store(area->slot_mask, 0U);
  return area;
}

// The slot that holds the pid, whatever the mask says; -1 when none does.
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

// Reads `size` bytes, or fails with errno, EINVAL where the object ends before.
bool read_all(int fd, void* out, std::size_t size, std::size_t offset) {
  const ssize_t count = pread(fd, out, size, static_cast<off_t>(offset));
  if (count >= 0 && count < static_cast<ssize_t>(size)) {
    errno = EINVAL;
  }
  return count == static_cast<ssize_t>(size);
}

// The whole area at one moment, more or less: others go on writing. False with errno, EINVAL for
// what is shorter.
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

bool read_counter_at(int fd, std::size_t offset, std::uint64_t* counter) {
  constexpr bool little = std::endian::native == std::endian::little;
  const auto read_half = [&](bool upper, std::uint32_t* half) {
    // The processor must not read earlier either.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return read_all(fd, half, sizeof *half, upper == little ? offset + sizeof *half : offset);
  };
  return read_counter(read_half, counter);
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
  const Descriptor object(open_new(name));
  if (object.get() < 0) {
    return nullptr;
  }
  fsfilter_shared_t area = size_and_map(object.get());
  if (area == nullptr) {
    const int error = errno;
    (void)shm_unlink(name);
    errno = error;
  }
  return area;
}

bool fsfilter_shared_restore(fsfilter_shared_t area) {
  return mmap(area, sizeof *area, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
              -1, 0) == area;
}

fsfilter_shared_t fsfilter_shared_open(const char* name) {
  const Descriptor object(shm_open(name, O_RDWR, everybody));
  return object.get() < 0 || !large_enough(object.get()) ? nullptr : map(object.get());
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
  return Descriptor(shm_open(name, O_RDWR, everybody)).get() >= 0 ? 1 : 0;
}

// Read, not mapped: what another process cuts off meanwhile must not fault. An object of somebody
// else's is no filter's, since making a filter and the object takes the same rights.
int fsfilter_shared_inuse(const char* name) {
  const Descriptor object(shm_open(name, O_RDWR, everybody));
  struct stat status {};
  std::int32_t owner = 0;
  if (object.get() < 0 || !large_enough(object.get()) || fstat(object.get(), &status) != 0 ||
      status.st_uid != geteuid() ||
      pread(object.get(), &owner, sizeof owner, offsetof(fsfilter_shared_area, owner_pid)) !=
          static_cast<ssize_t>(sizeof owner)) {
    return -1;
  }
  if (owner == 0) {
    return 0;
  }
  // A negative number would ask about a process group.
  return owner > 0 && (kill(owner, 0) == 0 || errno == EPERM) ? 0 : -1;
}

// Another user may have put a pipe in the area's place; opening one to read would wait for a
// writer.
int fsfilter_shared_read(const char* name, fsfilter_status_struct* out) {
  const Descriptor object(shm_open(name, O_RDONLY | O_NONBLOCK, 0));
  fsfilter_shared_area area;
  std::uint64_t answered = 0;
  std::uint64_t denied = 0;
  if (object.get() < 0 || !read_area(object.get(), &area) ||
      !read_counter_at(object.get(), answered_offset, &answered) ||
      !read_counter_at(object.get(), denied_offset, &denied)) {
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

// The bit is toggled, not cleared: it stays in step with its slot exactly while it was.
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

// First without the lock: whoever takes it and never lets go can then delay only the processes
// that stand in the table. And not even these for every event: having waited in vain, this thread
// only tries for a while, since all others wait for their events behind it.
int fsfilter_is_trusted(fsfilter_shared_t area, std::int32_t pid) {
  if (area == nullptr || pid <= 0 || !in_marked_slot(area, pid)) {
    return 0;
  }
  static std::atomic<std::int64_t> patience_again{0};
  const bool patient = monotonic_seconds() >= patience_again.load(std::memory_order_relaxed);
  const TableLock lock(area->lock, patient ? lock_bound : std::chrono::milliseconds(0));
  if (!lock.held() && patient) {
    patience_again.store(monotonic_seconds() + impatient_seconds, std::memory_order_relaxed);
  }
  return lock.held() && in_marked_slot(area, pid) ? 1 : 0;
}

}  // namespace fsfilter_internal
