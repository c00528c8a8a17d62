#include "running_daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "child_process.h"
#include "logger.h"
#include "temp_directory.h"

namespace {

using std::string;

// 01:00:00 and 02:30:00 on the first day, in the time zone of the tests.
constexpr std::time_t one_o_clock = 3600;
constexpr std::time_t half_past_two = 9000;

// A process with a daemon's command line, in the folder of the test.
class DaemonWith : public testing::Test {
 protected:
  DaemonWith() {
    Logger::keep_closed();
    (void)setenv("TZ", "UTC0", 1);
    tzset();
    std::ofstream(directory_.path("program")) << "kill -STOP $$\n";
    std::ofstream(directory_.path("daemon.conf")) << "ConfPath " << directory_.path() << "\n";
    std::ofstream(directory_.path("other.conf")) << "ConfPath /nowhere\n";
    std::ofstream(directory_.path("sdcommands.conf")) << "scan\n";
    const timespec times[] = {{half_past_two, 0}, {half_past_two, 0}};
    (void)utimensat(AT_FDCWD, directory_.path("sdcommands.conf").c_str(), times, 0);
  }

  /// When a daemon with this command line, started at one o'clock, read its commands file.
  string loaded(std::vector<string> words) {
    words.insert(words.begin(), {"bash", directory_.path("program")});
    const ChildProcess daemon([&] {
      std::vector<char*> arguments;
      for (string& word : words) {
        arguments.push_back(word.data());
      }
      arguments.push_back(nullptr);
      return chdir(directory_.path().c_str()) == 0 ? execv("/bin/bash", arguments.data()) : 1;
    });
    EXPECT_TRUE(eventually([&] { return command_line_of(daemon.pid()) == words; }));
    const ConfParser::time_T time = commands_loaded(daemon.pid(), one_o_clock);
    return std::to_string(time.hour) + ":" + std::to_string(time.minute);
  }

  TempDirectory directory_;
};

TEST_F(DaemonWith, NoConfigurationReadItAtItsStart) {
  EXPECT_EQ(loaded({"-n"}), "1:0");
}

TEST_F(DaemonWith, ConfigurationReadItWhenItWasChanged) {
  EXPECT_EQ(loaded({"-c", directory_.path("daemon.conf")}), "2:30");
}

TEST_F(DaemonWith, OptionsInEveryForm) {
  EXPECT_EQ(loaded({"-nc" + directory_.path("daemon.conf")}), "2:30");
}

TEST_F(DaemonWith, LongOptions) {
  EXPECT_EQ(loaded({"--attach", "--config-file=" + directory_.path("daemon.conf")}), "2:30");
}

TEST_F(DaemonWith, RelativeNames) {
  EXPECT_EQ(loaded({"-c", "daemon.conf"}), "2:30");
}

TEST_F(DaemonWith, TwoConfigurationsObeysTheLater) {
  EXPECT_EQ(loaded({"-c", "daemon.conf", "-l", "3", "-c", "other.conf"}), "1:0");
}

TEST_F(DaemonWith, ChangesBeforeItsStartReadItThen) {
  const timespec times[] = {{0, 0}, {0, 0}};
  (void)utimensat(AT_FDCWD, directory_.path("sdcommands.conf").c_str(), times, 0);
  EXPECT_EQ(loaded({"-c", "daemon.conf"}), "1:0");
}

TEST(LogFileOf, TheOneThatIsOpen) {
  const TempDirectory directory;
  std::ofstream log(directory.path("pelowatchd.log"));
  log << "12345" << std::flush;
  const std::optional<LogFile> found = log_file_of(getpid());
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(found->path, directory.path("pelowatchd.log"));
  EXPECT_EQ(found->bytes, 5U);
}

TEST(LogFileOf, NothingWhenNoneIsOpen) {
  EXPECT_FALSE(log_file_of(getpid()).has_value());
}

}  // namespace
