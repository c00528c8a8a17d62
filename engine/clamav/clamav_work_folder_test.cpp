// SPDX-License-Identifier: GPL-2.0-only
// The folder that scans unpack in: whose it is, where it is, and that it goes.
#include <fcntl.h>
#include <sys/file.h>
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
    write_file(folder / "unpacked" / "part", "content");
    return folder;
  }

  fs::path work_folder() const { return fs::directory_iterator(base_)->path(); }

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

TEST_F(ClamavWorkFolder, ScansUnpackInItAndNowhereElse) {
  start();
  const VSEHANDLE handle = make_handle();
  const std::string archive = gzip_of(tar_with({{"bad", test_file_content()}}));
  EXPECT_EQ(scan_path(handle, file("bad.tar.gz", archive)), VSE_SCAN_DETECTED);
  EXPECT_THAT(names_in(work_folder()), IsEmpty());
  fs::remove(work_folder());
  EXPECT_THAT(scan_path(handle, root_ / "bad.tar.gz"), IsScanError());
}

TEST_F(ClamavWorkFolder, WhatADeadProcessLeftIsRemoved) {
  const fs::path leftover = leave_folder("pelo-engine-dead00");
  const fs::path others = leave_folder("others");
  start();
  EXPECT_FALSE(fs::exists(leftover));
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
}

TEST_F(ClamavWorkFolder, LinkAndFolderOfAnotherUserAreNoLeftovers) {
  const fs::path elsewhere = root_ / "elsewhere";
  fs::create_directory(elsewhere);
  write_file(elsewhere / "part", "content");
  fs::create_directory_symlink(elsewhere, base_ / "pelo-engine-link00");
  const fs::path others = leave_folder("pelo-engine-others");
  if (chown(others.c_str(), 12345, 12345) != 0) {
    GTEST_SKIP() << "needs root, to make a folder of another user";
  }
  start();
  EXPECT_TRUE(fs::exists(elsewhere / "part"));
  EXPECT_TRUE(fs::exists(others / "unpacked" / "part"));
  fs::remove_all(others);
  fs::remove(base_ / "pelo-engine-link00");
}

TEST_F(ClamavWorkFolder, DirectoryThatOthersCouldRenameItInIsNotTaken) {
  fs::permissions(base_, fs::perms(0777));
  start();
  EXPECT_THAT(names_in(base_), IsEmpty());
  EXPECT_EQ(scan_path(make_handle(), bad_), VSE_SCAN_DETECTED);
  fs::permissions(base_, fs::perms(01777));
  restart();
  EXPECT_THAT(names_in(base_), ElementsAre(StartsWith("pelo-engine-")));
}

}  // namespace
}  // namespace engine_test
