// Detections whose file the daemon removes, and the files it must never remove.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "fixture.h"

namespace e2e {
namespace {

class Removal : public E2eTest {
 protected:
  std::string put_to_remove(const std::string& name, const std::string& more = "") const {
    return put(name, more + "!detect code=7\n");
  }

  /// Starts an open of `file` whose scan does not end before `release()`.
  Process open_held(const std::string& file) {
    Process opener = start_open(file);
    EXPECT_TRUE(eventually([&] { return scans_begun(file) == 1; }));
    return opener;
  }
  std::string waiting() const { return "!wait " + work("go") + "\n"; }
  void release() const { touch(work("go")); }

  /// For tests with one worker: it answers this file after it has done with the ones before.
  void settle() { EXPECT_EQ(open_status(put_clean("settled")), 0); }
};

// labels: essential
TEST_F(Removal, FileIsRefusedAndRemoved) {
  const std::string linked = put_to_remove("linked");
  ASSERT_EQ(symlink(linked.c_str(), watched("link").c_str()), 0);
  const std::string names[] = {"bad",         "with blank", "with\nnewline",
                               "quote\"'&<>", "per%s%n",    "-rf"};
  for (const std::string& name : names) {
    put_to_remove(name);
  }
  start();
  for (const std::string& name : names) {
    EXPECT_EQ(open_status(watched(name)), EPERM) << name;
    EXPECT_TRUE(eventually([&] { return !World::exists(watched(name)); })) << name;
  }
  EXPECT_EQ(write_status(watched("new"), "!detect code=7\n"), 0);
  EXPECT_TRUE(eventually([&] { return !World::exists(watched("new")); }));
  EXPECT_EQ(open_status(watched("link")), EPERM);
  EXPECT_TRUE(eventually([&] { return !World::exists(linked); }));
  EXPECT_TRUE(World::exists(watched("link"))) << "the link is not the file that was found bad";
}

TEST_F(Removal, PathIsScannedAnewWhenItIsUsedAgain) {
  const std::string file = put_clean("file");
  set_threads(1);
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(write_status(file, "!detect code=7\n"), 0);
  ASSERT_TRUE(eventually([&] { return !World::exists(file); }));
  settle();
  const size_t before = scans_begun(file);
  put_infected("file");
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_EQ(scans_begun(file), before + 1);
}

TEST_F(Removal, FileThatCannotBeRemovedIsStillRefused) {
  const std::string file = put_to_remove("bad");
  ASSERT_EQ(mount("none", watched().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
            0);
  set_threads(1);
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(World::exists(file));
}

TEST_F(Removal, FilePutInItsPlaceDuringTheScanIsKept) {
  const std::string file = put_to_remove("bad", waiting());
  set_threads(1);
  start();
  Process opener = open_held(file);
  ASSERT_EQ(rename(file.c_str(), watched("moved").c_str()), 0);
  put_clean("bad");
  release();
  EXPECT_EQ(opener.status(), EPERM);
  settle();
  EXPECT_EQ(world().read(file), "clean\n") << "an innocent file was removed";
}

TEST_F(Removal, FileBehindAFolderSwappedForALinkIsKept) {
  World::make_folder(watched("folder"));
  World::make_folder(watched("other"));
  const std::string file = put_to_remove("folder/name", waiting());
  const std::string innocent = put_clean("other/name");
  set_threads(1);
  start();
  Process opener = open_held(file);
  ASSERT_EQ(rename(watched("folder").c_str(), watched("moved").c_str()), 0);
  ASSERT_EQ(symlink(watched("other").c_str(), watched("folder").c_str()), 0);
  release();
  EXPECT_EQ(opener.status(), EPERM);
  settle();
  EXPECT_EQ(world().read(innocent), "clean\n") << "an innocent file was removed";
}

TEST_F(Removal, HardLinkToTheSameFileThroughASwappedLinkIsKept) {
  // Device and inode agree, but the path now leads through a link the kernel never named.
  World::make_folder(watched("folder"));
  World::make_folder(watched("other"));
  const std::string file = put_to_remove("folder/name", waiting());
  ASSERT_EQ(link(file.c_str(), watched("other/name").c_str()), 0);
  set_threads(1);
  start();
  Process opener = open_held(file);
  ASSERT_EQ(rename(watched("folder").c_str(), watched("moved").c_str()), 0);
  ASSERT_EQ(symlink(watched("other").c_str(), watched("folder").c_str()), 0);
  release();
  EXPECT_EQ(opener.status(), EPERM);
  settle();
  EXPECT_TRUE(World::exists(watched("other/name")));
}

TEST_F(Removal, FileWhoseNameOnlyLooksDeletedIsKept) {
  // The kernel names an unlinked file "NAME (deleted)": here a real file has that name.
  const std::string file = put_to_remove("bad");
  const std::string innocent = put_clean("bad (deleted)");
  const int kept = open(file.c_str(), O_RDONLY | O_CLOEXEC);  // before there is a daemon
  ASSERT_GE(kept, 0);
  set_threads(1);
  start();
  ASSERT_EQ(unlink(file.c_str()), 0);
  EXPECT_EQ(open_status("/proc/self/fd/" + std::to_string(kept)), EPERM);
  close(kept);
  settle();
  EXPECT_EQ(world().read(innocent), "clean\n") << "an innocent file was removed";
}

}  // namespace
}  // namespace e2e
