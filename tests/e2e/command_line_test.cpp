// The command line, what it prints, and which of two settings wins.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "fixture.h"

namespace e2e {
namespace {

constexpr const char* kHelp =
    "usage: pelowatchd <options>\n"
    "options:\n"
    "\t-h, --help \t Print help information and exit\n"
    "\t-v, --version \t Print version number and exit.\n"
    "\t-c, --config-file FILE \t Read configuration options from FILE\n"
    "\t-k, --cloudaccess-key \t Use KEY when doing cloud-based scanning\n"
    "\t-n, --attach \t Do not detach from console\n"
    "\t-l, --log-level \t Log level: 1 - error; 2 - debug; 3- trace\n";
constexpr const char* kVersion = "Version: 3.0\n";

class CommandLine : public E2eTest {
 protected:
  /// Runs the program with these arguments to its end. @return what it wrote to standard output
  std::string run(const std::vector<std::string>& arguments) {
    world().put(work("stdout"), "");
    Launch launch;
    launch.arguments = arguments;
    Process program = spawn(launch);
    EXPECT_EQ(program.wait(), Exit{});
    return output();
  }

  void start_with(const std::vector<std::string>& arguments) {
    Launch launch;
    launch.arguments = arguments;
    start(launch);
  }

  bool traces() const { return logged("avh_init"); }
  std::string configuration() const { return work("pelowatchd.conf"); }
};

TEST_F(CommandLine, Help) {
  EXPECT_EQ(run({"-h"}), kHelp);
  EXPECT_EQ(run({"--help"}), kHelp);
  EXPECT_EQ(run({"-h", "-v", "-l"}), kHelp) << "options after it are not read";
  EXPECT_EQ(errors(), "");
}

TEST_F(CommandLine, Version) {
  EXPECT_EQ(run({"-v"}), kVersion);
  EXPECT_EQ(run({"--version"}), kVersion);
  EXPECT_EQ(run({"-n", "-v", "-h"}), kVersion);
  EXPECT_EQ(errors(), "");
}

TEST_F(CommandLine, UnknownOptionPrintsTheHelpAndSucceeds) {
  EXPECT_EQ(run({"-x"}), kHelp);
  EXPECT_EQ(run({"--unknown"}), kHelp);
}

TEST_F(CommandLine, OptionWithoutItsArgumentPrintsTheHelpAndSucceeds) {
  for (const char* option :
       {"-c", "-k", "-l", "--config-file", "--cloudaccess-key", "--log-level"}) {
    EXPECT_EQ(run({"-n", option}), kHelp) << option;
  }
}

TEST_F(CommandLine, HelpAndVersionLeaveNothingBehind) {
  (void)run({"-c", configuration(), "-v"});
  (void)run({"-c", configuration(), "-h"});
  expect_nothing_left();
  EXPECT_EQ(engine_record(), "");
}

TEST_F(CommandLine, LogLevelAfterTheFileWins) {
  set("Loglevel", "1");
  start_with({"-n", "-c", configuration(), "-l", "3"});
  EXPECT_EQ(open_status(put_clean("file")), 0);
  EXPECT_TRUE(traces());
}

TEST_F(CommandLine, FileAfterTheLogLevelWins) {
  set("Loglevel", "1");
  start_with({"-n", "--log-level", "3", "--config-file", configuration()});
  EXPECT_EQ(open_status(put_clean("file")), 0);
  EXPECT_FALSE(traces());
}

TEST_F(CommandLine, LogLevelThatIsNoNumberIsZero) {
  start_with({"--attach", "-c", configuration(), "-l", "much"});
  const size_t before = log().size();
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
  EXPECT_EQ(log().substr(before), "") << "level 0 keeps not even errors and detections";
}

TEST_F(CommandLine, ArgumentsThatAreNoOptionsAreIgnored) {
  start_with({"ignored", "-n", "also ignored", "-c", configuration(), "-"});
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
}

TEST_F(CommandLine, LaterFileOverridesAnEarlierOneKeyByKey) {
  world().put(work("second.conf"), "LogPath " + work("log2") + "\n");
  start_with({"-n", "-c", configuration(), "-c", work("second.conf")});
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
  EXPECT_NE(world().read(work("log2/pelowatchd.log")).find("infection detected in: "),
            std::string::npos);
}

TEST_F(CommandLine, WithoutAFileTheDefaultsHold) {
  const std::string file = put_infected("bad");
  start_with({"-n"});
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_NE(world().read("/var/log/pelowatchd.log").find("infection detected in: "),
            std::string::npos);
  ASSERT_TRUE(eventually([&] { return engine_calls("vseInit").size() == 5; }));
  EXPECT_NE(engine_calls("vseInit")[0].find("flags=2 database=\"/opt/pelo/share\""),
            std::string::npos);
  EXPECT_FALSE(engine_calls("vseSet", {"property=40 index=0 size=8 value=12 "}).empty());
}

}  // namespace
}  // namespace e2e
