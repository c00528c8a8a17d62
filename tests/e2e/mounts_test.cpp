// Which mounts are watched, and that the watch follows them as they come and go.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "fixture.h"

namespace e2e {
namespace {

class Mounts : public E2eTest {
 protected:
  void expect_watched_soon(const std::string& file, Duration bound = kPatience) {
    EXPECT_TRUE(eventually([&] { return open_status(file) == EPERM; }, bound)) << file;
  }

  /// Waits until the mount table has been checked once more from beginning to end: a mount made for
  /// it is noticed.
  void wait_for_mount_check() {
    const std::string folder = work("check" + std::to_string(++checks_));
    world().mount_on(folder);
    EXPECT_TRUE(eventually([&] { return is_registered(folder); }));
  }

  /// A mount table of the test's own making.
  void use_table(const std::string& table) {
    unlink("/etc/mtab");
    world().put("/etc/mtab", table);
  }
  static std::string entry(const std::string& folder, const std::string& type) {
    return "device " + folder + " " + type + " rw,relatime 0 0\n";
  }

 private:
  int checks_ = 0;
};

TEST_F(Mounts, MountThatAppearsIsWatchedWithinSevenSeconds) {
  start();
  world().mount_on(watched("disk"));
  expect_watched_soon(put_infected("disk/bad"), kMountBound);
  EXPECT_TRUE(is_registered(watched("disk")));
  EXPECT_TRUE(logged("detect new mount point " + watched("disk") + "\n")) << log();
  EXPECT_TRUE(logged("addmnt(): adding mount point: '" + watched("disk") + "' type: 'tmpfs'\n"));
}

TEST_F(Mounts, MountThatGoesIsForgotten) {
  world().mount_on(watched("disk"));
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(watched("disk")); }));
  world().unmount(watched("disk"));
  EXPECT_TRUE(eventually([&] { return !is_registered(watched("disk")); }, kMountBound));
  EXPECT_TRUE(logged("mount point has been removed " + watched("disk") + "\n")) << log();
}

TEST_F(Mounts, UnmountingANestedMountLeavesTheOneAroundItWatched) {
  const std::string outer = put_infected("bad");
  world().mount_on(watched("disk"));
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(watched("disk")); }));
  world().unmount(watched("disk"));
  ASSERT_TRUE(eventually([&] { return !is_registered(watched("disk")); }));
  EXPECT_TRUE(eventually([&] { return open_status(outer) == EPERM; }));
  wait_for_mount_check();
  EXPECT_EQ(open_status(outer), EPERM);
  EXPECT_TRUE(is_registered(watched()));
}

TEST_F(Mounts, AnotherMountOfTheSameTypeAtTheSamePlaceIsWatched) {
  world().mount_on(watched("disk"));
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(watched("disk")); }));
  world().unmount(watched("disk"));
  world().mount_on(watched("disk"));
  expect_watched_soon(put_infected("disk/bad"), kMountBound);
}

TEST_F(Mounts, AnotherMountOfAnotherTypeIsForgottenAndThenFoundAnew) {
  world().mount_on(watched("disk"));
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(watched("disk")); }));
  world().unmount(watched("disk"));
  world().mount_on(watched("disk"), "ramfs");
  const std::string file = put_infected("disk/bad");
  const std::string found = "adding mount point: '" + watched("disk") + "' type: 'ramfs'\n";
  ASSERT_TRUE(eventually([&] { return logged(found); })) << log();
  EXPECT_LT(log().find("mount point has been removed " + watched("disk")), log().find(found));
  EXPECT_EQ(open_status(file), EPERM);
}

TEST_F(Mounts, MountOverAWatchedMountIsWatched) {
  start();
  world().mount_on(watched());
  expect_watched_soon(put_infected("bad"));
}

TEST_F(Mounts, BindMountIsWatchedByItself) {
  World::make_folder(watched("there"));
  World::make_folder(work("source"));
  world().put(work("source/bad"), "!detect\n");
  start();
  ASSERT_EQ(mount(work("source").c_str(), watched("there").c_str(), nullptr, MS_BIND, nullptr), 0);
  expect_watched_soon(watched("there/bad"));
  umount2(watched("there").c_str(), MNT_DETACH);
}

TEST_F(Mounts, KernelFileSystemsAreNeverRegistered) {
  start();
  wait_for_mount_check();
  for (const std::string& mount : StatusArea::map()->mounts()) {
    for (const char* prefix : {"/sys", "/proc", "/dev"}) {
      EXPECT_NE(mount.compare(0, std::string(prefix).size(), prefix), 0) << mount;
    }
  }
}

TEST_F(Mounts, NetworkAndDesktopFileSystemsAreNeverRegistered) {
  world().mount_on(watched("nfs"));
  world().mount_on(watched("nfs4"));
  world().mount_on(watched("gvfs"));
  const std::string files[] = {put_infected("nfs/bad"), put_infected("nfs4/bad"),
                               put_infected("gvfs/bad")};
  use_table(entry(watched("nfs"), "nfs") + entry(watched("nfs4"), "nfs4") +
            entry(watched("gvfs"), "fuse.gvfs-fuse-daemon") + entry("/devel", "tmpfs") +
            entry(watched(), "tmpfs"));
  start();
  for (const std::string& file : files) {
    EXPECT_EQ(open_status(file), 0) << file;
  }
  EXPECT_EQ(StatusArea::map()->mounts(), std::vector{watched()});
  EXPECT_TRUE(count_of(errors(), "register mouning point failed: ") == 2) << errors();
}

TEST_F(Mounts, FileSystemWhoseTypeOnlyResemblesAnExcludedOneIsRegistered) {
  world().mount_on(watched("gvfs"));
  use_table(entry(watched("gvfs"), "fuse.gvfs-fuse-daemon2") + entry(watched(), "tmpfs"));
  start();
  EXPECT_EQ(open_status(put_infected("gvfs/bad")), EPERM);
}

TEST_F(Mounts, ExcludedDirectoryThatIsAMountIsNotRegistered) {
  world().mount_on(watched("disk"));
  const std::string file = put_infected("disk/bad");
  add("ExcludeDirectory", watched("disk"));
  start();
  EXPECT_EQ(open_status(file), 0);
  wait_for_mount_check();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_FALSE(is_registered(watched("disk")));
  EXPECT_TRUE(logged("addmnt(): mount point '" + watched("disk") + "' excluded by config\n"));
  const auto area = StatusArea::map();
  const uint64_t answered = area->answered();
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(open_status(file), 0);
  }
  EXPECT_LT(area->answered() - answered, 50U) << "the mount carries a mark";
}

TEST_F(Mounts, ExcludedDirectoryWithATrailingSlashIsRegistered) {
  world().mount_on(watched("disk"));
  add("ExcludeDirectory", watched("disk") + "/");
  start();
  EXPECT_EQ(open_status(put_infected("disk/bad")), EPERM);
}

TEST_F(Mounts, TableLongerThanAPageIsReadToItsEnd) {
  for (int i = 0; i < 60; ++i) {
    world().mount_on(work(std::to_string(100 + i) + std::string(30, 'm')));
  }
  world().mount_on(watched("last"));
  ASSERT_GT(world().read("/proc/mounts").size(), 4096U);
  ASSERT_LT(world().read("/proc/mounts").size(), 8192U);
  start();
  EXPECT_TRUE(eventually([&] { return is_registered(watched("last")); }));
  EXPECT_EQ(open_status(put_infected("last/bad")), EPERM);
}

TEST_F(Mounts, TableIsCutAfter8192Bytes) {
  std::string table = entry(watched(), "tmpfs");
  while (table.size() < 8192) {
    table += "device /sys/" + std::string(80, 'x') + " sysfs rw 0 0\n";
  }
  world().mount_on(watched("beyond"));
  use_table(table + entry(watched("beyond"), "tmpfs"));
  start();
  EXPECT_EQ(open_status(put_infected("beyond/bad")), 0);
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
}

TEST_F(Mounts, MountWithABlankInItsNameIsRegisteredAsTheTableWritesIt) {
  // No such folder: it cannot be marked, and the others are.
  world().mount_on(watched("a blank"));
  const std::string file = put_infected("bad");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  const std::string message = "register mouning point failed: " + watched("a\\040blank") + "\n";
  EXPECT_NE(errors().find(message), std::string::npos) << errors();
}

TEST_F(Mounts, RegistrationThatFailedIsTriedAgainAsNew) {
  const std::string folder = watched("later");
  use_table(entry(folder, "tmpfs") + entry(watched(), "tmpfs"));
  start();
  const std::string message = "register mouning point failed: " + folder + "\n";
  EXPECT_EQ(count_of(errors(), message), 1U);
  ASSERT_TRUE(eventually([&] { return count_of(errors(), message) == 2; }));
  EXPECT_TRUE(logged("detect new mount point " + folder + "\n"));
  world().mount_on(folder);
  expect_watched_soon(put_infected("later/bad"));
}

TEST_F(Mounts, LineWithTooFewFieldsIsNoEntry) {
  world().mount_on(watched("short"));
  use_table("\n  \nalone\ndevice " + watched("short") + "\ndevice " + watched("short") +
            " tmpfs\n" + "  " + entry(watched(), "tmpfs"));
  start();
  EXPECT_EQ(StatusArea::map()->mounts(), std::vector{watched()});
}

TEST_F(Mounts, MissingTableMeansNothingIsRegisteredUntilThereIsOne) {
  const std::string file = put_infected("bad");
  unlink("/etc/mtab");
  launch();
  ASSERT_TRUE(eventually([&] { return World::exists("/run/pelo/pelowatchd.pid"); }));
  ASSERT_TRUE(eventually([&] { return errors().find("open mtab ") != std::string::npos; }));
  EXPECT_NE(errors().find("open mtab No such file or directory\n"), std::string::npos);
  EXPECT_EQ(open_status(file), 0);
  EXPECT_TRUE(StatusArea::map()->mounts().empty());
  EXPECT_TRUE(daemon().running());
  EXPECT_TRUE(eventually([&] { return logged("\ninitialize no mount point is watched. \n"); }));
  use_table(entry(watched(), "tmpfs"));
  expect_watched_soon(file);
}

TEST_F(Mounts, TableThatGoesWhileRunningIsNoReasonToForgetAnything) {
  const std::string file = put_infected("bad");
  set("Loglevel", "3");
  start();
  unlink("/etc/mtab");
  // Two idle mount checks are over when the commands file has been looked at after ten seconds.
  ASSERT_TRUE(eventually([&] { return logged("scanner_func(): done\n"); }));
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(is_registered(watched()));
}

TEST_F(Mounts, UnmountDuringAScanHoldsUpNobody) {
  world().mount_on(watched("disk"));
  const std::string file = put("disk/held", "!wait " + work("go") + "\n");
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(watched("disk")); }));
  Process opener = start_open(file);
  ASSERT_TRUE(eventually([&] { return scans_begun(file) == 1; }));
  world().unmount(watched("disk"));
  EXPECT_TRUE(eventually([&] { return !is_registered(watched("disk")); }));
  touch(work("go"));
  EXPECT_EQ(opener.status(), 0);
}

}  // namespace
}  // namespace e2e
