#include "command_line.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "child_process.h"
#include "daemon_config.h"
#include "temp_directory.h"

namespace {

using Arguments = std::vector<std::string>;

constexpr char help_text[] =
    "usage: pelowatchd <options>\n"
    "options:\n"
    "\t-h, --help \t Print help information and exit\n"
    "\t-v, --version \t Print version number and exit.\n"
    "\t-c, --config-file FILE \t Read configuration options from FILE\n"
    "\t-k, --cloudaccess-key \t Use KEY when doing cloud-based scanning\n"
    "\t-n, --attach \t Do not detach from console\n"
    "\t-l, --log-level \t Log level: 1 - error; 2 - debug; 3- trace\n";
constexpr int goes_on = 99;

class CommandLineTest : public testing::Test {
 protected:
  CommandLineTest() {
    config().LogPath = folder_.path();
    config().configure_logger();
  }

  static GlobalConfig& config() { return *GlobalConfig::getGlobalConfig(); }

  /// Reads a command line in a process of its own, which it may end or not.
  /// @param look what the process does afterwards; its result is that of the process
  template <typename Look>
  int run(Arguments arguments, Look look) const {
    arguments.insert(arguments.begin(), "pelowatchd");
    ChildProcess process([&] {
      redirect(STDOUT_FILENO, "stdout");
      redirect(STDERR_FILENO, "stderr");
      std::vector<char*> pointers;
      for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
      }
      pointers.push_back(nullptr);
      parse_arguments(static_cast<int>(arguments.size()), pointers.data());
      (void)std::fflush(nullptr);
      return look();
    });
    return process.wait();
  }

  void expect(const Arguments& arguments, int status, const std::string& output,
              bool wrong = false) const {
    const std::string shown = testing::PrintToString(arguments);
    EXPECT_EQ(run(arguments, [] { return goes_on; }), status) << shown;
    EXPECT_EQ(folder_.read("stdout"), output) << shown;
    EXPECT_NE(folder_.read("stderr").empty(), wrong) << shown;
  }

  TempDirectory folder_;

 private:
  void redirect(int stream, const std::string& name) const {
    const int file = open(folder_.path(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    (void)dup2(file, stream);
    (void)close(file);
  }
};

TEST_F(CommandLineTest, SomeOptionsPrintAndEndTheProcessAndOthersLetItGoOnSilently) {
  for (const Arguments& help : {Arguments{"-h"}, {"--help"}, {"-h", "-v"}}) {
    expect(help, 0, help_text);
  }
  for (const char* wrong :
       {"-x", "--unknown", "-c", "-k", "-l", "--config-file", "--cloudaccess-key", "--log-level"}) {
    expect({wrong}, 0, help_text, true);
  }
  for (const Arguments& version : {Arguments{"-v"}, {"--version"}, {"-v", "-h", "--unknown"}}) {
    expect(version, 0, "Version: 3.0\n");
  }
  for (const Arguments& silent :
       {Arguments{}, {"word", "another", "-n"}, {"-c", folder_.path("missing")}}) {
    expect(silent, goes_on, "");
  }
}

TEST_F(CommandLineTest, OptionsAreKeptAndTheLastOneWins) {
  const std::string file = folder_.put("conf", "Loglevel 1\nCloudAccessKey file\nMaxThreads 7\n");
  struct Row {
    Arguments arguments;
    int attached;
    int level;
    int threads;
    const char* key;
  };
  const int level = config().Loglevel;
  const int threads = config().MaxThreads;
  for (const Row& row : {Row{{}, 0, level, threads, ""},
                         {{"-n"}, 1, level, threads, ""},
                         {{"--attach"}, 1, level, threads, ""},
                         {{"word", "-n"}, 1, level, threads, ""},
                         {{"-l", "3"}, 0, 3, threads, ""},
                         {{"--log-level=1"}, 0, 1, threads, ""},
                         {{"-l", "trace"}, 0, 0, threads, ""},
                         {{"-l", "1", "-l", "2"}, 0, 2, threads, ""},
                         {{"-k", "secret"}, 0, level, threads, "secret"},
                         {{"--cloudaccess-key", "secret"}, 0, level, threads, "secret"},
                         {{"-c", file}, 0, 1, 7, "file"},
                         {{"--config-file", file}, 0, 1, 7, "file"},
                         {{"-c", file, "-l", "3", "-k", "option"}, 0, 3, 7, "option"},
                         {{"-l", "3", "-k", "option", "-c", file}, 0, 1, 7, "file"}}) {
    const auto as_expected = [&row] {
      return notdetach == row.attached && config().Loglevel == row.level &&
             config().MaxThreads == row.threads && config().CloudAccessKey == row.key;
    };
    EXPECT_EQ(run(row.arguments, as_expected), 1) << testing::PrintToString(row.arguments);
  }
}

}  // namespace
