#include "fsfilter_shmem.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "child_process.h"
#include "status_area_test.h"
#include "temp_directory.h"

namespace {

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

}  // namespace
