#include "mountpt.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iterator>
#include <list>
#include <string>
#include <thread>

#include "fed_filter.h"
#include "temp_directory.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// What a table of this text gives.
std::list<mntinfo> entries_of(const std::string& text) {
  const TempDirectory folder;
  const int fd = open(folder.put("mtab", text).c_str(), O_RDONLY | O_CLOEXEC);
  std::list<mntinfo> entries;
  EXPECT_EQ(read_mountinfo(fd, entries), 0);
  (void)close(fd);
  return entries;
}

mntinfo entry(const std::string& name, const std::string& type) {
  return {name, type};
}

TEST(MountInfoTest, EqualityIsOfBothTexts) {
  EXPECT_EQ(entry("/a", "ext4"), entry("/a", "ext4"));
  EXPECT_FALSE(entry("/a", "ext4") == entry("/a", "xfs"));
  EXPECT_FALSE(entry("/a", "ext4") == entry("/b", "ext4"));
}

TEST(MountInfoTest, OptionsAreReadOfOverlaysAlone) {
  const std::list<mntinfo> entries = entries_of(
      "overlay /merged overlay rw,lowerdir=/a:/b 0 0\nd /b ext4 rw 0 0\n"
      "overlay /proc/x overlay rw,lowerdir=/c 0 0\nd /d overlay rw");
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ(entries.front().options, "rw,lowerdir=/a:/b");
  EXPECT_EQ(std::next(entries.begin())->options, "");
  EXPECT_EQ(entries.back().options, "") << "cut off";
}

TEST(MountInfoTest, ATextEqualToTheDirectoryIsEqual) {
  EXPECT_TRUE(entry("/a", "ext4") == std::string("/a"));
  EXPECT_FALSE(entry("/a", "ext4") == std::string("ext4"));
}

TEST(MountParsingTest, DirectoryAndTypeOfEachLineComeInOrder) {
  EXPECT_THAT(entries_of("/dev/sda1 / ext4 rw,relatime 0 0\n"
                         "/dev/sdb1 /share xfs rw 0 0\n"),
              ElementsAre(entry("/", "ext4"), entry("/share", "xfs")));
}

TEST(MountParsingTest, AnEmptyTableHasNoEntries) {
  EXPECT_THAT(entries_of(""), IsEmpty());
}

TEST(MountParsingTest, EntriesAreAppendedToWhatIsThere) {
  const TempDirectory folder;
  const int fd = open(folder.put("mtab", "d /a ext4 rw\n").c_str(), O_RDONLY | O_CLOEXEC);
  std::list<mntinfo> entries{entry("/before", "x")};
  EXPECT_EQ(read_mountinfo(fd, entries), 0);
  EXPECT_THAT(entries, ElementsAre(entry("/before", "x"), entry("/a", "ext4")));
  (void)close(fd);
}

TEST(MountParsingTest, OctalEscapesStayAsWritten) {
  EXPECT_THAT(entries_of("d /my\\040share\\011\\134 ext4 rw 0 0\n"),
              ElementsAre(entry("/my\\040share\\011\\134", "ext4")));
}

TEST(MountParsingTest, ALineOfThreeFieldsGivesNothing) {
  EXPECT_THAT(entries_of("d /a ext4\nd /b ext4 rw\n"), ElementsAre(entry("/b", "ext4")));
}

TEST(MountParsingTest, AThirdFieldThatABlankEndsCounts) {
  EXPECT_THAT(entries_of("d /a ext4 \n"), ElementsAre(entry("/a", "ext4")));
  EXPECT_THAT(entries_of("d /a ext4\t"), ElementsAre(entry("/a", "ext4")));
}

TEST(MountParsingTest, ACutLineIsParsedAsFarAsItGoes) {
  EXPECT_THAT(entries_of("d /a ext4 rw\nd /b ex"), ElementsAre(entry("/a", "ext4")));
}

TEST(MountParsingTest, ShortAndEmptyLinesGiveNothing) {
  EXPECT_THAT(entries_of("\n\nd\nd /x\n  \nd /a ext4 rw\n"), ElementsAre(entry("/a", "ext4")));
}

TEST(MountParsingTest, BlanksBetweenAndBeforeFieldsAreSkipped) {
  EXPECT_THAT(entries_of("  \t d \t /a   ext4\t rw\n"), ElementsAre(entry("/a", "ext4")));
}

TEST(MountParsingTest, OtherBytesBeforeTheFirstFieldAreSkipped) {
  EXPECT_THAT(entries_of("\x01\xff d /a ext4 rw\n"), ElementsAre(entry("/a", "ext4")));
}

TEST(MountParsingTest, LaterFieldsMayHoldAnyByte) {
  EXPECT_THAT(entries_of("d /\xc3\xa9 ext4 rw\n"), ElementsAre(entry("/\xc3\xa9", "ext4")));
}

TEST(MountParsingTest, KernelFileSystemsAreLeftOut) {
  EXPECT_THAT(entries_of("tmpfs /dev/shm tmpfs rw 0 0\n"
                         "nfsd /proc/fs/nfsd nfsd rw 0 0\n"
                         "debugfs /sys/kernel/debug debugfs rw 0 0\n"
                         "d /devel ext4 rw 0 0\n"
                         "d /a ext4 rw 0 0\n"),
              ElementsAre(entry("/a", "ext4")));
}

TEST(MountParsingTest, DesktopMountsAreLeftOut) {
  EXPECT_THAT(entries_of("gvfs /home/u/.gvfs fuse.gvfs-fuse-daemon rw 0 0\n"
                         "s /a fuse.sshfs rw 0 0\n"),
              ElementsAre(entry("/a", "fuse.sshfs")));
}

TEST(ExcludedPointTest, PrefixesAreComparedAsPlainTexts) {
  for (const char* name :
       {"/sys", "/proc", "/dev", "/dev/shm", "/proc/fs/nfsd", "/devices", "/process", "/system"}) {
    EXPECT_EQ(excluded_point(entry(name, "ext4")), 1) << name;
  }
  for (const char* name : {"/", "/de", "/home/dev", "/share/sys"}) {
    EXPECT_EQ(excluded_point(entry(name, "ext4")), 0) << name;
  }
}

TEST(ExcludedPointTest, TheDesktopTypeIsMatchedWhole) {
  EXPECT_EQ(excluded_point(entry("/a", "fuse.gvfs-fuse-daemon")), 1);
  EXPECT_EQ(excluded_point(entry("/a", "fuse.gvfs-fuse-daemon2")), 0);
  EXPECT_EQ(excluded_point(entry("/a", "fuse.gvfs")), 0);
}

/// Lines of 32 bytes, "d /NNNNNNNNNN ext4 rw,padding...".
std::string numbered_lines(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    std::string line = "d /" + std::to_string(1000000000 + i) + " ext4 rw";
    line.resize(31, 'x');
    text += line + "\n";
  }
  return text;
}

TEST(MountParsingTest, ATableIsCutAt8192Bytes) {
  const std::list<mntinfo> entries = entries_of(numbered_lines(300));
  EXPECT_EQ(entries.size(), 256U);
  EXPECT_EQ(entries.back().name, "/1000000255");
}

TEST(MountParsingTest, TheLineAtTheCutIsParsedAsFarAsItGoes) {
  const std::string lines = numbered_lines(255);  // 8160 bytes, 32 left
  std::string type_inside = "d /inside ext4 ";
  type_inside.resize(40, 'x');
  EXPECT_EQ(entries_of(lines + type_inside + "\n").back().name, "/inside");
  EXPECT_EQ(entries_of(lines + "d /" + std::string(24, 'y') + " ext4 rw\n").size(), 255U)
      << "the type's blank lies behind the cut";
}

/// Feeds a table to a descriptor piece by piece and reads it from the other end.
std::list<mntinfo> entries_in_pieces(int read_end, int write_end, const std::string& text,
                                     std::size_t piece) {
  std::thread writer([&] {
    for (std::size_t at = 0; at < text.size(); at += piece) {
      const std::string part = text.substr(at, piece);
      (void)!write(write_end, part.data(), part.size());
    }
    (void)close(write_end);
  });
  std::list<mntinfo> entries;
  EXPECT_EQ(read_mountinfo(read_end, entries), 0);
  writer.join();
  (void)close(read_end);
  return entries;
}

TEST(MountParsingTest, AShortReadIsNotTheEnd) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);  // a read gives one piece at most
  EXPECT_EQ(entries_in_pieces(ends[0], ends[1], numbered_lines(200), 77).size(), 200U);
}

TEST(MountParsingTest, SingleBytesMakeATable) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  EXPECT_THAT(entries_in_pieces(ends[0], ends[1], "d /a ext4 rw\nd /b xfs rw\n", 1),
              ElementsAre(entry("/a", "ext4"), entry("/b", "xfs")));
}

TEST(MountParsingTest, APipeIsReadToItsEnd) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(entries_in_pieces(ends[0], ends[1], numbered_lines(100), 500).size(), 100U);
}

TEST(MountParsingTest, AUnreadableDescriptorGivesNothing) {
  std::list<mntinfo> entries;
  EXPECT_EQ(read_mountinfo(-1, entries), 0);
  EXPECT_THAT(entries, IsEmpty());
}

TEST(MountParsingTest, ATableWhoseReadingFailsHalfwayGivesNothing) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0);
  const std::string first_line = "d /a ext4 rw\n";
  ASSERT_EQ(write(ends[1], first_line.data(), first_line.size()),
            static_cast<ssize_t>(first_line.size()));
  std::list<mntinfo> entries;
  EXPECT_EQ(read_mountinfo(ends[0], entries), 0);  // its second read fails
  EXPECT_THAT(entries, IsEmpty());
  (void)close(ends[0]);
  (void)close(ends[1]);
}

TEST(MountParsingTest, TheSystemsTableCanBeRead) {
  std::list<mntinfo> entries;
  const bool there = access("/etc/mtab", R_OK) == 0;
  EXPECT_EQ(read_mountinfo(entries), there ? 0 : -1);
  EXPECT_EQ(entries.empty(), !there);
}

TEST(MountPointTest, HoldsItsEntry) {
  const mntpoint mount(entry("/a", "ext4"));
  EXPECT_EQ(mount.name(), "/a");
  EXPECT_EQ(mount.type(), "ext4");
  EXPECT_EQ(mount.get(), entry("/a", "ext4"));
}

TEST(MountPointTest, WithoutANameItIsNotRegistered) {
  FedFilter filter;
  testing::internal::CaptureStderr();
  EXPECT_EQ(mntpoint(entry("", "ext4")).reg(filter.handle()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "mounting point is not set");
}

TEST(MountPointTest, AFailedRegistrationIsReportedWithItsName) {
  FedFilter filter;
  testing::internal::CaptureStderr();
  EXPECT_LT(mntpoint(entry("/a%s", "nfs4")).reg(filter.handle()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "register mouning point failed: /a%s\n");
}

TEST(MountPointTest, UnregisteringGivesTheFiltersResult) {
  FedFilter filter;
  EXPECT_EQ(mntpoint(entry("/a", "nfs4")).unreg(filter.handle()), 0);
  EXPECT_EQ(mntpoint(entry("/a", "ext4")).unreg(filter.handle()), -1);
}

}  // namespace
