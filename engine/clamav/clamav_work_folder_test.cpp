// SPDX-License-Identifier: GPL-2.0-only
// The folder that scans unpack in: whose it is, where it is, and that nobody else's is used.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::IsEmpty;

constexpr const char* kOnDisk = "/var/cache/pelo/engine";

class ClamavWorkFolder : public ClamavEngine {
 protected:
  ~ClamavWorkFolder() override {
    (void)umount("/run/pelo");
    fs::remove_all("/var/cache/pelo");
  }

  /// Something in the folder, as a process leaves it that was killed.
  static fs::path leave_part() {
    fs::create_directories(fs::path(kWorkFolder) / "unpacked");
    write_file(fs::path(kWorkFolder) / "unpacked" / "part", "content");
    return fs::path(kWorkFolder) / "unpacked" / "part";
  }

  /// Whether an engine that is started now unpacks there. The other folder is not even made.
  bool starts_in(const fs::path& folder) {
    for (const char* each : {kWorkFolder, kOnDisk}) {
      fs::remove_all(each);
    }
    restart();
    return make_handle() != nullptr && fs::exists(folder) &&
           fs::exists(kWorkFolder) != fs::exists(kOnDisk);
  }
};

TEST_F(ClamavWorkFolder, IsOpenToNobodyElse) {
  start();
  struct stat status {};
  EXPECT_EQ(stat(kWorkFolder, &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0700U);
  EXPECT_EQ(status.st_uid, 0U);
  EXPECT_THAT(content_of(kWorkFolder), IsEmpty());
}

TEST_F(ClamavWorkFolder, DefinitionsAndScansUseItAndNothingElse) {
  start();
  std::size_t links = 0;
  at_next_link = [&] { links = content_of(kWorkFolder).size(); };
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(links, 1U);
  // With a file in its place nothing can be unpacked.
  fs::remove(kWorkFolder);
  write_file(kWorkFolder, "");
  const std::string archive = gzip_of(tar_with({{"bad", test_file_content()}}));
  EXPECT_THAT(scan_path(handle, file("bad.tar.gz", archive)), IsScanError());
  EXPECT_THAT(scan_path(handle, clean_), IsScanError()) << "nothing is called clean";
  EXPECT_EQ(get_number(handle, VSE_PROP_SCAN_RESULT), VSE_RESULT_ERROR);
  fs::remove(kWorkFolder);
  EXPECT_EQ(scan_path(handle, root_ / "bad.tar.gz"), VSE_SCAN_DETECTED);
}

TEST_F(ClamavWorkFolder, IsMadeAgainWhenItHasGone) {
  start();
  const VSEHANDLE handle = make_handle();
  for (const fs::path& gone : {fs::path(kWorkFolder), fs::path(kWorkFolder).parent_path()}) {
    fs::remove_all(gone);
    EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
    EXPECT_EQ(fs::status(kWorkFolder).permissions(), fs::perms(0700));
    fs::remove_all(gone);
    EXPECT_EQ(vsePrepare(VSE_INIT_BASE, BUNDLED_DEFINITIONS), VSE_OK);
  }
}

TEST_F(ClamavWorkFolder, ScanIsRepeatedIfTheFolderWentMeanwhile) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path archive = file("bad.tar.gz", gzip_of(tar_with({{"bad", test_file_content()}})));
  int begun = 0;
  at_next_read = [&] {
    ++begun;
    fs::remove_all(kWorkFolder);
    at_next_read = [&] { ++begun; };
  };
  EXPECT_EQ(scan_path(handle, archive), VSE_SCAN_DETECTED);
  EXPECT_EQ(begun, 2);
  at_next_read = nullptr;
}

TEST_F(ClamavWorkFolder, FolderOfAnotherUserInItsPlaceIsNotUsed) {
  start();
  const VSEHANDLE handle = make_handle();
  fs::remove(kWorkFolder);
  fs::create_directory(kWorkFolder);
  ASSERT_EQ(chown(kWorkFolder, 12345, 12345), 0);
  EXPECT_THAT(scan_path(handle, bad_), IsScanError());
  fs::remove(kWorkFolder);
  fs::create_directory(root_ / "elsewhere");
  fs::create_directory_symlink(root_ / "elsewhere", kWorkFolder);
  EXPECT_THAT(scan_path(handle, bad_), IsScanError());
  fs::remove(kWorkFolder);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
}

TEST_F(ClamavWorkFolder, IsEmptiedAtTheStartUnlessAnotherProcessUsesIt) {
  const fs::path part = leave_part();
  const int other = open(kWorkFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(other, LOCK_SH), 0);
  start();
  EXPECT_TRUE(fs::exists(part));
  close(other);
  restart();
  EXPECT_THAT(content_of(kWorkFolder), IsEmpty());
  const int another = open(kWorkFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_NE(flock(another, LOCK_EX | LOCK_NB), 0) << "so that others see that this process lives";
  close(another);
}

TEST_F(ClamavWorkFolder, DirectoriesThatOthersCouldRenameSomethingInAreNotTaken) {
  start();
  EXPECT_TRUE(starts_in(kWorkFolder));
  for (const char* directory : {"/run/pelo", "/run"}) {
    for (const unsigned mode : {0777U, 0775U, 01777U}) {
      fs::permissions(directory, fs::perms(mode));
      EXPECT_TRUE(starts_in(kOnDisk)) << directory << mode;
    }
    fs::permissions(directory, fs::perms(0755));
    ASSERT_EQ(chown(directory, 12345, 12345), 0);
    EXPECT_TRUE(starts_in(kOnDisk)) << directory;
    ASSERT_EQ(chown(directory, 0, 0), 0);
    EXPECT_TRUE(starts_in(kWorkFolder)) << directory;
  }
  fs::permissions("/run/pelo", fs::perms(0777));
  fs::permissions("/var/cache/pelo", fs::perms(0777));
  EXPECT_EQ(vseGlobalRelease(), VSE_OK);
  EXPECT_NE(vseGlobalInit(nullptr), VSE_OK) << "there is no third place";
  fs::permissions("/run/pelo", fs::perms(0755));
  EXPECT_EQ(vseGlobalInit(nullptr), VSE_OK);
}

TEST_F(ClamavWorkFolder, IsInMemoryOnlyWhereThatHasRoomAndABound) {
  fs::create_directory("/run/pelo");
  start();
  for (const char* size : {"size=1023m", "size=1k"}) {
    ASSERT_EQ(mount("tmpfs", "/run/pelo", "tmpfs", 0, size), 0);
    fs::permissions("/run/pelo", fs::perms(0755));
    EXPECT_TRUE(starts_in(kOnDisk)) << size;
    ASSERT_EQ(umount("/run/pelo"), 0);
  }
  ASSERT_EQ(mount("ramfs", "/run/pelo", "ramfs", 0, "mode=0755"), 0);
  EXPECT_TRUE(starts_in(kOnDisk));
  ASSERT_EQ(umount("/run/pelo"), 0);
  EXPECT_TRUE(starts_in(kWorkFolder));
}

}  // namespace
}  // namespace engine_test
