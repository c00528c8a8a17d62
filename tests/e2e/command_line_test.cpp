// The command line of the whole program; what each option does has its unit test.
#include <gtest/gtest.h>

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

class CommandLine : public E2eTest {
 protected:
  std::string configuration() const { return work("pelowatchd.conf"); }
};

TEST_F(CommandLine, HelpAndVersionArePrintedAndLeaveNothingBehind) {
  const std::pair<std::vector<std::string>, const char*> lines[] = {
      {{"-c", configuration(), "-h", "-v", "-l"}, kHelp},
      {{"-c", configuration(), "-n", "--version", "-h"}, "Version: 3.0\n"},
      {{"--unknown"}, kHelp},
      {{"-n", "-c"}, kHelp}};
  for (const auto& [arguments, printed] : lines) {
    world().put(work("stdout"), "");
    Process program = spawn({.arguments = arguments});
    EXPECT_EQ(program.wait(), Exit{}) << arguments.back();
    EXPECT_EQ(output(), printed);
    EXPECT_EQ(errors().empty(), arguments.size() > 2)
        << "what is not understood is said: " << errors();
  }
  EXPECT_EQ(engine_record(), "");
  expect_nothing_left();
}

TEST_F(CommandLine, LaterOfAFileAndALogLevelWins) {
  const std::string infected = put_infected("bad");
  set("Loglevel", "1");
  start({.arguments = {"-n", "-c", configuration(), "-l", "3"}});
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_TRUE(logged("avh_init"));
  stop();
  size_t before = log().size();
  start({.arguments = {"ignored", "-n", "--log-level", "3", "also ignored", "--config-file",
                       configuration(), "-"}});
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_EQ(log().find("avh_init", before), std::string::npos);
  stop();
  start({.arguments = {"--attach", "-c", configuration(), "-l", "much"}});
  before = log().size();
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_EQ(log().substr(before), "") << "level 0 keeps not even errors and detections";
}

TEST_F(CommandLine, LaterFileOverridesAnEarlierOneKeyByKey) {
  world().put(work("second.conf"), "LogPath " + work("log2") + "\n");
  start({.arguments = {"-n", "-c", configuration(), "-c", work("second.conf")}});
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
  EXPECT_NE(world().read(work("log2/pelowatchd.log")).find("infection detected in: "),
            std::string::npos);
}

TEST_F(CommandLine, WithoutAFileTheDefaultsHold) {
  const std::string file = put_infected("bad");
  start({.arguments = {"-n"}});
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_NE(world().read("/var/log/pelowatchd.log").find("infection detected in: "),
            std::string::npos);
  ASSERT_TRUE(eventually([&] { return engine_calls("vseSet", {"property=9 "}).size() == 5; }));
  EXPECT_EQ(engine_calls("vseInit", {"flags=2 database=\"/opt/pelo/share\""}).size(), 5U);
  EXPECT_FALSE(engine_calls("vseSet", {"property=40 index=0 size=8 value=12 "}).empty());
}

}  // namespace
}  // namespace e2e
