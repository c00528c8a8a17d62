// The command line of the whole program, and what it says on the console; what each option does has
// its unit test.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "fixture.h"

namespace e2e {
namespace {

class CommandLine : public E2eTest {};

TEST_F(CommandLine, WithoutAFileTheDefaultsHold) {
  const std::string file = put_infected("bad");
  start({.arguments = {"-n"}});
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_NE(world().read("/var/log/pelowatchd.log").find("infection detected in: "),
            std::string::npos);
  wait_for_handles(5);
  EXPECT_EQ(engine_calls("vseInit", {"flags=2 database=\"/opt/pelo/share\""}).size(), 5U);
  EXPECT_FALSE(engine_calls("vseSet", {"property=40 index=0 size=8 value=12 "}).empty());
}

TEST_F(CommandLine, RefusedLogIsSaidToWhoStartsTheDaemonDetachedAndWithoutAFile) {
  ASSERT_EQ(symlink("/nowhere", "/var/log/pelowatchd.log"), 0);
  launch({.arguments = {"-l", "2"}});
  EXPECT_EQ(daemon().wait(), Exit{});
  EXPECT_EQ(errors(), "/var/log/pelowatchd.log is not a regular file: nothing is logged\n");
  ASSERT_TRUE(eventually([&] { return is_registered(watched()); }));
  Process detached = Process::adopt(daemon_pid());
  detached.signal(SIGTERM);
  EXPECT_EQ(detached.wait(), Exit{});
}

// labels: alone
TEST_F(CommandLine, EventsAndTheStopAreShownOnTheConsoleFromLevelTwoOnAndNotInTheFile) {
  const std::string file = put_clean("file");
  start();
  Process opener = start_open(file);
  const std::string pid = std::to_string(opener.pid());
  EXPECT_EQ(opener.status(), 0);
  EXPECT_EQ(write_status(file, "clean\n"), 0);
  const auto shows = [&](const std::string& text) {
    return eventually([&] { return output().find(text) != std::string::npos; });
  };
  EXPECT_TRUE(shows("message: " + file + "\n\t type:OPEN\t fd:")) << output();
  EXPECT_TRUE(shows("\t pid:" + pid + "\n")) << output();
  EXPECT_TRUE(shows("message: " + file + "\n\t type:CLOSE_WR\t fd:")) << output();
  stop();
  EXPECT_TRUE(shows("uninitialize\n"));
  EXPECT_EQ(errors(), "terminate signal\n");
  EXPECT_EQ(log().find("message: "), std::string::npos);
  EXPECT_EQ(log().find("uninitialize"), std::string::npos);
  world().put(work("stdout"), "");
  set("Loglevel", "1");
  start();
  EXPECT_EQ(open_status(file), 0);
  stop();
  EXPECT_EQ(output(), "") << "at level 1 nothing of it";
  EXPECT_EQ(errors(), "terminate signal\nterminate signal\n");
}

}  // namespace
}  // namespace e2e
