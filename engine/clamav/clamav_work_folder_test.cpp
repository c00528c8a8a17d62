// SPDX-License-Identifier: GPL-2.0-only
// The folder that scans unpack in: whose it is, where it is, and that it goes.
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

std::vector<std::string> names_in(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

class ClamavWorkFolder : public ClamavEngine {
 protected:
  /// A folder with something in it, as a process leaves it that was killed.
  fs::path leave_folder(const std::string& name) const {
    const fs::path folder = base_ / name;
    fs::create_directories(folder / "unpacked");
    fs::permissions(folder, fs::perms(0700));
    write_file(folder / "unpacked" / "part", "content");
    return folder;
  }

  fs::path work_folder() const { return fs::directory_iterator(base_)->path(); }

  static bool is_locked(const fs::path& folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool locked = flock(fd, LOCK_EX | LOCK_NB) != 0;
    close(fd);
    return locked;
  }

  /// Puts an empty directory of this process's own in the place of one of the machine's.
  static void cover(const char* directory) {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", directory, "tmpfs", 0, nullptr), 0);
  }

  const fs::path base_ = root_ / "temporary";
};

TEST_F(ClamavWorkFolder, IsOpenToNobodyElseAndGoesWithTheEngine) {
  ASSERT_EQ(vseGlobalInit(nullptr), VSE_OK);
  EXPECT_THAT(names_in(base_), ElementsAre(StartsWith("pelo-engine-")));
  struct stat status {};
  EXPECT_EQ(stat(work_folder().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0700U);
  EXPECT_EQ(status.st_uid, geteuid());
  write_file(work_folder() / "part", "left over by a scan that hangs");
  EXPECT_EQ(vseGlobalRelease(), VSE_OK);
  EXPECT_THAT(names_in(base_), IsEmpty());
}

TEST_F(ClamavWorkFolder, DefinitionsAndScansUseItAndNothingElse) {
  start();
  const fs::path folder = work_folder();
  std::size_t folders = 0;
  std::size_t inside = 0;
  at_next_link = [&] {
    folders = names_in(base_).size();
    inside = names_in(work_folder()).size();
  };
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(folders, 1U);
  EXPECT_EQ(inside, 1U);
  // With a file in its place nothing can be unpacked.
  fs::remove(folder);
  write_file(folder, "");
  const std::string archive = gzip_of(tar_with({{"bad", test_file_content()}}));
  EXPECT_THAT(scan_path(handle, file("bad.tar.gz", archive)), IsScanError());
  fs::remove(folder);
  EXPECT_EQ(scan_path(handle, root_ / "bad.tar.gz"), VSE_SCAN_DETECTED);
  EXPECT_THAT(names_in(work_folder()), IsEmpty());
}

TEST_F(ClamavWorkFolder, IsMadeAgainWhenItHasGone) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path folder = work_folder();
  fs::remove(folder);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
  EXPECT_EQ(work_folder(), folder);
  EXPECT_TRUE(is_locked(folder));
  EXPECT_EQ(vseRelease(handle), VSE_OK);
  restart();
  fs::remove(work_folder());
  EXPECT_NE(make_handle(), nullptr);
}

TEST_F(ClamavWorkFolder, WhatADeadProcessLeftIsRemoved) {
  const fs::path leftover = leave_folder("pelo-engine-dead00");
  start();
  EXPECT_FALSE(fs::exists(leftover));
}

TEST_F(ClamavWorkFolder, WhatOnlyLooksLikeALeftoverStays) {
  const fs::path others = leave_folder("pelo-engine-other-kind");
  const fs::path open_to_all = leave_folder("pelo-engine-open00");
  fs::permissions(open_to_all, fs::perms(0755));
  const fs::path elsewhere = leave_folder("elsewhere");
  fs::create_directory_symlink(elsewhere, base_ / "pelo-engine-link00");
  start();
  for (const fs::path& folder : {others, open_to_all, elsewhere}) {
    EXPECT_TRUE(fs::exists(folder / "unpacked" / "part")) << folder;
    fs::remove_all(folder);
  }
  fs::remove(base_ / "pelo-engine-link00");
}

TEST_F(ClamavWorkFolder, LeftoverOfAnotherUserStays) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root, to make a folder of another user";
  }
  const fs::path others = leave_folder("pelo-engine-others");
  ASSERT_EQ(chown(others.c_str(), 12345, 12345), 0);
  start();
  EXPECT_TRUE(fs::exists(others / "unpacked" / "part"));
  fs::remove_all(others);
}

TEST_F(ClamavWorkFolder, FolderOfALivingProcessStays) {
  const fs::path living = leave_folder("pelo-engine-living");
  const int fd = open(living.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  start();
  EXPECT_TRUE(fs::exists(living / "unpacked" / "part"));
  close(fd);
  restart();
  EXPECT_FALSE(fs::exists(living));
  EXPECT_TRUE(is_locked(work_folder())) << "so that others see that this process lives";
}

TEST_F(ClamavWorkFolder, DirectoriesThatOthersCouldRenameSomethingInAreNotTaken) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root, to give directories away, and to have others to fall back on";
  }
  cover("/var/cache");
  const fs::path outer = root_ / "outer";
  const fs::path within = outer / "within";
  fs::create_directories(within);
  setenv("TMPDIR", within.c_str(), 1);
  start();
  const auto taken = [&] {
    restart();
    return !names_in(within).empty();
  };
  EXPECT_TRUE(taken());
  for (const fs::path& directory : {within, outer}) {
    for (const unsigned mode : {0777U, 0775U}) {
      fs::permissions(directory, fs::perms(mode));
      EXPECT_FALSE(taken()) << directory << mode;
      fs::permissions(directory, fs::perms(mode | 01000U));
      EXPECT_TRUE(taken()) << directory << mode;
    }
    fs::permissions(directory, fs::perms(0755));
    ASSERT_EQ(chown(directory.c_str(), 12345, 12345), 0);
    EXPECT_FALSE(taken()) << directory;
    ASSERT_EQ(chown(directory.c_str(), 0, 0), 0);
  }
}

TEST_F(ClamavWorkFolder, WithoutTmpdirItIsInTheCacheAndElseInTmp) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root, to make the directory in /var/cache";
  }
  cover("/var/cache");
  cover("/tmp");
  unsetenv("TMPDIR");
  start();
  EXPECT_THAT(names_in("/var/cache/pelo"), ElementsAre(StartsWith("pelo-engine-")));
  fs::permissions("/var/cache/pelo", fs::perms(0777));
  restart();
  EXPECT_THAT(names_in("/var/cache/pelo"), IsEmpty());
  EXPECT_THAT(names_in("/tmp"), ElementsAre(StartsWith("pelo-engine-")));
  fs::permissions("/var/cache/pelo", fs::perms(0755));
  restart();
  ASSERT_EQ(umount("/tmp"), 0);
}

}  // namespace
}  // namespace engine_test
