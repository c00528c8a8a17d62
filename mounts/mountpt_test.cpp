#include "mountpt.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <list>
#include <string>
#include <thread>
#include <vector>

#include "descriptor.h"
#include "fed_filter.h"
#include "temp_directory.h"

namespace {

using testing::IsEmpty;

std::list<mntinfo> entries_of(const std::string& text) {
  const TempDirectory folder;
  const Descriptor file(open(folder.put("mtab", text).c_str(), O_RDONLY | O_CLOEXEC));
  std::list<mntinfo> entries;
  EXPECT_EQ(read_mountinfo(file.get(), entries), 0);
  return entries;
}

/// What a table of this text gives: "directory type" of each entry, and the options if it has any.
std::vector<std::string> read_of(const std::string& text) {
  std::vector<std::string> read;
  for (const mntinfo& entry : entries_of(text)) {
    read.push_back(entry.name + " " + entry.type);
    read.back() += entry.options.empty() ? "" : " " + entry.options;
  }
  return read;
}

TEST(MountInfoTest, EqualityIsOfBothTextsOrOfTheDirectory) {
  const mntinfo entry{"/a", "ext4"};
  EXPECT_EQ(entry, (mntinfo{"/a", "ext4"}));
  EXPECT_FALSE(entry == (mntinfo{"/a", "xfs"}));
  EXPECT_FALSE(entry == (mntinfo{"/b", "ext4"}));
  EXPECT_TRUE(entry == std::string("/a"));
  EXPECT_FALSE(entry == std::string("ext4"));
}

TEST(MountParsingTest, GivesTheEntriesOfATextInOrder) {
  struct {
    const char* name;
    const char* text;
    std::vector<std::string> read;
  } const cases[] = {{"lines",
                      "/dev/sda1 / ext4 rw,relatime 0 0\n/dev/sdb1 /share xfs rw 0 0\n",
                      {"/ ext4", "/share xfs"}},
                     {"nothing", "", {}},
                     {"octal escapes",
                      "d /my\\040share\\011\\134 ext4 rw 0 0\n",
                      {"/my\\040share\\011\\134 ext4"}},
                     {"line of three fields", "d /a ext4\nd /b ext4 rw\n", {"/b ext4"}},
                     {"third field that a blank ends", "d /a ext4 \n", {"/a ext4"}},
                     {"third field that a blank at the end ends", "d /a ext4\t", {"/a ext4"}},
                     {"cut line", "d /a ext4 rw\nd /b ex", {"/a ext4"}},
                     {"short lines", "\n\nd\nd /x\n  \nd /y \nd /a ext4 rw\n", {"/a ext4"}},
                     {"more blanks", "  \t d \t /a   ext4\t rw\n", {"/a ext4"}},
                     {"other bytes before a line", "\x01\xff d /a ext4 rw\n", {"/a ext4"}},
                     {"any byte in a field", "d \x01\xc3\xa9 ext4 rw\n", {"\x01\xc3\xa9 ext4"}},
                     {"kernel file systems",
                      "tmpfs /dev/shm tmpfs rw 0 0\nnfsd /proc/fs/nfsd nfsd rw 0 0\n"
                      "debugfs /sys/kernel/debug debugfs rw 0 0\nd /devel ext4 rw 0 0\n",
                      {}},
                     {"desktop mounts",
                      "gvfs /home/u/.gvfs fuse.gvfs-fuse-daemon rw 0 0\ns /a fuse.sshfs rw 0 0\n",
                      {"/a fuse.sshfs"}},
                     {"options",
                      "overlay /merged overlay rw,lowerdir=/a 0 0\nd /b ext4 rw 0 0\n"
                      "overlay /cut overlay rw",
                      {"/merged overlay rw,lowerdir=/a", "/b ext4", "/cut overlay"}}};
  for (const auto& [name, text, read] : cases) {
    EXPECT_EQ(read_of(text), read) << name;
  }
}

TEST(ExcludedPointTest, PrefixesAreComparedAsPlainTextsAndTheDesktopTypeWhole) {
  for (const char* name :
       {"/sys", "/proc", "/dev", "/dev/shm", "/proc/fs/nfsd", "/devices", "/process", "/system"}) {
    EXPECT_EQ(excluded_point({name, "ext4"}), 1) << name;
  }
  for (const char* name : {"/", "/de", "/home/dev", "/share/sys"}) {
    EXPECT_EQ(excluded_point({name, "ext4"}), 0) << name;
  }
  EXPECT_EQ(excluded_point({"/a", "fuse.gvfs-fuse-daemon"}), 1);
  EXPECT_EQ(excluded_point({"/a", "fuse.gvfs-fuse-daemon2"}), 0);
  EXPECT_EQ(excluded_point({"/a", "fuse.gvfs"}), 0);
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
  const std::string lines = numbered_lines(255);  // 8160 bytes, 32 left
  std::string type_inside = "d /inside ext4 ";
  type_inside.resize(40, 'x');
  EXPECT_EQ(entries_of(lines + type_inside + "\n").back().name, "/inside");
  EXPECT_EQ(entries_of(lines + "d /" + std::string(24, 'y') + " ext4 rw\n").size(), 255U)
      << "the type's blank lies behind the cut";
}

/// The two ends of a socket pair: a read gives one piece that was written at most.
struct Ends {
  explicit Ends(int flags = 0) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | flags, 0, ends), 0);
    read.reset(ends[0]);
    write.reset(ends[1]);
  }
  void put(const std::string& text) const {
    EXPECT_EQ(::write(write.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  Descriptor read;
  Descriptor write;
};

TEST(MountParsingTest, AShortReadIsNotTheEnd) {
  const std::string text = numbered_lines(200);
  for (const std::size_t piece : {std::size_t{1}, std::size_t{77}}) {
    Ends ends;
    std::thread writer([&] {
      for (std::size_t at = 0; at < text.size(); at += piece) {
        ends.put(text.substr(at, piece));
      }
      ends.write.reset();
    });
    std::list<mntinfo> entries{{"/before", "x"}};
    EXPECT_EQ(read_mountinfo(ends.read.get(), entries), 0);
    writer.join();
    EXPECT_EQ(entries.size(), 201U) << "appended to what is there";
  }
}

TEST(MountParsingTest, ATableWhoseReadingFailsGivesNothing) {
  std::list<mntinfo> entries;
  EXPECT_EQ(read_mountinfo(-1, entries), 0);
  const Ends ends(SOCK_NONBLOCK);
  ends.put("d /a ext4 rw\n");
  EXPECT_EQ(read_mountinfo(ends.read.get(), entries), 0);  // its second read fails
  EXPECT_THAT(entries, IsEmpty());
}

TEST(MountPointTest, AFailedRegistrationIsReportedOnStandardError) {
  FedFilter filter;
  testing::internal::CaptureStderr();
  EXPECT_EQ(mntpoint({"", "ext4"}).reg(filter.handle()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "mounting point is not set");
  testing::internal::CaptureStderr();
  EXPECT_LT(mntpoint({"/a%s", "nfs4"}).reg(filter.handle()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "register mouning point failed: /a%s\n");
}

TEST(MountPointTest, UnregisteringGivesTheFiltersResult) {
  FedFilter filter;
  EXPECT_EQ(mntpoint({"/a", "nfs4"}).unreg(filter.handle()), 0);
  EXPECT_EQ(mntpoint({"/a", "ext4"}).unreg(filter.handle()), -1);
}

}  // namespace
