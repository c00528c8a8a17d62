// Paths on mounts that the daemon does not watch.
#include "watched_mounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "check_fixture.h"

namespace {

using std::string;
using testing::IsEmpty;

struct Mount {
  string point;  ///< as the tables have it
  string type;
  string shown;
  string why;  ///< it is not watched; empty when it is
};

TEST_F(ConfigCheckTest, MountThatIsNotWatchedIsReportedForWhatIsIncludedOnIt) {
  for (const auto& [point, type, shown, why] :
       {Mount{"/disk", "ext4", "/disk", ""},
        Mount{"/dev/shm", "tmpfs", "/dev/shm", "its path begins with /sys, /proc or /dev"},
        Mount{"/devel", "ext4", "/devel", "its path begins with /sys, /proc or /dev"},
        Mount{"/home/a/.gvfs", "fuse.gvfs-fuse-daemon", "/home/a/.gvfs",
              "its type is fuse.gvfs-fuse-daemon"},
        Mount{"/net", "nfs4", "/net", "its type is nfs4"},
        Mount{"/my\\040disk", "ext4", "/my disk",
              "its name holds a character that the mount table writes as a number, such as a "
              "blank"}}) {
    mounts_.table = directory_.put("mtab", "d " + point + " " + type + " rw 0 0\n");
    put_mount(point, type);
    EXPECT_EQ(
        text_of(check("IncludeDirectory @/link/sub\n").findings),
        here(why.empty() ? "1 IncludeDirectory: no file ever matches \"@/link/sub\"; write it "
                           "as the kernel does: \"@/data/sub\""
                         : "1 IncludeDirectory: nothing in \"@/link/sub\" is scanned: the "
                           "file system mounted at \"" +
                               shown + "\" is not watched, because " + why));
    EXPECT_EQ(check("ExcludeDirectory @/link/sub\n").findings.empty(), !why.empty());
  }
}

TEST_F(ConfigCheckTest, MountBehindTheEndOfWhatIsReadIsNotWatched) {
  const string line = "d /disk ext4 rw 0 0\n";
  put_mount("/disk", "ext4");
  mounts_.table =
      directory_.put("mtab", string(mount_table_limit - line.size() - 1, '#') + "\n" + line);
  EXPECT_THAT(check("IncludeDirectory @/data\n").findings, IsEmpty());
  mounts_.table = directory_.put("mtab", string(mount_table_limit - 1, '#') + "\n" + line);
  EXPECT_EQ(
      text_of(check("IncludeDirectory @/data\n").findings),
      here("0 @/mtab is longer than the 8192 bytes that the daemon reads: file systems listed "
           "behind them are not watched\n"
           "1 IncludeDirectory: nothing in \"@/data\" is scanned: the file system mounted at "
           "\"/disk\" is not watched, because the daemon does not find it in the mount table"));
}

TEST_F(ConfigCheckTest, MissingMountTableIsReported) {
  mounts_.table = directory_.path("none");
  EXPECT_EQ(text_of(check("").findings),
            here("0 @/none cannot be read: No such file or directory; the daemon finds "
                 "the file systems to watch there"));
}

TEST_F(ConfigCheckTest, ExcludedMountPointIsNotWatched) {
  EXPECT_THAT(
      text_of(check("ExcludeDirectory /\nIncludeDirectory @/data\n").findings),
      testing::EndsWith(
          here("\n2 IncludeDirectory: nothing in \"@/data\" is scanned: the file system mounted at "
               "\"/\" is not watched, because it is excluded")));
}

}  // namespace
