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
  void expect_watched_soon(const std::string& file, Duration bound = patience) {
    EXPECT_TRUE(eventually([&] { return open_status(file) == EPERM; }, bound)) << file;
  }

  /// Waits until the mount table has been checked once more from beginning to end: a mount made for
  /// it is noticed.
  void wait_for_mount_check() {
    const std::string folder = work("check");
    world().mount_on(folder);
    expect_registered(folder);
  }
};

// labels: essential one-processor
TEST_F(Mounts, MountThatAppearsIsWatchedWithinSevenSecondsAndForgottenWhenItGoes) {
  World::make_folder(watched("there"));
  World::make_folder(work("source"));
  world().put(work("source/bad"), "!detect\n");
  start();
  world().mount_on(watched("disk"));
  ASSERT_EQ(mount(work("source").c_str(), watched("there").c_str(), nullptr, MS_BIND, nullptr), 0);
  expect_watched_soon(put_infected("disk/bad"), mount_bound);
  expect_registered(watched("disk"));
  EXPECT_TRUE(logged("detect new mount point " + watched("disk") + "\n")) << log();
  EXPECT_TRUE(logged("addmnt(): adding mount point: '" + watched("disk") + "' type: 'tmpfs'\n"));
  expect_watched_soon(watched("there/bad"));
  umount2(watched("there").c_str(), MNT_DETACH);
  world().unmount(watched("disk"));
  expect_forgotten(watched("disk"), mount_bound);
  EXPECT_TRUE(logged("mount point has been removed " + watched("disk") + "\n")) << log();
  world().mount_on(watched());  // over the watched mount itself
  expect_watched_soon(put_infected("bad"));
}

TEST_F(Mounts, UnmountingANestedMountLeavesTheOneAroundItWatchedAndItsPlaceIsWatchedAgain) {
  const std::string outer = put_infected("bad");
  world().mount_on(watched("disk"));
  start();
  expect_registered(watched("disk"));
  world().unmount(watched("disk"));
  expect_forgotten(watched("disk"));
  expect_watched_soon(outer);
  wait_for_mount_check();
  EXPECT_EQ(open_status(outer), EPERM);
  EXPECT_TRUE(is_registered(watched()));
  world().mount_on(watched("disk"));
  expect_registered(watched("disk"));
  world().unmount(watched("disk"));  // at once followed by another
  world().mount_on(watched("disk"));
  expect_watched_soon(put_infected("disk/bad"));
}

TEST_F(Mounts, MissingTableMeansNothingIsRegisteredUntilThereIsOne) {
  const std::string file = put_infected("bad");
  unlink("/etc/mtab");
  launch();
  ASSERT_TRUE(eventually(
      [&] { return errors().find("open mtab No such file or directory\n") != std::string::npos; }));
  EXPECT_EQ(open_status(file), 0);
  EXPECT_TRUE(StatusArea::map()->mounts().empty());
  EXPECT_TRUE(daemon().running());
  expect_logged("\ninitialize no mount point is watched. \n");
  world().put("/etc/mtab", "device " + watched() + " tmpfs rw,relatime 0 0\n");
  expect_watched_soon(file);
}

// labels: essential
TEST_F(Mounts, UnmountDuringAScanHoldsUpNobody) {
  world().mount_on(watched("disk"));
  const std::string file = put("disk/held", waiting());
  start();
  expect_registered(watched("disk"));
  Process opener = open_waiting(file);
  world().unmount(watched("disk"));
  expect_forgotten(watched("disk"));
  release();
  EXPECT_EQ(opener.status(), 0);
}

}  // namespace
}  // namespace e2e
