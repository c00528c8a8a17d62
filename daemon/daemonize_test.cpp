#include "daemonize.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

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
  fs::create_directory(folder_.path("old"));
  fs::permissions(folder_.path("old"), fs::perms::owner_all);
  for (const char* name : {"a/b/c", "old/new", "old", "trailing/slash/", "double//slash", ""}) {
    EXPECT_EQ(mkdirp(folder_.path(name).c_str()), 0) << name;
    EXPECT_TRUE(fs::is_directory(folder_.path(name))) << name;
  }
  EXPECT_EQ(mkdirp("/"), 0);
  EXPECT_EQ(mkdirp((folder_.put("file", "content") + "/below").c_str()), 0);
  EXPECT_EQ(folder_.read("file"), "content") << "what is in the way is passed over";
  for (const char* made : {"a", "a/b", "a/b/c", "old/new", "trailing/slash"}) {
    EXPECT_EQ(mode_of(folder_.path(made)), 0755U) << made;
  }
  EXPECT_EQ(mode_of(folder_.path("old")), 0700U) << "it was there";
}

TEST_F(PidFileTest, ADirectoryThatCannotBeMadeIsAFailureAndKeepsThePreviousOne) {
  ASSERT_EQ(set_pidfile_dir(folder_.path().c_str()), 0);
  ASSERT_EQ(symlink(folder_.path("nowhere/at/all").c_str(), folder_.path("link").c_str()), 0);
  const std::string link = folder_.path("link");
  for (const char* path : {link.c_str(), "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(mkdirp(path), -1);
    EXPECT_EQ(set_pidfile_dir(path), -1);
  }
  EXPECT_STREQ(create_pidfile("pelowatchd"), folder_.path("pelowatchd.pid").c_str());
}

TEST_F(PidFileTest, HoldsThePidAndANewlineWithMode0644UntilItIsRemoved) {
  ASSERT_EQ(set_pidfile_dir(folder_.path("pelo/").c_str()), 0);
  const char* path = create_pidfile("pelowatchd");
  ASSERT_NE(path, nullptr);
  EXPECT_EQ(path, folder_.path("pelo") + "//pelowatchd.pid") << "the slash is doubled";
  EXPECT_EQ(folder_.read("pelo/pelowatchd.pid"), std::to_string(getpid()) + "\n");
  EXPECT_EQ(mode_of(path), 0644U);
  EXPECT_EQ(get_pid(path), getpid());
  EXPECT_EQ(remove_pidfile("other"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(remove_pidfile("pelowatchd"), 0);
  EXPECT_FALSE(fs::exists(folder_.path("pelo/pelowatchd.pid")));
}

TEST_F(PidFileTest, WhatHasItsNameAlreadyAndANameBeyondTheLongestPathAreReported) {
  ASSERT_EQ(set_pidfile_dir(folder_.path().c_str()), 0);
  folder_.put("file.pid", "12345\n");
  ASSERT_EQ(symlink(folder_.path("target").c_str(), folder_.path("link.pid").c_str()), 0);
  for (const char* name : {"file", "link"}) {
    errno = 0;
    EXPECT_EQ(create_pidfile(name), nullptr) << name;
    EXPECT_EQ(errno, EEXIST) << name;
  }
  const std::string too_long(5000, 'n');
  EXPECT_EQ(create_pidfile(too_long.c_str()), nullptr);
  EXPECT_EQ(remove_pidfile(too_long.c_str()), -1);
  EXPECT_EQ(folder_.read("file.pid"), "12345\n");
  EXPECT_FALSE(fs::exists(folder_.path("target")));
}

TEST_F(PidFileTest, ThePidInAFileIsReadFromItsFirst79Bytes) {
  using Row = std::pair<std::string, int>;
  for (const auto& [text, pid] : {Row("4711\n", 4711), Row("  12 rest", 12), Row("", 0),
                                  Row("word", 0), Row(std::string(78, ' ') + "12", 1)}) {
    EXPECT_EQ(get_pid(folder_.put("pid", text).c_str()), pid) << text;
  }
  EXPECT_EQ(get_pid(folder_.path("missing").c_str()), 0);
  EXPECT_EQ(get_pid(folder_.path().c_str()), 0) << "a folder";
}

TEST(DaemonizeTest, AttachedTheProcessKeepsAllButItsFileModeMask) {
  ChildProcess process([] {
    const pid_t pid = getpid();
    const pid_t session = getsid(0);
    const std::string directory = fs::current_path();
    const std::string output = fs::read_symlink("/proc/self/fd/1");
    (void)umask(027);
    const bool kept = daemonize(7) == 0 && getpid() == pid && getsid(0) == session &&
                      fs::current_path() == directory &&
                      fs::read_symlink("/proc/self/fd/1") == output;
    return kept && umask(0) == 0 ? 0 : 1;
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(DaemonizeTest, DetachedAChildGoesOnAsALeaderOfItsOwnAndLosesNoSignal) {
  const TempDirectory folder;
  // The daemon's parent ends at once; its child shall come to this process, not to init.
  (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
  ChildProcess parent([&folder] {
    sigset_t signals;
    (void)sigemptyset(&signals);
    (void)sigaddset(&signals, SIGTERM);
    (void)sigprocmask(SIG_BLOCK, &signals, nullptr);
    (void)raise(SIGTERM);
    (void)umask(027);
    const int result = daemonize(0);
    const bool told = eventually(
        [&signals] { return sigpending(&signals) == 0 && sigismember(&signals, SIGTERM) == 1; });
    std::ofstream(folder.path("new"))
        << getpid() << " " << result << " " << told << " " << (getsid(0) == getpid()) << " "
        << fs::current_path().string() << " " << fs::read_symlink("/proc/self/fd/0").string() << " "
        << fs::read_symlink("/proc/self/fd/1").string() << " "
        << fs::read_symlink("/proc/self/fd/2").string() << " " << umask(0);
    fs::rename(folder.path("new"), folder.path("report"));
    return 0;
  });
  EXPECT_EQ(parent.wait(), 0);
  ASSERT_TRUE(eventually([&folder] { return fs::exists(folder.path("report")); }));
  std::istringstream report(folder.read("report"));
  pid_t pid = 0;
  std::string rest;
  std::getline(report >> pid, rest);
  EXPECT_NE(pid, parent.pid());
  EXPECT_EQ(rest, " 0 1 1 / /dev/null /dev/null /dev/null 0");
  (void)waitpid(pid, nullptr, 0);
}

}  // namespace
