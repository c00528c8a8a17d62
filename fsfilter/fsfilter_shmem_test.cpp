#include "fsfilter_shmem.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "child_process.h"
#include "status_area_fixture.h"
#include "temp_directory.h"

namespace {
bool killed_before_the_name = false;
}  // namespace

// Stands before the C library's in this program: the moment at which an object gets its name.
extern "C" int renameat2(int from_folder, const char* from, int to_folder, const char* to,
                         unsigned flags) noexcept {
  if (killed_before_the_name) {
    (void)raise(SIGKILL);
  }
  return static_cast<int>(syscall(SYS_renameat2, from_folder, from, to_folder, to, flags));
}

namespace {

constexpr uid_t nobody = 65534;

/// The whole area but its lock, which has an initial state of the platform's.
std::string bytes_around_lock(const fsfilter_shared_area* area) {
  return std::string(reinterpret_cast<const char*>(area), sizeof *area).erase(44, 24);
}

TEST_F(StatusAreaTest, IsExactly41048BytesZeroedAndEverybodysToWrite) {
  const mode_t before = umask(0);
  const fsfilter_shared_t area = create();
  (void)umask(before);
  ASSERT_NE(area, nullptr);
  struct stat status {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 41048);
  EXPECT_EQ(status.st_mode & 07777, 0666U) << "no file mode mask forbids it";
  EXPECT_EQ(bytes_around_lock(area), std::string(41048 - 24, '\0'));
}

TEST_F(StatusAreaTest, CreatingFailsWhileTheOwnerLivesOrIsNotSetYet) {
  const fsfilter_shared_t area = create();
  for (const pid_t owner : {0, getpid()}) {
    area->owner_pid = owner;
    EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), 0);
    errno = 0;
    EXPECT_EQ(create(), nullptr);
    EXPECT_EQ(errno, EEXIST);
  }
}

/// The content of an area in which everything but its owner is scribbled.
std::string area_of(std::int32_t owner) {
  std::string bytes(sizeof(fsfilter_shared_area), '\xA5');
  return bytes.replace(68, sizeof owner, reinterpret_cast<const char*>(&owner), sizeof owner);
}

/// What has the name under which an object was made, or which it lost.
std::vector<std::filesystem::path> nameless_objects(const std::string& file) {
  std::vector<std::filesystem::path> found;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
    if (entry.path().string().starts_with(file + ".")) {
      found.push_back(entry);
    }
  }
  return found;
}

// What another user, or a daemon that was killed, may have left.
TEST_F(StatusAreaTest, WhatStandsUnderItsNameIsReplacedByAFreshOne) {
  const std::string path = file();
  ChildProcess ended([] { return 0; });
  ASSERT_EQ(ended.wait(), 0);
  struct {
    const char* what;
    std::function<void()> put;
  } const leftovers[] = {
      {"a folder", [&] { ASSERT_EQ(mkdir(path.c_str(), 0700), 0); }},
      {"a folder with something in it",
       [&] { std::filesystem::create_directories(path + "/a/b/c"); }},
      {"a link", [&] { ASSERT_EQ(symlink("/", path.c_str()), 0); }},
      {"a pipe", [&] { ASSERT_EQ(mkfifo(path.c_str(), 0666), 0); }},
      {"a short file", [&] { std::ofstream(path) << "x"; }},
      {"an area of a process that has ended", [&] { std::ofstream(path) << area_of(ended.pid()); }},
      {"an area of process 1, which never ends", [&] { std::ofstream(path) << area_of(1); }},
      {"an area of whoever has the owner's pid now",
       [&] { std::ofstream(path) << area_of(getpid()); }},
      {"an area of nobody, whose maker was killed", [&] { std::ofstream(path) << area_of(0); }},
      {"an area of every process", [&] { std::ofstream(path) << area_of(-1); }},
  };
  for (const auto& [what, put] : leftovers) {
    SCOPED_TRACE(what);
    put();
    EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), -1);
    const fsfilter_shared_t area = create();
    ASSERT_NE(area, nullptr) << std::strerror(errno);
    EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), 0);
    EXPECT_EQ(bytes_around_lock(area), std::string(41048 - 24, '\0'));
    for (const std::filesystem::path& left : nameless_objects(path)) {
      EXPECT_TRUE(is_directory(left)) << left;
      EXPECT_GT(std::filesystem::remove_all(left), 1U) << "an empty folder is left";
    }
    EXPECT_EQ(shm_unlink(name_.c_str()), 0);
  }
}

TEST_F(StatusAreaTest, SomebodyWhoKeepsMakingTheObjectCannotKeepItFromBeingMade) {
  Gate running;
  ChildProcess maker([&] {
    const std::string path = file();
    for (int i = 0;; ++i) {
      (void)(i % 2 == 0 ? mkdir(path.c_str(), 0700) : mkfifo(path.c_str(), 0600));
      running.open();
    }
    return 0;
  });
  running.wait();
  for (int i = 0; i < 200; ++i) {
    const fsfilter_shared_t area = create();
    ASSERT_NE(area, nullptr) << std::strerror(errno) << " at start " << i;
    area->owner_pid = getpid();
    ASSERT_EQ(fsfilter_shared_close(name_.c_str(), area), 0);
  }
  maker.kill_and_reap();
  std::filesystem::remove(file());
}

TEST_F(StatusAreaTest, WhatAMakerThatWasKilledBeforehandLeavesHarmsNobody) {
  ChildProcess maker([&] {
    killed_before_the_name = true;
    return create() == nullptr ? 1 : 0;
  });
  EXPECT_EQ(maker.wait(), -1);
  EXPECT_EQ(fsfilter_shared_exist(name_.c_str()), 0);
  EXPECT_NE(create(), nullptr) << std::strerror(errno);
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), 0);
  const std::vector<std::filesystem::path> left = nameless_objects(file());
  ASSERT_EQ(left.size(), 1U) << "it is left alone";
  EXPECT_EQ(std::filesystem::file_size(left[0]), sizeof(fsfilter_shared_area));
  EXPECT_TRUE(std::filesystem::remove(left[0]));
}

TEST_F(StatusAreaTest, AnAreaOfAnotherUserIsStaleAndReplacedAlthoughItsOwnerLives) {
  if (geteuid() != 0) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root";
    GTEST_SKIP() << "needs root, who alone may give a file to another user";
  }
  create()->owner_pid = getpid();
  ASSERT_EQ(fsfilter_shared_inuse(name_.c_str()), 0);
  ASSERT_EQ(chown(file().c_str(), 65534, 65534), 0);
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), -1);
  EXPECT_NE(create(), nullptr);
  struct stat status {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, geteuid());
}

TEST_F(StatusAreaTest, AProcessThatMapsItIsItsOwnerOnlyIfItIsOfOurUser) {
  if (geteuid() != 0) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root";
    GTEST_SKIP() << "needs root, to become somebody else";
  }
  for (const uid_t user : {geteuid(), nobody}) {
    const fsfilter_shared_t area = create();
    ASSERT_EQ(chmod(file().c_str(), 0666), 0) << "whatever the file mode mask";
    Gate mapped;
    const ChildProcess other([&] {
      (void)munmap(area, sizeof *area);
      const bool maps = setresuid(user, user, user) == 0 && open_again() != nullptr;
      mapped.open();
      return maps ? pause() : 1;
    });
    mapped.wait();
    const int in_use = user == geteuid() ? 0 : -1;
    area->owner_pid = other.pid();
    EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), in_use) << user;
    area->owner_pid = 0;  // anybody may be
    (void)munmap(area, sizeof *area);
    EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), in_use) << user;
    EXPECT_EQ(shm_unlink(name_.c_str()), 0);
  }
}

TEST_F(StatusAreaTest, NoDescriptorStaysOpen) {
  const int before = dup(0);
  ASSERT_NE(create(), nullptr);
  ASSERT_NE(open_again(), nullptr);
  EXPECT_EQ(fsfilter_shared_exist(name_.c_str()), 1);
  EXPECT_EQ(create(), nullptr);
  const auto status = std::make_unique<fsfilter_status_struct>();
  EXPECT_EQ(fsfilter_shared_read(name_.c_str(), status.get()), 0);
  const int after = dup(0);
  EXPECT_EQ(after, before + 1);
  (void)close(before);
  (void)close(after);
}

TEST_F(StatusAreaTest, TheOwnersCloseAloneUnlinksTheName) {
  EXPECT_EQ(open_again(), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(fsfilter_shared_inuse(name_.c_str()), -1);
  const fsfilter_shared_t area = create();
  area->owner_pid = getpid();
  ChildProcess reader([&] { return fsfilter_shared_close(name_.c_str(), open_again()); });
  EXPECT_EQ(reader.wait(), 0);
  EXPECT_EQ(fsfilter_shared_exist(name_.c_str()), 1);
  EXPECT_EQ(fsfilter_shared_close(nullptr, area), -1);
  EXPECT_EQ(fsfilter_shared_close(name_.c_str(), nullptr), -1);
  EXPECT_EQ(fsfilter_shared_close(name_.c_str(), area), 0);
  EXPECT_EQ(fsfilter_shared_exist(name_.c_str()), 0);
}

TEST_F(StatusAreaTest, AddedPidsTakeTheSlotsInOrder) {
  const fsfilter_shared_t area = create();
  for (int slot = 0; slot < 10; ++slot) {
    EXPECT_EQ(fsfilter_shared_add_trusted(area, 1000 + slot), slot);
    EXPECT_EQ(fsfilter_is_trusted(area, 1000 + slot), 1);
  }
  EXPECT_EQ(area->slot_mask, 0x3FFU);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 2000), -1) << "there is no eleventh";
  EXPECT_EQ(fsfilter_is_trusted(area, 2000), 0);
}

TEST_F(StatusAreaTest, ARemovedPidIsNotTrustedAndItsSlotIsUsedNext) {
  const fsfilter_shared_t area = create();
  for (int pid : {1000, 1001, 1002}) {
    (void)fsfilter_shared_add_trusted(area, pid);
  }
  EXPECT_EQ(fsfilter_shared_rm_trusted(area, 1001), 0);
  EXPECT_EQ(fsfilter_shared_rm_trusted(area, 1001), -1) << "it is not there any more";
  EXPECT_EQ(fsfilter_is_trusted(area, 1001), 0);
  EXPECT_EQ(area->slot_mask, 5U);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1002), 2) << "it has its slot, behind a free one";
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 2000), 1);
}

TEST_F(StatusAreaTest, RemovingTogglesTheMaskBitInsteadOfClearingIt) {
  const fsfilter_shared_t area = create();
  area->trusted_pids[4] = 1000;  // by another process, without its bit
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  EXPECT_EQ(fsfilter_shared_rm_trusted(area, 1000), 0);
  EXPECT_EQ(area->slot_mask, 1U << 4);
  EXPECT_EQ(area->trusted_pids[4], 0);
}

TEST_F(StatusAreaTest, NullAreasPidZeroAndNegativePidsAreRefused) {
  const fsfilter_shared_t area = create();
  area->slot_mask = 0x3FF;  // every slot holds 0 and says so
  area->trusted_pids[3] = -5;
  EXPECT_EQ(fsfilter_shared_add_trusted(nullptr, 1000), -1);
  EXPECT_EQ(fsfilter_shared_rm_trusted(nullptr, 1000), -1);
  EXPECT_EQ(fsfilter_is_trusted(nullptr, 1000), 0);
  for (int pid : {0, -5}) {
    EXPECT_EQ(fsfilter_is_trusted(area, pid), 0) << pid;
    EXPECT_EQ(fsfilter_shared_add_trusted(area, pid), -1) << pid;
    EXPECT_EQ(fsfilter_shared_rm_trusted(area, pid), -1) << pid;
  }
  EXPECT_EQ(area->slot_mask, 0x3FFU);
}

TEST_F(StatusAreaTest, MaskBitsAboveTheTenSlotsMeanNothing) {
  const fsfilter_shared_t area = create();
  area->slot_mask = 0xFFFFFFFF;
  area->owner_pid = 4711;  // where slot 17 would be
  area->statistics.answered = 4711;
  EXPECT_EQ(fsfilter_is_trusted(area, 4711), 0);
}

}  // namespace
