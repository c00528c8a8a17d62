// SPDX-License-Identifier: GPL-2.0-only
// The folder that scans unpack in: whose it is, where it is, and that nobody else's is used.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::IsEmpty;

constexpr const char* on_disk = "/var/cache/pelo/engine";

class ClamavWorkFolder : public ClamavEngine {
 protected:
  /// Whether an engine that is started now unpacks there. The other folder is not even made.
  bool starts_in(const fs::path& folder) {
    for (const char* each : {work_folder, on_disk}) {
      fs::remove_all(each);
    }
    reopen();
    return fs::exists(folder) && fs::exists(work_folder) != fs::exists(on_disk);
  }

  /// Something that has to be unpacked.
  static std::string packed() { return gzip_of(tar_with({{"bad", standard_test_file()}})); }
};

TEST_F(ClamavWorkFolder, DefinitionsAreLinkedInItAndNobodyElseCanOpenIt) {
  EXPECT_EQ(fs::status(work_folder).permissions(), fs::perms(0700));
  std::size_t links = 0;
  at_next_link = [&] { links = content_of(work_folder).size(); };
  reopen();
  EXPECT_EQ(links, 1U);
}

TEST_F(ClamavWorkFolder, IsMadeAgainWhenItHasGone) {
  for (const fs::path& gone : {fs::path(work_folder), fs::path(work_folder).parent_path()}) {
    fs::remove_all(gone);
    EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED);
    EXPECT_EQ(fs::status(work_folder).permissions(), fs::perms(0700));
    fs::remove_all(gone);
    EXPECT_NE(make_handle(BUNDLED_DEFINITIONS), nullptr);
  }
}

TEST_F(ClamavWorkFolder, ScanIsRepeatedOnlyIfTheFolderWentMeanwhile) {
  EXPECT_EQ(scan("harmless content"), VSE_SCAN_CLEAN);
  EXPECT_EQ(passes, 1);
  EXPECT_EQ(mount("tmpfs", work_folder, "tmpfs", MS_RDONLY, "mode=0700"), 0);
  EXPECT_THAT(scan(packed()), IsScanError()) << "nothing can be unpacked";
  EXPECT_EQ(passes, 1);
  EXPECT_EQ(umount(work_folder), 0);
  at_next_read = [] { fs::remove_all(work_folder); };
  EXPECT_EQ(scan(packed()), VSE_SCAN_DETECTED);
  EXPECT_EQ(passes, 2);
  at_next_read = [] {
    fs::remove_all(work_folder);
    EXPECT_EQ(mkdir(work_folder, 0700), 0);
  };
  EXPECT_EQ(scan("harmless content"), VSE_SCAN_CLEAN);
  EXPECT_EQ(passes, 2) << "made again by somebody else";
}

TEST_F(ClamavWorkFolder, WhatIsInItsPlaceIsNotUsedAndNothingCalledClean) {
  const std::vector<std::function<void()>> placing = {
      [] { write_file(work_folder, ""); },
      [this] { fs::create_directory_symlink(staging_, work_folder); },
      [] {
        fs::create_directory(work_folder);
        EXPECT_EQ(chown(work_folder, 12345, 12345), 0);
      },
  };
  for (const auto& place : placing) {
    fs::remove(work_folder);
    place();
    for (const std::string& content : {packed(), std::string("harmless content")}) {
      EXPECT_THAT(scan(content), IsScanError());
      EXPECT_EQ(result(), VSE_RESULT_ERROR);
    }
  }
  fs::remove(work_folder);
  EXPECT_EQ(scan(packed()), VSE_SCAN_DETECTED);
}

TEST_F(ClamavWorkFolder, IsEmptiedAtTheStartUnlessAnotherProcessHasIt) {
  const fs::path lock = fs::path(work_folder).replace_extension("lock");
  EXPECT_EQ(fs::status(lock).permissions(), fs::perms(0600)) << "nobody's but root's";
  const int own = open(lock.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_NE(flock(own, LOCK_SH | LOCK_NB), 0) << "so that others see that this process lives";
  close(own);
  fs::remove(lock);
  const int other = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(other, LOCK_SH), 0);
  // As a process leaves it that was killed.
  const fs::path part = fs::path(work_folder) / "unpacked" / "part";
  fs::create_directory(part.parent_path());
  write_file(part, "content");
  reopen();
  EXPECT_TRUE(fs::exists(on_disk) && fs::exists(part));
  close(other);
  reopen();
  EXPECT_THAT(content_of(work_folder), IsEmpty());
}

TEST_F(ClamavWorkFolder, DirectoriesThatOthersCouldRenameSomethingInAreNotTaken) {
  for (const char* directory : {"/run/pelo", "/run"}) {
    for (const unsigned mode : {0777U, 0775U, 01777U}) {
      fs::permissions(directory, fs::perms(mode));
      EXPECT_TRUE(starts_in(on_disk)) << directory << mode;
    }
    fs::permissions(directory, fs::perms(0755));
    ASSERT_EQ(chown(directory, 12345, 12345), 0);
    EXPECT_TRUE(starts_in(on_disk)) << directory;
    ASSERT_EQ(chown(directory, 0, 0), 0);
    EXPECT_TRUE(starts_in(work_folder)) << directory;
  }
  fs::permissions("/run/pelo", fs::perms(0777));
  fs::permissions("/var/cache/pelo", fs::perms(0777));
  stop();
  EXPECT_NE(vseGlobalInit(nullptr), VSE_OK) << "there is no third place";
  fs::permissions("/run/pelo", fs::perms(0755));
  start();
}

TEST_F(ClamavWorkFolder, IsInMemoryOnlyWhereThatHasRoomAndABound) {
  const auto expect_too_small = [this](const char* type, const char* options) {
    EXPECT_EQ(mount(type, "/run/pelo", type, 0, options), 0);
    EXPECT_TRUE(starts_in(on_disk)) << options;
    EXPECT_EQ(umount("/run/pelo"), 0);
  };
  expect_too_small("tmpfs", "mode=0755,size=1023m");
  expect_too_small("tmpfs", "mode=0755,size=1k");
  expect_too_small("ramfs", "mode=0755");
  EXPECT_TRUE(starts_in(work_folder));
}

}  // namespace
}  // namespace engine_test
