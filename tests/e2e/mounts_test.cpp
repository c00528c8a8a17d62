// Which mounts are watched, and that the watch follows them as they come and go.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>

#include "fixture.h"

namespace e2e {
namespace {

// labels: long
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

// labels: essential one-processor
TEST_F(Mounts, MountThatAppearsIsWatchedWithinSevenSecondsAndForgottenWhenItGoes) {
  World::make_folder(watched("there"));
  World::make_folder(work("source"));
  world().put(work("source/bad"), "!detect\n");
  start();
  world().mount_on(watched("disk"));
  ASSERT_EQ(mount(work("source").c_str(), watched("there").c_str(), nullptr, MS_BIND, nullptr), 0);
  expect_watched_soon(put_infected("disk/bad"), kMountBound);
  EXPECT_TRUE(eventually([&] { return is_registered(watched("disk")); }));
  EXPECT_TRUE(logged("detect new mount point " + watched("disk") + "\n")) << log();
  EXPECT_TRUE(logged("addmnt(): adding mount point: '" + watched("disk") + "' type: 'tmpfs'\n"));
  expect_watched_soon(watched("there/bad"));
  umount2(watched("there").c_str(), MNT_DETACH);
  world().unmount(watched("disk"));
  EXPECT_TRUE(eventually([&] { return !is_registered(watched("disk")); }, kMountBound));
  EXPECT_TRUE(logged("mount point has been removed " + watched("disk") + "\n")) << log();
  world().mount_on(watched());  // over the watched mount itself
  expect_watched_soon(put_infected("bad"));
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

TEST_F(Mounts, AnotherMountInTheSamePlaceIsWatched) {
  world().mount_on(watched("disk"));
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(watched("disk")); }));
  world().unmount(watched("disk"));
  world().mount_on(watched("disk"));
  expect_watched_soon(put_infected("disk/bad"), kMountBound);
  // One of another type is forgotten and then found anew.
  const size_t before = log().size();
  world().unmount(watched("disk"));
  world().mount_on(watched("disk"), "ramfs");
  const std::string file = put_infected("disk/bad");
  const std::string found = "adding mount point: '" + watched("disk") + "' type: 'ramfs'\n";
  ASSERT_TRUE(eventually([&] { return logged(found); })) << log();
  EXPECT_LT(log().find("mount point has been removed " + watched("disk"), before),
            log().find(found));
  EXPECT_TRUE(eventually([&] { return open_status(file) == EPERM; }));
}

TEST_F(Mounts, KernelNetworkAndDesktopFileSystemsAreNeverRegistered) {
  const std::pair<const char*, const char*> left_out[] = {
      {"nfs", "nfs"}, {"nfs4", "nfs4"}, {"gvfs", "fuse.gvfs-fuse-daemon"}};
  std::string table = "\nalone\n" + entry("/devel", "tmpfs") + entry("/sys/a", "sysfs") +
                      entry("/proc", "proc") + entry(watched(), "tmpfs");
  for (const auto& [name, type] : left_out) {
    world().mount_on(watched(name));
    put_infected(std::string(name) + "/bad");
    table += entry(watched(name), type);
  }
  world().mount_on(watched("a blank"));  // the table names it with "\\040": it cannot be marked
  world().mount_on(watched("like"));     // an excluded type is compared whole
  table += entry(watched("a\\040blank"), "tmpfs") + entry(watched("like"), "gvfs-fuse-daemon2");
  use_table(table);
  start();
  for (const auto& [name, type] : left_out) {
    EXPECT_EQ(open_status(watched(std::string(name) + "/bad")), 0) << name;
    EXPECT_FALSE(is_registered(watched(name))) << name;
  }
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
  const std::string like = put_infected("like/bad");
  EXPECT_TRUE(eventually([&] { return open_status(like) == EPERM; }))
      << "a lane marks it by itself";
  EXPECT_EQ(count_of(errors(), "register mouning point failed: "), 3U) << errors();
  EXPECT_NE(errors().find("register mouning point failed: " + watched("a\\040blank") + "\n"),
            std::string::npos);
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

// labels: essential
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
