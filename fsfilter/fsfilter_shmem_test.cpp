#include "fsfilter_shmem.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "temp_directory.h"

namespace {

using std::chrono::steady_clock;

/// Many times the 100 ms that the lock may cost, so that a busy machine does not fail the tests.
constexpr std::chrono::seconds lock_cost_bound{5};

template <typename T>
T at_offset(const fsfilter_shared_area* area, std::size_t offset) {
  T value;
  std::memcpy(&value, reinterpret_cast<const char*>(area) + offset, sizeof value);
  return value;
}

/// The whole area but its lock, which has an initial state of the platform's.
std::string bytes_around_lock(const fsfilter_shared_area* area) {
  return std::string(reinterpret_cast<const char*>(area), sizeof *area).erase(44, 24);
}

/// The lock's bytes, while others may use it.
std::vector<std::uint32_t> lock_words(fsfilter_shared_t area) {
  auto* words = reinterpret_cast<std::uint32_t*>(&area->lock);
  std::vector<std::uint32_t> copy;
  for (std::size_t i = 0; i < sizeof area->lock / sizeof *words; ++i) {
    copy.push_back(std::atomic_ref(words[i]).load(std::memory_order_relaxed));
  }
  return copy;
}

/// An object of the test's own name, gone with the test.
class StatusAreaTest : public testing::Test {
 protected:
  StatusAreaTest() : name_("/pelo-test-" + std::to_string(getpid())) {
    (void)shm_unlink(name_.c_str());
  }
  ~StatusAreaTest() override { (void)shm_unlink(name_.c_str()); }

  fsfilter_shared_t create() { return fsfilter_shared_create(name_.c_str()); }
  fsfilter_shared_t open_again() { return fsfilter_shared_open(name_.c_str()); }

  void put_object(off_t size) {
    const int fd = shm_open(name_.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, size), 0);
    (void)close(fd);
  }

  /// An object of the full size with an owner's pid, not mapped here.
  void put_owned_object(std::int32_t owner) {
    put_object(sizeof(fsfilter_shared_area));
    const int fd = shm_open(name_.c_str(), O_RDWR, 0600);
    ASSERT_EQ(pwrite(fd, &owner, sizeof owner, 68), static_cast<ssize_t>(sizeof owner));
    (void)close(fd);
  }

  /// An area whose lock a process took and never gave back.
  fsfilter_shared_t create_with_dead_holder() {
    fsfilter_shared_t area = create();
    ChildProcess holder(
        [&] { return area->lock.try_lock_for(std::chrono::milliseconds(0)) ? 0 : 1; });
    EXPECT_EQ(holder.wait(), 0);
    return area;
  }

  std::string name_;
};

TEST_F(StatusAreaTest, IsExactly41048BytesAndZeroed) {
  const fsfilter_shared_t area = create();
  ASSERT_NE(area, nullptr);
  struct stat status {};
  ASSERT_EQ(stat(("/dev/shm" + name_).c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 41048);
  EXPECT_EQ(bytes_around_lock(area), std::string(41048 - 24, '\0'));
}

TEST_F(StatusAreaTest, EverybodyMayWriteItWhenNoFileModeMaskForbids) {
  const mode_t before = umask(0);
  ASSERT_NE(create(), nullptr);
  (void)umask(before);
  struct stat status {};
  ASSERT_EQ(stat(("/dev/shm" + name_).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0666U);
}

TEST_F(StatusAreaTest, KeepsPidsAndMaskAtTheirPublicOffsets) {
  const fsfilter_shared_t area = create();
  ASSERT_EQ(fsfilter_shared_add_trusted(area, 111), 0);
  ASSERT_EQ(fsfilter_shared_add_trusted(area, 222), 1);
  area->owner_pid = 333;
  EXPECT_EQ(at_offset<std::int32_t>(area, 0), 111);
  EXPECT_EQ(at_offset<std::int32_t>(area, 4), 222);
  EXPECT_EQ(at_offset<std::uint32_t>(area, 40), 3U);
  EXPECT_EQ(at_offset<std::int32_t>(area, 68), 333);
}

TEST_F(StatusAreaTest, KeepsCountersAndTextsAtTheirPublicOffsets) {
  const fsfilter_shared_t area = create();
  area->statistics.answered = 0x1122334455667788;
  area->statistics.denied = 7;
  area->statistics.jobs[0] = 'j';
  area->inclusions[0] = 'i';
  area->exclusions[0] = 'e';
  area->mounts[10239] = 'm';
  EXPECT_EQ(at_offset<std::uint64_t>(area, 72), 0x1122334455667788U);
  EXPECT_EQ(at_offset<std::uint64_t>(area, 80), 7U);
  EXPECT_EQ(at_offset<char>(area, 88), 'j');
  EXPECT_EQ(at_offset<char>(area, 10328), 'i');
  EXPECT_EQ(at_offset<char>(area, 20568), 'e');
  EXPECT_EQ(at_offset<char>(area, 41047), 'm');
}

TEST_F(StatusAreaTest, KeepsItsLockAtItsPublicOffsetAndWithinItsSize) {
  const fsfilter_shared_t area = create();
  std::string bytes(reinterpret_cast<const char*>(area), sizeof *area);
  ASSERT_TRUE(area->lock.try_lock_for(std::chrono::milliseconds(0)));
  const std::string held(reinterpret_cast<const char*>(area), sizeof *area);
  EXPECT_NE(held, bytes);
  bytes.replace(44, 24, held, 44, 24);
  EXPECT_EQ(held, bytes) << "it wrote beyond its 24 bytes";
}

TEST_F(StatusAreaTest, CreatingFailsWithEexistWhileTheOwnerLives) {
  const fsfilter_shared_t area = create();
  area->owner_pid = getpid();
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), 0);
  errno = 0;
  EXPECT_EQ(create(), nullptr);
  EXPECT_EQ(errno, EEXIST);
}

TEST_F(StatusAreaTest, CreatingFailsWhileNoOwnerIsSetYet) {
  ASSERT_NE(create(), nullptr);
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), 0);
  EXPECT_EQ(create(), nullptr);
  EXPECT_EQ(errno, EEXIST);
}

TEST_F(StatusAreaTest, AnOwnerThatMayNotBeSignalledIsAlive) {
  create()->owner_pid = 1;
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), 0);
}

TEST_F(StatusAreaTest, AnAreaWhoseOwnerDiedIsReplacedByAFreshOne) {
  ChildProcess owner([&] {
    const fsfilter_shared_t area = create();
    std::memset(area, 0xA5, sizeof *area);
    area->owner_pid = getpid();
    return 0;
  });
  ASSERT_EQ(owner.wait(), 0);
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), -1);
  const fsfilter_shared_t area = create();
  ASSERT_NE(area, nullptr);
  EXPECT_EQ(bytes_around_lock(area), std::string(41048 - 24, '\0'));
}

TEST_F(StatusAreaTest, ANegativeOwnerPidIsNobody) {
  create()->owner_pid = -1;  // would mean every process, if it were asked about
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), -1);
  EXPECT_NE(create(), nullptr);
}

TEST_F(StatusAreaTest, AShortObjectIsNotOpened) {
  put_object(41047);
  errno = 0;
  EXPECT_EQ(open_again(), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(StatusAreaTest, AShortObjectIsStaleAndReplaced) {
  put_object(0);
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), -1);
  const fsfilter_shared_t area = create();
  ASSERT_NE(area, nullptr);
  area->mounts[10239] = 'x';
}

TEST_F(StatusAreaTest, AnAreaOfAnotherUserIsStaleAndReplacedAlthoughItsOwnerLives) {
  if (geteuid() != 0) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root";
    GTEST_SKIP() << "needs root, who alone may give a file to another user";
  }
  put_owned_object(getpid());
  ASSERT_EQ(fsfilter_shared_inuse(name_.c_str()), 0);
  const std::string file = "/dev/shm" + name_;
  ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0);
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), -1);
  EXPECT_NE(create(), nullptr);
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, geteuid());
}

TEST_F(StatusAreaTest, AskingWhetherAnAreaIsInUseDoesNotMapIt) {
  put_owned_object(getpid());
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), 0);
  EXPECT_EQ(read_file("/proc/self/maps").find(name_), std::string::npos)
      << "who cuts it off could end this process";
  ASSERT_NE(open_again(), nullptr);
  EXPECT_NE(read_file("/proc/self/maps").find(name_), std::string::npos);
}

TEST_F(StatusAreaTest, AnAreaThatWasCutOffIsRestoredEmptyAndUsable) {
  const fsfilter_shared_t area = create();
  (void)fsfilter_shared_add_trusted(area, 1000);
  ASSERT_EQ(truncate(("/dev/shm" + name_).c_str(), 0), 0);
  EXPECT_TRUE(fsfilter_shared_restore(area));
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), 0);
  area->mounts[10239] = 'x';
}

TEST_F(StatusAreaTest, AMissingObjectIsNeitherOpenedNorInUse) {
  EXPECT_EQ(open_again(), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), -1);
  EXPECT_EQ(fsfilter_shared_exist(name_.c_str()), 0);
}

TEST_F(StatusAreaTest, ExistsOnceItIsCreated) {
  ASSERT_NE(create(), nullptr);
  EXPECT_EQ(fsfilter_shared_exist(name_.c_str()), 1);
}

TEST_F(StatusAreaTest, NoDescriptorStaysOpen) {
  const int before = dup(0);
  ASSERT_NE(create(), nullptr);
  ASSERT_NE(open_again(), nullptr);
  EXPECT_EQ(fsfilter_shared_exist(name_.c_str()), 1);
  EXPECT_EQ(create(), nullptr);
  const int after = dup(0);
  EXPECT_EQ(after, before + 1);
  (void)close(before);
  (void)close(after);
}

TEST_F(StatusAreaTest, ClosingByTheOwnerUnlinksTheName) {
  const fsfilter_shared_t area = create();
  area->owner_pid = getpid();
  EXPECT_EQ(fsfilter_shared_close(name_.c_str(), area), 0);
  EXPECT_EQ(fsfilter_shared_exist(name_.c_str()), 0);
}

TEST_F(StatusAreaTest, ClosingByAnotherProcessLeavesTheName) {
  create()->owner_pid = getpid();
  ChildProcess reader([&] { return fsfilter_shared_close(name_.c_str(), open_again()); });
  EXPECT_EQ(reader.wait(), 0);
  EXPECT_EQ(fsfilter_shared_exist(name_.c_str()), 1);
}

TEST_F(StatusAreaTest, ClosingNullFails) {
  EXPECT_EQ(fsfilter_shared_close(name_.c_str(), nullptr), -1);
  EXPECT_EQ(fsfilter_shared_close(nullptr, create()), -1);
}

TEST_F(StatusAreaTest, AddedPidsTakeTheSlotsInOrder) {
  const fsfilter_shared_t area = create();
  for (int slot = 0; slot < 10; ++slot) {
    EXPECT_EQ(fsfilter_shared_add_trusted(area, 1000 + slot), slot);
    EXPECT_EQ(fsfilter_is_trusted(area, 1000 + slot), 1);
  }
  EXPECT_EQ(area->slot_mask, 0x3FFU);
}

TEST_F(StatusAreaTest, AnEleventhPidIsRefused) {
  const fsfilter_shared_t area = create();
  for (int slot = 0; slot < 10; ++slot) {
    ASSERT_EQ(fsfilter_shared_add_trusted(area, 1000 + slot), slot);
  }
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 2000), -1);
  EXPECT_EQ(fsfilter_is_trusted(area, 2000), 0);
}

TEST_F(StatusAreaTest, AddingAPidAgainGivesItsSlot) {
  const fsfilter_shared_t area = create();
  ASSERT_EQ(fsfilter_shared_add_trusted(area, 1000), 0);
  ASSERT_EQ(fsfilter_shared_add_trusted(area, 1001), 1);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), 1);
  EXPECT_EQ(area->slot_mask, 3U);
}

TEST_F(StatusAreaTest, APidThatStandsBehindAFreeSlotKeepsItsOwn) {
  const fsfilter_shared_t area = create();
  ASSERT_EQ(fsfilter_shared_add_trusted(area, 1000), 0);
  ASSERT_EQ(fsfilter_shared_add_trusted(area, 1001), 1);
  ASSERT_EQ(fsfilter_shared_rm_trusted(area, 1000), 0);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), 1);
  EXPECT_EQ(area->trusted_pids[0], 0);
}

TEST_F(StatusAreaTest, ARemovedPidIsNotTrustedAndItsSlotIsUsedNext) {
  const fsfilter_shared_t area = create();
  for (int pid : {1000, 1001, 1002}) {
    (void)fsfilter_shared_add_trusted(area, pid);
  }
  EXPECT_EQ(fsfilter_shared_rm_trusted(area, 1001), 0);
  EXPECT_EQ(fsfilter_is_trusted(area, 1001), 0);
  EXPECT_EQ(area->slot_mask, 5U);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 2000), 1);
}

TEST_F(StatusAreaTest, RemovingAPidThatIsNotThereChangesNothing) {
  const fsfilter_shared_t area = create();
  (void)fsfilter_shared_add_trusted(area, 1000);
  EXPECT_EQ(fsfilter_shared_rm_trusted(area, 1001), -1);
  EXPECT_EQ(area->slot_mask, 1U);
  EXPECT_EQ(area->trusted_pids[0], 1000);
}

TEST_F(StatusAreaTest, RemovingTogglesTheMaskBitInsteadOfClearingIt) {
  const fsfilter_shared_t area = create();
  area->trusted_pids[4] = 1000;  // by another process, without its bit
  EXPECT_EQ(fsfilter_shared_rm_trusted(area, 1000), 0);
  EXPECT_EQ(area->slot_mask, 1U << 4);
  EXPECT_EQ(area->trusted_pids[4], 0);
}

TEST_F(StatusAreaTest, APidWithoutItsMaskBitIsNotTrusted) {
  const fsfilter_shared_t area = create();
  area->trusted_pids[4] = 1000;
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
}

TEST_F(StatusAreaTest, NullAreasTrustNobody) {
  EXPECT_EQ(fsfilter_shared_add_trusted(nullptr, 1000), -1);
  EXPECT_EQ(fsfilter_shared_rm_trusted(nullptr, 1000), -1);
  EXPECT_EQ(fsfilter_is_trusted(nullptr, 1000), 0);
}

TEST_F(StatusAreaTest, PidZeroAndNegativePidsAreNeverTrusted) {
  const fsfilter_shared_t area = create();
  area->slot_mask = 0x3FF;  // every slot holds 0 and says so
  area->trusted_pids[3] = -5;
  EXPECT_EQ(fsfilter_is_trusted(area, 0), 0);
  EXPECT_EQ(fsfilter_is_trusted(area, -5), 0);
}

TEST_F(StatusAreaTest, PidZeroAndNegativePidsAreNeitherAddedNorRemoved) {
  const fsfilter_shared_t area = create();
  area->trusted_pids[3] = -5;
  for (int pid : {0, -5}) {
    EXPECT_EQ(fsfilter_shared_add_trusted(area, pid), -1) << pid;
    EXPECT_EQ(fsfilter_shared_rm_trusted(area, pid), -1) << pid;
  }
  EXPECT_EQ(area->slot_mask, 0U);
}

TEST_F(StatusAreaTest, MaskBitsAboveTheTenSlotsMeanNothing) {
  const fsfilter_shared_t area = create();
  area->slot_mask = 0xFFFFFFFF;
  area->owner_pid = 4711;  // where slot 17 would be
  area->statistics.answered = 4711;
  EXPECT_EQ(fsfilter_is_trusted(area, 4711), 0);
}

TEST_F(StatusAreaTest, ADeadHolderOfTheLockIsNotWaitedForWithoutABound) {
  const fsfilter_shared_t area = create_with_dead_holder();
  area->trusted_pids[0] = 1000;
  area->slot_mask = 1;
  const auto begin = steady_clock::now();
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), -1);
  EXPECT_EQ(fsfilter_shared_rm_trusted(area, 1000), -1);
  EXPECT_LT(steady_clock::now() - begin, lock_cost_bound);
  EXPECT_EQ(area->trusted_pids[0], 1000);
}

TEST_F(StatusAreaTest, ALockThatIsNeverGivenBackIsWaitedForOnceInAWhile) {
  const fsfilter_shared_t area = create_with_dead_holder();
  area->trusted_pids[0] = 1000;
  area->slot_mask = 1;
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  const auto begin = steady_clock::now();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  }
  EXPECT_LT(steady_clock::now() - begin, lock_cost_bound) << "half of what 100 waits take";
}

TEST_F(StatusAreaTest, AfterAWaitInVainALockThatIsFreeIsStillTaken) {
  const fsfilter_shared_t area = create_with_dead_holder();
  area->trusted_pids[0] = 1000;
  area->slot_mask = 1;
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  area->lock.unlock();
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 1);
}

TEST_F(StatusAreaTest, AScribbledLockIsNotWaitedForWithoutABound) {
  const fsfilter_shared_t area = create();
  (void)fsfilter_shared_add_trusted(area, 1000);
  std::memset(static_cast<void*>(&area->lock), 0xFF, sizeof area->lock);
  const auto begin = steady_clock::now();
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  EXPECT_LT(steady_clock::now() - begin, lock_cost_bound);
}

TEST_F(StatusAreaTest, ALockThatSomebodyKeepsWritingToIsNotWaitedForWithoutABound) {
  const fsfilter_shared_t area = create();
  (void)fsfilter_shared_add_trusted(area, 1000);
  ChildProcess scribbler([&] {
    auto* word = reinterpret_cast<std::uint32_t*>(&area->lock);
    for (;;) {
      std::atomic_ref(*word).store(1, std::memory_order_relaxed);
    }
    return 0;
  });
  auto* word = reinterpret_cast<std::uint32_t*>(&area->lock);
  ASSERT_TRUE(eventually([&] { return std::atomic_ref(*word).load() != 0; }));
  const auto begin = steady_clock::now();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  }
  EXPECT_LT(steady_clock::now() - begin, 2 * lock_cost_bound);
}

TEST_F(StatusAreaTest, APidInNoSlotCostsNoLock) {
  const fsfilter_shared_t area = create_with_dead_holder();
  const std::vector<std::uint32_t> before = lock_words(area);
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  EXPECT_EQ(lock_words(area), before) << "it waited for the lock";
}

TEST_F(StatusAreaTest, ALockThatIsGivenBackIsTaken) {
  const fsfilter_shared_t area = create();
  (void)fsfilter_shared_add_trusted(area, 1000);
  Gate held;
  Gate give_back;
  ChildProcess holder([&] {
    (void)area->lock.try_lock_for(std::chrono::milliseconds(0));
    held.open();
    give_back.wait();
    area->lock.unlock();
    return 0;
  });
  held.wait();
  std::atomic<bool> taken{false};
  const std::vector<std::uint32_t> uncontended = lock_words(area);
  std::thread waiter([&] { taken = area->lock.try_lock_for(generous_bound); });
  // Whoever waits leaves a mark in the lock, to be woken.
  EXPECT_TRUE(eventually([&] { return lock_words(area) != uncontended; }));
  give_back.open();
  waiter.join();
  EXPECT_TRUE(taken);
}

TEST_F(StatusAreaTest, AnotherProcessTrustsAPidThroughTheArea) {
  const fsfilter_shared_t area = create();
  ChildProcess other([&] { return fsfilter_shared_add_trusted(open_again(), 1000); });
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 1);
}

TEST_F(StatusAreaTest, TheLockKeepsProcessesApart) {
  const fsfilter_shared_t area = create();
  auto* counter = reinterpret_cast<volatile int*>(area->statistics.jobs);
  const auto count = [&] {
    for (int i = 0; i < 200000; ++i) {
      if (!area->lock.try_lock_for(generous_bound)) {
        return 1;
      }
      *counter = *counter + 1;
      area->lock.unlock();
    }
    return 0;
  };
  ChildProcess first(count);
  ChildProcess second(count);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(*counter, 600000);
}

TEST_F(StatusAreaTest, TwoProcessesChangeTheTableWithoutLosingAPid) {
  const fsfilter_shared_t area = create();
  const auto churn = [&](int pid) {
    for (int i = 0; i < 2000; ++i) {
      if (fsfilter_shared_add_trusted(area, pid) < 0 || fsfilter_is_trusted(area, pid) != 1 ||
          fsfilter_shared_rm_trusted(area, pid) != 0) {
        return 1;
      }
    }
    return 0;
  };
  ChildProcess other([&] { return churn(1000); });
  EXPECT_EQ(churn(1001), 0);
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(area->slot_mask, 0U);
  EXPECT_TRUE(
      std::all_of(area->trusted_pids, area->trusted_pids + 10, [](int p) { return p == 0; }));
}

// What other programs know on a 32-bit machine: the platform's own mutex, in the lock's place.
#if !defined(__LP64__)

/// The area as a program sees it that shares nothing with this library but the layout.
class ForeignArea {
 public:
  explicit ForeignArea(const std::string& name) {
    const int fd = shm_open(name.c_str(), O_RDWR, 0);
    bytes_ = static_cast<char*>(mmap(nullptr, 41048, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    (void)close(fd);
  }
  ~ForeignArea() { (void)munmap(bytes_, 41048); }
  ForeignArea(const ForeignArea&) = delete;
  ForeignArea& operator=(const ForeignArea&) = delete;

  static_assert(sizeof(pthread_mutex_t) == 24);
  pthread_mutex_t* mutex() { return reinterpret_cast<pthread_mutex_t*>(bytes_ + 44); }

  void put_pid(int slot, std::int32_t pid) {
    std::atomic_ref(reinterpret_cast<std::int32_t*>(bytes_)[slot]) = pid;
    std::atomic_ref(*reinterpret_cast<std::uint32_t*>(bytes_ + 40)) |= 1U << slot;
  }

  /// @return 0, or the error of the wait
  int lock_for_a_moment() {
    timespec until{};
    (void)clock_gettime(CLOCK_REALTIME, &until);
    until.tv_nsec += 100'000'000;
    until.tv_sec += until.tv_nsec / 1'000'000'000;
    until.tv_nsec %= 1'000'000'000;
    return pthread_mutex_timedlock(mutex(), &until);
  }

 private:
  char* bytes_;
};

TEST_F(StatusAreaTest, AnotherProgramTrustsAPidUnderThePlatformsMutex) {
  const fsfilter_shared_t area = create();
  ASSERT_EQ(fsfilter_shared_add_trusted(area, 1000), 0);
  Gate held;
  Gate give_back;
  ChildProcess other([&] {
    ForeignArea foreign(name_);
    if (pthread_mutex_lock(foreign.mutex()) != 0) {
      return 1;
    }
    foreign.put_pid(1, 2000);
    held.open();
    give_back.wait();
    return pthread_mutex_unlock(foreign.mutex());
  });
  held.wait();
  EXPECT_EQ(fsfilter_is_trusted(area, 2000), 0) << "the other one holds the lock";
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), -1);
  give_back.open();
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(fsfilter_is_trusted(area, 2000), 1);
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 1);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), 2);
}

TEST_F(StatusAreaTest, AnotherProgramWaitsAtThePlatformsMutexForTheOwner) {
  const fsfilter_shared_t area = create();
  ASSERT_TRUE(area->lock.try_lock_for(std::chrono::milliseconds(0)));
  const std::vector<std::uint32_t> uncontended = lock_words(area);
  ChildProcess other([&] {
    ForeignArea foreign(name_);
    const bool held = pthread_mutex_trylock(foreign.mutex()) == EBUSY;
    return held && pthread_mutex_lock(foreign.mutex()) == 0 ? 0 : 1;
  });
  EXPECT_TRUE(eventually([&] { return lock_words(area) != uncontended; }));
  area->lock.unlock();
  EXPECT_EQ(other.wait(), 0);
}

TEST_F(StatusAreaTest, AnOwnerThatDiesHoldingThePlatformsMutexStopsNobodyForLong) {
  ChildProcess owner([&] {
    const fsfilter_shared_t area = create();
    (void)fsfilter_shared_add_trusted(area, 1000);
    return area->lock.try_lock_for(std::chrono::milliseconds(0)) ? 0 : 1;
  });
  ASSERT_EQ(owner.wait(), 0);
  EXPECT_EQ(ForeignArea(name_).lock_for_a_moment(), ETIMEDOUT);
  const fsfilter_shared_t area = open_again();
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), -1);
}

TEST_F(StatusAreaTest, AnotherProgramThatDiesHoldingThePlatformsMutexStopsNobodyForLong) {
  const fsfilter_shared_t area = create();
  (void)fsfilter_shared_add_trusted(area, 1000);
  ChildProcess other([&] { return pthread_mutex_lock(ForeignArea(name_).mutex()); });
  ASSERT_EQ(other.wait(), 0);
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), -1);
  EXPECT_EQ(fsfilter_shared_rm_trusted(area, 1000), -1);
  EXPECT_EQ(area->slot_mask, 1U);
}

TEST_F(StatusAreaTest, TheLockKeepsAnotherProgramApart) {
  const fsfilter_shared_t area = create();
  auto* counter = reinterpret_cast<volatile int*>(area->statistics.jobs);
  ChildProcess other([&] {
    ForeignArea foreign(name_);
    for (int i = 0; i < 100000; ++i) {
      (void)pthread_mutex_lock(foreign.mutex());
      *counter = *counter + 1;
      (void)pthread_mutex_unlock(foreign.mutex());
    }
    return 0;
  });
  for (int i = 0; i < 100000; ++i) {
    ASSERT_TRUE(area->lock.try_lock_for(generous_bound));
    *counter = *counter + 1;
    area->lock.unlock();
  }
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(*counter, 200000);
}

#endif

}  // namespace
