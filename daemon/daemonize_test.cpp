#include "daemonize.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "child_process.h"
#include "temp_directory.h"

namespace {

namespace fs = std::filesystem;

mode_t mode_of(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class PidFileTest : public testing::Test {
 protected:
  PidFileTest() { (void)umask(0); }  // as in the running daemon

  TempDirectory folder_;
};

TEST_F(PidFileTest, EveryMissingDirectoryIsMadeWithMode0755) {
  const std::string path = folder_.path("a/b/c");
  EXPECT_EQ(mkdirp(path.c_str()), 0);
  EXPECT_TRUE(fs::is_directory(path));
  for (const char* made : {"a", "a/b", "a/b/c"}) {
    EXPECT_EQ(mode_of(folder_.path(made)), 0755U) << made;
  }
}

TEST_F(PidFileTest, WhereAllParentsExistOnlyTheLastDirectoryIsMade) {
  fs::create_directory(folder_.path("a"));
  fs::permissions(folder_.path("a"), fs::perms::owner_all);
  EXPECT_EQ(mkdirp(folder_.path("a/b").c_str()), 0);
  EXPECT_TRUE(fs::is_directory(folder_.path("a/b")));
  EXPECT_EQ(mode_of(folder_.path("a")), 0700U);
}

TEST_F(PidFileTest, ADirectoryThatExistsIsFine) {
  EXPECT_EQ(mkdirp(folder_.path().c_str()), 0);
  EXPECT_EQ(mkdirp("/"), 0);
}

TEST_F(PidFileTest, ATrailingSlashIsFine) {
  EXPECT_EQ(mkdirp(folder_.path("a/b/").c_str()), 0);
  EXPECT_TRUE(fs::is_directory(folder_.path("a/b")));
}

TEST_F(PidFileTest, DoubledSlashesAreFine) {
  EXPECT_EQ(mkdirp(folder_.path("a//b").c_str()), 0);
  EXPECT_TRUE(fs::is_directory(folder_.path("a/b")));
}

TEST_F(PidFileTest, NullAndEmptyPathsAreRefused) {
  EXPECT_EQ(mkdirp(nullptr), -1);
  EXPECT_EQ(mkdirp(""), -1);
}

TEST_F(PidFileTest, ADirectoryThatCannotBeMadeIsAFailure) {
  ASSERT_EQ(symlink(folder_.path("nowhere/at/all").c_str(), folder_.path("link").c_str()), 0);
  EXPECT_EQ(mkdirp(folder_.path("link").c_str()), -1);
}

TEST_F(PidFileTest, AFileInTheWayIsPassedOver) {
  folder_.put("file", "content");
  EXPECT_EQ(mkdirp(folder_.path("file/below").c_str()), 0);
  EXPECT_EQ(folder_.read("file"), "content");
}

TEST_F(PidFileTest, HoldsThePidAndANewlineWithMode0644) {
  ASSERT_EQ(set_pidfile_dir(folder_.path().c_str()), 0);
  const char* path = create_pidfile("pelowatchd");
  ASSERT_NE(path, nullptr);
  EXPECT_EQ(path, folder_.path("pelowatchd.pid"));
  EXPECT_EQ(folder_.read("pelowatchd.pid"), std::to_string(getpid()) + "\n");
  EXPECT_EQ(mode_of(path), 0644U);
}

TEST_F(PidFileTest, ADirectoryWithASlashGivesAPathWithTwo) {
  ASSERT_EQ(set_pidfile_dir(folder_.path("pelo/").c_str()), 0);
  EXPECT_STREQ(create_pidfile("pelowatchd"), (folder_.path("pelo") + "//pelowatchd.pid").c_str());
  EXPECT_TRUE(fs::exists(folder_.path("pelo/pelowatchd.pid")));
}

TEST_F(PidFileTest, AnExistingFileIsLeftAloneAndReported) {
  ASSERT_EQ(set_pidfile_dir(folder_.path().c_str()), 0);
  folder_.put("pelowatchd.pid", "12345\n");
  errno = 0;
  EXPECT_EQ(create_pidfile("pelowatchd"), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(folder_.read("pelowatchd.pid"), "12345\n");
}

TEST_F(PidFileTest, ALinkIsNotWrittenThrough) {
  ASSERT_EQ(set_pidfile_dir(folder_.path().c_str()), 0);
  ASSERT_EQ(symlink(folder_.path("target").c_str(), folder_.path("pelowatchd.pid").c_str()), 0);
  EXPECT_EQ(create_pidfile("pelowatchd"), nullptr);
  EXPECT_FALSE(fs::exists(folder_.path("target")));
}

TEST_F(PidFileTest, ADirectoryThatCannotBeMadeKeepsThePreviousOne) {
  ASSERT_EQ(set_pidfile_dir(folder_.path().c_str()), 0);
  ASSERT_EQ(symlink(folder_.path("nowhere/at/all").c_str(), folder_.path("link").c_str()), 0);
  EXPECT_EQ(set_pidfile_dir(folder_.path("link").c_str()), -1);
  EXPECT_EQ(set_pidfile_dir(nullptr), -1);
  EXPECT_STREQ(create_pidfile("pelowatchd"), folder_.path("pelowatchd.pid").c_str());
}

TEST_F(PidFileTest, RemovingUnlinksIt) {
  ASSERT_EQ(set_pidfile_dir(folder_.path().c_str()), 0);
  ASSERT_NE(create_pidfile("pelowatchd"), nullptr);
  EXPECT_EQ(remove_pidfile("pelowatchd"), 0);
  EXPECT_FALSE(fs::exists(folder_.path("pelowatchd.pid")));
  EXPECT_EQ(remove_pidfile("pelowatchd"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(PidFileTest, ANameBeyondTheLongestPathFails) {
  ASSERT_EQ(set_pidfile_dir(folder_.path().c_str()), 0);
  EXPECT_EQ(create_pidfile(std::string(5000, 'n').c_str()), nullptr);
  EXPECT_EQ(remove_pidfile(std::string(5000, 'n').c_str()), -1);
}

TEST_F(PidFileTest, ThePidInAFileIsRead) {
  EXPECT_EQ(get_pid(folder_.put("pid", "4711\n").c_str()), 4711);
  EXPECT_EQ(get_pid(folder_.put("pid", "  12 rest").c_str()), 12);
}

TEST_F(PidFileTest, WhatThisWritesIsReadBack) {
  ASSERT_EQ(set_pidfile_dir(folder_.path().c_str()), 0);
  EXPECT_EQ(get_pid(create_pidfile("pelowatchd")), getpid());
}

TEST_F(PidFileTest, AnEmptyMissingOrWordyFileHoldsNoPid) {
  EXPECT_EQ(get_pid(folder_.put("pid", "").c_str()), 0);
  EXPECT_EQ(get_pid(folder_.path("missing").c_str()), 0);
  EXPECT_EQ(get_pid(folder_.put("pid", "word").c_str()), 0);
  EXPECT_EQ(get_pid(folder_.path().c_str()), 0);
}

TEST_F(PidFileTest, OnlyTheFirst79BytesOfAPidFileCount) {
  const std::string blanks(78, ' ');
  EXPECT_EQ(get_pid(folder_.put("pid", blanks + "12").c_str()), 1);
}

TEST(DaemonizeTest, AttachedTheProcessKeepsPidDirectoryAndStreams) {
  ChildProcess process([] {
    const pid_t pid = getpid();
    const pid_t session = getsid(0);
    const std::string directory = fs::current_path();
    const std::string output = fs::read_symlink("/proc/self/fd/1");
    (void)umask(027);
    const bool kept = daemonize(1) == 0 && getpid() == pid && getsid(0) == session &&
                      fs::current_path() == directory &&
                      fs::read_symlink("/proc/self/fd/1") == output;
    return kept ? 0 : 1;
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(DaemonizeTest, AttachedTheFileModeMaskIsCleared) {
  ChildProcess process([] {
    (void)umask(027);
    (void)daemonize(7);
    return static_cast<int>(umask(0));
  });
  EXPECT_EQ(process.wait(), 0);
}

/// Detaches in a process of its own; the daemon writes what it finds itself to be, a line each.
class DetachedTest : public testing::Test {
 protected:
  DetachedTest() {
    // The daemon's parent ends at once; its child shall come to this process, not to init.
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
    ChildProcess parent([this] {
      (void)umask(027);
      const int result = daemonize(0);
      std::ofstream(folder_.path("new")) << result << "\n"
                                         << getpid() << "\n"
                                         << getsid(0) << "\n"
                                         << fs::current_path().string() << "\n"
                                         << fs::read_symlink("/proc/self/fd/0").string() << "\n"
                                         << fs::read_symlink("/proc/self/fd/1").string() << "\n"
                                         << fs::read_symlink("/proc/self/fd/2").string() << "\n"
                                         << umask(0) << "\n";
      fs::rename(folder_.path("new"), folder_.path("report"));
      return 0;
    });
    parent_pid_ = parent.pid();
    parent_status_ = parent.wait();
    (void)eventually([this] { return fs::exists(folder_.path("report")); });
    std::istringstream report(folder_.read("report"));
    report >> result_ >> pid_ >> session_ >> directory_ >> input_ >> output_ >> error_ >> mask_;
    (void)waitpid(pid_, nullptr, 0);
  }

  TempDirectory folder_;
  pid_t parent_pid_ = 0;
  int parent_status_ = -1;
  int result_ = -1;
  pid_t pid_ = 0;
  pid_t session_ = 0;
  std::string directory_, input_, output_, error_;
  int mask_ = -1;
};

TEST_F(DetachedTest, TheParentEndsWithZeroAndAChildGoesOn) {
  EXPECT_EQ(parent_status_, 0);
  EXPECT_EQ(result_, 0);
  EXPECT_NE(pid_, parent_pid_);
}

TEST_F(DetachedTest, TheChildLeadsASessionOfItsOwn) {
  EXPECT_EQ(session_, pid_);
}

TEST_F(DetachedTest, TheChildStandsInTheRootDirectory) {
  EXPECT_EQ(directory_, "/");
}

TEST_F(DetachedTest, TheStandardStreamsLeadNowhere) {
  EXPECT_EQ(input_, "/dev/null");
  EXPECT_EQ(output_, "/dev/null");
  EXPECT_EQ(error_, "/dev/null");
}

TEST_F(DetachedTest, TheFileModeMaskIsCleared) {
  EXPECT_EQ(mask_, 0);
}

}  // namespace
