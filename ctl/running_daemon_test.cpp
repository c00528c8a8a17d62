#include "running_daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>

#include "child_process.h"
#include "logger.h"
#include "pidfd_fixture.h"
#include "printing.h"
#include "private_mounts.h"
#include "temp_directory.h"

namespace {

using std::string;

constexpr std::time_t two_hours = 7200;

string clock_of(std::time_t at) {
  return clock_text(ConfParser::time_T(at));
}

// A process with a daemon's command line, in the folder of the test.
class DaemonWith : public testing::Test {
 protected:
  DaemonWith() {
    Logger::disable_for_good();
    (void)setenv("TZ", "UTC0", 1);
    tzset();
    std::ofstream(directory_.path("program")) << "kill -STOP $$\n";
    std::ofstream(directory_.path("daemon.conf")) << "ConfPath " << directory_.path() << "\n";
    std::ofstream(directory_.path("other.conf")) << "ConfPath /nowhere\n";
    std::ofstream(directory_.path("commands")) << "scan\n";
    // As a copy that keeps the modification time comes into the place of the file.
    const timespec times[] = {{0, 0}, {0, 0}};
    (void)utimensat(AT_FDCWD, directory_.path("commands").c_str(), times, 0);
    std::filesystem::rename(directory_.path("commands"), directory_.path("sdcommands.conf"));
    struct stat status {};
    (void)stat(directory_.path("sdcommands.conf").c_str(), &status);
    changed_ = status.st_ctime;
    started_ = changed_ - two_hours;
  }

  /// When a daemon with this command line read its commands file.
  string loaded(std::vector<string> words) {
    words.insert(words.begin(), {"sh", directory_.path("program")});
    const ChildProcess daemon([&] {
      std::vector<char*> arguments;
      arguments.reserve(words.size() + 1);
      for (string& word : words) {
        arguments.push_back(word.data());
      }
      arguments.push_back(nullptr);
      return chdir(directory_.path().c_str()) == 0 ? execv("/bin/sh", arguments.data()) : 1;
    });
    EXPECT_TRUE(eventually([&] { return command_line_of(daemon.pid()) == words; }));
    return clock_text(commands_loaded(daemon.pid(), started_));
  }

  string at_its_start() const { return clock_of(started_ + 10); }
  string when_it_was_changed() const { return clock_of(changed_); }

  TempDirectory directory_;
  std::time_t changed_ = 0;
  std::time_t started_ = 0;
};

TEST_F(DaemonWith, ConfigurationReadItWhenItWasChangedAndWithoutOneAtItsStart) {
  const string file = directory_.path("daemon.conf");
  std::ofstream(directory_.path("relative.conf")) << "ConfPath .\n";
  const std::pair<std::vector<string>, bool> command_lines[] = {
      {{"-n"}, false},
      {{"-c", file}, true},
      {{"-nc" + file}, true},
      {{"--attach", "--config-file=" + file}, true},
      {{"-c", "daemon.conf"}, true},
      {{"-c", "relative.conf"}, true},
      {{"-c", "daemon.conf", "-l", "3", "-c", "other.conf"}, false}};
  for (const auto& [words, by_change] : command_lines) {
    EXPECT_EQ(loaded(words), by_change ? when_it_was_changed() : at_its_start()) << words.back();
  }
}

TEST_F(DaemonWith, ConfigurationFromAPipeIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(directory_.path("pipe").c_str(), 0600), 0);
  (void)alarm(60);  // the waiting would have no end
  EXPECT_EQ(loaded({"-c", "pipe"}), at_its_start());
}

TEST_F(DaemonWith, ChangesBeforeItsStartReadItThen) {
  started_ = changed_ + two_hours;
  EXPECT_EQ(loaded({"-c", "daemon.conf"}), at_its_start());
}

class LogFileOf : public testing::Test {
 protected:
  static void expect_reason(const string& reason) {
    const std::variant<LogFile, NoLog> found = log_file_of(getpid());
    ASSERT_TRUE(std::holds_alternative<NoLog>(found));
    EXPECT_FALSE(std::get<NoLog>(found).hidden);
    EXPECT_EQ(std::get<NoLog>(found).reason, reason);
  }

  static void expect_log(const string& path) {
    const std::variant<LogFile, NoLog> found = log_file_of(getpid());
    ASSERT_TRUE(std::holds_alternative<LogFile>(found));
    EXPECT_EQ(std::get<LogFile>(found).path, path);
    EXPECT_EQ(std::get<LogFile>(found).bytes, 5U);
  }
};

TEST_F(LogFileOf, IsTheOneThatIsOpenUnderItsNameOfNow) {
  const TempDirectory directory;
  const string path = directory.path("pelowatchd.log");
  expect_reason(
      "no log file is open, so nothing is logged: look at LogPath, and restart pelowatchd");
  std::ofstream log(path);
  log << "12345" << std::flush;
  expect_log(path);
  std::filesystem::rename(path, path + ".1");
  std::ofstream(path) << "new";
  expect_log(path + ".1");
  std::filesystem::remove(path + ".1");
  expect_reason("the log file " + path +
                ".1 was removed, so what is logged is lost: restart pelowatchd");
}

TEST_F(LogFileOf, OfAnotherUserIsHidden) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root, to look as another user";
  }
  ASSERT_EQ(seteuid(65534), 0);
  const std::variant<LogFile, NoLog> found = log_file_of(getppid());
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_TRUE(std::holds_alternative<NoLog>(found));
  EXPECT_TRUE(std::get<NoLog>(found).hidden);
}

TEST(DroppedTexts, AreCountedByTheNameOfTheLoggersThreadAndByNoOther) {
  const std::pair<const char*, std::uint64_t> rows[] = {
      {"log -1234", 1234}, {"log -9999999999", 9999999999},
      {"log -", 0},        {"log 5", 0},
      {"log --5", 0},      {"log -5x", 0},
      {"log -5\n", 0},     {"log -5 ", 0},
      {"log - 5", 0},      {"a log -5", 0},
      {"pelowatchd", 0},   {"", 0},
      {"log -%s%n", 0},    {"\xff\x1b[0m", 0}};
  for (const auto& row : rows) {
    std::thread([&row] {
      (void)pthread_setname_np(pthread_self(), row.first);
      EXPECT_EQ(dropped_texts_of(getpid()), row.second) << row.first;
    }).join();
  }
  EXPECT_EQ(dropped_texts_of(0), 0U);
}

class FindDaemon : public PrivateMountsTest {
 protected:
  /// @return why there is no daemon
  static NoDaemon none() {
    const std::variant<ProcessHandle, NoDaemon> found = find_daemon();
    EXPECT_TRUE(std::holds_alternative<NoDaemon>(found));
    return std::get<NoDaemon>(found);
  }
};

TEST_F(FindDaemon, ProcessThatCannotBeReachedHasNotEnded) {
  ASSERT_EQ(mkdir("/run/pelo", 0755), 0);
  std::ofstream(pid_file) << getpid() << "\n";
  fail_pidfd_open(EMFILE);
  EXPECT_TRUE(none().running);
  EXPECT_EQ(
      none().reason,
      "process " + std::to_string(getpid()) +
          ", which /var/run/pelo/pelowatchd.pid names, cannot be reached: Too many open files");
}

TEST_F(FindDaemon, PidFileThatIsAPipeIsNotWaitedFor) {
  ASSERT_EQ(mkdir("/run/pelo", 0755), 0);
  ASSERT_EQ(mkfifo(pid_file.c_str(), 0600), 0);
  (void)alarm(60);  // the waiting would have no end
  EXPECT_EQ(none().reason, "there is no pid in " + pid_file);
}

}  // namespace
