// The service's mount table. The kernel's mark call is replaced here, for this program alone.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "service_test.h"

namespace {

std::set<std::string> marked;         // the mounts that carry a mark
std::set<std::string> refused;        // those whose marks the kernel refuses
std::vector<std::string> mark_calls;  // "+/a" and "-/a", in order

}  // namespace

extern "C" int fanotify_mark(int, unsigned int flags, std::uint64_t, int,
                             const char* path) noexcept {
  const bool add = (flags & FAN_MARK_ADD) != 0;
  mark_calls.push_back((add ? "+" : "-") + std::string(path));
  if (refused.contains(path)) {
    errno = EINVAL;
    return -1;
  }
  if (add) {
    marked.insert(path);
  } else {
    marked.erase(path);
  }
  return 0;
}

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

class MountTrackingTest : public ServiceTest {
 protected:
  ~MountTrackingTest() override { EXPECT_EQ(service().uninit_mountpts(), 0); }

  /// Lets the service follow a mount table of these lines.
  int refresh(const std::string& lines) {
    const int fd = open(directory_.put("mtab", lines).c_str(), O_RDONLY | O_CLOEXEC);
    (void)lseek(fd, 0, SEEK_END);  // the service begins at the beginning wherever it stands
    const int result = service().check_mountpts(fd);
    (void)close(fd);
    return result;
  }

  static std::string line(const std::string& directory, const std::string& type = "ext4") {
    return "device " + directory + " " + type + " rw 0 0\n";
  }
};

TEST_F(MountTrackingTest, AnAddedMountIsMarkedKnownAndLogged) {
  EXPECT_EQ(service().addmnt({"/a", "ext4"}), 0);
  EXPECT_TRUE(service().hasmnt("/a"));
  EXPECT_THAT(marked, ElementsAre("/a"));
  EXPECT_THAT(logged(), ElementsAre("addmnt addmnt(): adding mount point: '/a' type: 'ext4'\n"));
}

TEST_F(MountTrackingTest, OnlyExactDirectoriesAreKnown) {
  (void)service().addmnt({"/a", "ext4"});
  EXPECT_FALSE(service().hasmnt("/a/"));
  EXPECT_FALSE(service().hasmnt("/"));
}

TEST_F(MountTrackingTest, AMountThatTheSettingsExcludeIsLoggedAndSkipped) {
  config().ExcludeDirectory.push_back("/a");
  config().ExcludeFile.push_back("/b");
  EXPECT_EQ(service().addmnt({"/a", "ext4"}), 0);
  EXPECT_EQ(service().addmnt({"/b", "ext4"}), 0);
  EXPECT_FALSE(service().hasmnt("/a"));
  EXPECT_THAT(marked, IsEmpty());
  EXPECT_THAT(logged(), ElementsAre("addmnt addmnt(): mount point '/a' excluded by config\n",
                                    "addmnt addmnt(): mount point '/b' excluded by config\n"));
}

TEST_F(MountTrackingTest, AnExcludedMountIsSkippedOnEveryRefresh) {
  config().ExcludeDirectory.push_back("/a");
  (void)refresh(line("/a"));
  (void)refresh(line("/a"));
  EXPECT_EQ(logged_times("addmnt addmnt(): mount point '/a' excluded by config\n"), 2);
  EXPECT_THAT(mark_calls, IsEmpty());
}

TEST_F(MountTrackingTest, ARefusedMountIsNotKnownAndTriedAgain) {
  refused.insert("/a");
  EXPECT_LT(service().addmnt({"/a", "ext4"}), 0);
  EXPECT_FALSE(service().hasmnt("/a"));
  refused.clear();
  EXPECT_EQ(refresh(line("/a")), 0);
  EXPECT_TRUE(service().hasmnt("/a"));
}

TEST_F(MountTrackingTest, NetworkFileSystemsAreNeverWatched) {
  EXPECT_EQ(refresh(line("/net", "nfs4") + line("/a")), 0);
  EXPECT_FALSE(service().hasmnt("/net"));
  EXPECT_THAT(marked, ElementsAre("/a"));
}

TEST_F(MountTrackingTest, ANewMountIsDetected) {
  EXPECT_EQ(refresh(line("/a")), 0);
  EXPECT_TRUE(service().hasmnt("/a"));
  EXPECT_THAT(logged(), ElementsAre("check_mountpts check_mountpts\n",
                                    "check_mountpts detect new mount point /a\n",
                                    "addmnt addmnt(): adding mount point: '/a' type: 'ext4'\n",
                                    "check_mountpts check_mountpts done\n"));
}

TEST_F(MountTrackingTest, AKnownMountIsNotDetectedAgain) {
  (void)refresh(line("/a"));
  (void)refresh(line("/a"));
  EXPECT_EQ(logged_times("check_mountpts detect new mount point /a\n"), 1);
}

TEST_F(MountTrackingTest, ARemovedMountIsForgotten) {
  (void)refresh(line("/a") + line("/b"));
  EXPECT_EQ(refresh(line("/a")), 0);
  EXPECT_FALSE(service().hasmnt("/b"));
  EXPECT_TRUE(service().hasmnt("/a"));
  EXPECT_TRUE(has_logged("check_mountpts mount point has been removed /b\n"));
}

TEST_F(MountTrackingTest, SeveralRemovedMountsAreForgottenAtOnce) {
  (void)refresh(line("/a") + line("/b") + line("/c") + line("/d"));
  (void)refresh(line("/c"));
  EXPECT_THAT(marked, ElementsAre("/c"));
  for (const char* gone : {"/a", "/b", "/d"}) {
    EXPECT_FALSE(service().hasmnt(gone)) << gone;
  }
}

TEST_F(MountTrackingTest, AfterARemovalEveryWatchedMountIsMarkedAgain) {
  (void)refresh(line("/") + line("/a") + line("/a/b"));
  mark_calls.clear();
  (void)refresh(line("/") + line("/a"));
  ASSERT_THAT(mark_calls, Not(IsEmpty()));
  EXPECT_EQ(mark_calls.front(), "-/a/b");
  EXPECT_THAT(std::vector<std::string>(mark_calls.begin() + 1, mark_calls.end()),
              UnorderedElementsAre("+/", "+/a"));
}

TEST_F(MountTrackingTest, AnEmptyTableLeavesTheWatchedMountsAlone) {
  (void)refresh(line("/a") + line("/b"));
  mark_calls.clear();
  EXPECT_EQ(refresh(""), 0);
  EXPECT_TRUE(service().hasmnt("/a"));
  EXPECT_TRUE(service().hasmnt("/b"));
  EXPECT_THAT(mark_calls, IsEmpty());
}

TEST_F(MountTrackingTest, AnUnreadableTableLeavesTheWatchedMountsAlone) {
  (void)refresh(line("/a") + line("/b"));
  mark_calls.clear();
  const int folder = open(directory_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  (void)service().check_mountpts(folder);  // reading it fails
  (void)service().check_mountpts(-1);
  (void)close(folder);
  EXPECT_TRUE(service().hasmnt("/a"));
  EXPECT_TRUE(service().hasmnt("/b"));
  EXPECT_THAT(mark_calls, IsEmpty());
}

TEST_F(MountTrackingTest, WithoutAnyMountNothingIsWatched) {
  EXPECT_TRUE(service().watches_nothing());
  refused.insert("/a");
  (void)service().addmnt({"/a", "ext4"});
  EXPECT_TRUE(service().watches_nothing());
  (void)service().addmnt({"/b", "ext4"});
  EXPECT_FALSE(service().watches_nothing());
}

TEST_F(MountTrackingTest, AMountOfAnotherTypeIsForgottenFirstAndWatchedOnTheNextRefresh) {
  (void)refresh(line("/a", "ext4"));
  (void)refresh(line("/a", "xfs"));
  EXPECT_FALSE(service().hasmnt("/a"));
  (void)refresh(line("/a", "xfs"));
  EXPECT_TRUE(service().hasmnt("/a"));
  EXPECT_TRUE(has_logged("addmnt addmnt(): adding mount point: '/a' type: 'xfs'\n"));
}

TEST_F(MountTrackingTest, AnotherMountInTheSamePlaceIsMarkedOnTheNextRefresh) {
  (void)refresh(line("/a"));
  marked.clear();  // the mark went with the old mount
  (void)refresh(line("/a"));
  EXPECT_THAT(marked, ElementsAre("/a"));
}

TEST_F(MountTrackingTest, KernelFileSystemsAreNeverMarked) {
  (void)refresh(line("/sys") + line("/proc/fs/nfsd") + line("/dev/shm") + line("/devel") +
                line("/home/u/.gvfs", "fuse.gvfs-fuse-daemon"));
  EXPECT_THAT(mark_calls, IsEmpty());
}

TEST_F(MountTrackingTest, AtTheEndEveryMountIsUnmarkedAndForgotten) {
  (void)refresh(line("/a") + line("/b"));
  service().uninit_mountpts();
  EXPECT_THAT(marked, IsEmpty());
  EXPECT_FALSE(service().hasmnt("/a"));
  EXPECT_TRUE(has_logged("uninit_mountpts uninit_mountpts(): begin\n"));
  EXPECT_TRUE(has_logged("uninit_mountpts uninit_mountpts(): done\n"));
}

TEST_F(MountTrackingTest, AtStartTheSystemsMountsAreMarked) {
  std::list<mntinfo> table;
  ASSERT_EQ(read_mountinfo(table), 0) << "no /etc/mtab on this machine";
  EXPECT_EQ(service().init_mountpts(), 0);
  for (const mntinfo& entry : table) {
    EXPECT_EQ(service().hasmnt(entry.name), !entry.type.starts_with("nfs")) << entry.name;
  }
  EXPECT_THAT(marked, Not(Contains(testing::StartsWith("/proc"))));
}

TEST_F(MountTrackingTest, WithoutAFilterARefreshMarksNothing) {
  ASSERT_EQ(service().unreg_filter(), 0);
  EXPECT_EQ(refresh(line("/a")), 0);
  EXPECT_THAT(mark_calls, IsEmpty());
}

}  // namespace
