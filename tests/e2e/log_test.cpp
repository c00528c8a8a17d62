// The log file, the console, and what is said where.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "fixture.h"

namespace e2e {
namespace {

class Log : public E2eTest {};

TEST_F(Log, FileIsMadeWhereTheConfigurationSaysWithWhatReadingItLogs) {
  set("LogPath", work("a/b/c/"));
  set("DefinitionType", "V2");
  start();
  const std::string text = world().read(work("a/b/c/pelowatchd.log"));
  EXPECT_EQ(count_of(text, "\nget ConfParser::get(): V2\n"), 1U) << text;
  EXPECT_EQ(count_of(text, "\nget ConfParser::get(): MaxRecursion does not exist in the config\n"),
            2U);
  EXPECT_EQ(text.find("addmnt(): adding mount point"), std::string::npos);
  EXPECT_EQ(text.find("Include folder"), std::string::npos);
  EXPECT_FALSE(World::exists("/var/log/pelowatchd.log"));
  struct stat info {};
  ASSERT_EQ(stat(work("a/b/c/pelowatchd.log").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640U);
  ASSERT_EQ(stat(work("a/b").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0755U);
}

TEST_F(Log, FileAtItsLimitIsEmptiedBeforeTheNextRecord) {
  const std::string file = put_infected("bad");
  world().put(work("log/pelowatchd.log"), "from before\n");
  start();
  EXPECT_EQ(log().find("from before\n\nAt "), 0U) << log();
  stop();
  set("Maxlog", "0");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_EQ(log().find("\nAt "), 0U);
  EXPECT_EQ(count_of(log(), "\nAt "), 1U) << log();
  EXPECT_TRUE(logged("infection detected in: "));
}

// From the first record on, which reading the configuration writes.
TEST_F(Log, FileBeyondTheProcessSizeLimitCostsRecordsOnly) {
  const std::string file = put_infected("bad");
  const std::string before(256 * 1024, 'x');
  world().put(work("log/pelowatchd.log"), before);
  Launch limited;
  limited.wrapper = {"/bin/sh", "-c", R"(ulimit -f 128; exec "$0" "$@")"};
  start(limited);
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_EQ(log(), before);
}

TEST_F(Log, EventsAreShownOnTheConsoleFromLevelTwoOn) {
  const std::string file = put_clean("file");
  start();
  Process opener = start_open(file);
  const std::string pid = std::to_string(opener.pid());
  EXPECT_EQ(opener.status(), 0);
  EXPECT_TRUE(eventually([&] { return !output().empty(); }));
  const std::string text = output();
  EXPECT_EQ(text.find("message: " + file + "\n\t type:OPEN\t fd:"), 0U) << text;
  EXPECT_NE(text.find("\t pid:" + pid + "\n"), std::string::npos) << text;
  EXPECT_EQ(write_status(file, "clean\n"), 0);
  EXPECT_TRUE(eventually([&] {
    return output().find("message: " + file + "\n\t type:CLOSE_WR\t fd:") != std::string::npos;
  })) << output();
}

TEST_F(Log, StopIsSaidOnTheConsoleAndNotInTheFile) {
  const std::string file = put_infected("bad");
  start();
  const std::string before = log();
  stop();
  EXPECT_EQ(output(), "uninitialize\n");
  EXPECT_EQ(errors(), "terminate signal\n");
  EXPECT_EQ(log(), before);
  for (const char* stream : {"stdout", "stderr"}) {
    world().put(work(stream), "");
  }
  set("Loglevel", "1");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  stop();
  EXPECT_EQ(output(), "") << "at level 1 nothing of it";
  EXPECT_EQ(errors(), "terminate signal\n");
}

// labels: essential
TEST_F(Log, TraceFollowsEachStepOfAWorker) {
  const std::string file = put_clean("file");
  set_threads(1);
  set("Loglevel", "3");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(open_status(file), 0);
  // The worker is woken for an event that finds it asleep, as the first ones may not.
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(open_status(file), 0);
    return logged("Thread 0 detected reload request\n");
  })) << log();
  EXPECT_EQ(write_status(file, "clean\n"), 0);
  ASSERT_TRUE(eventually([&] { return logged("Thread 0 cache erase " + file + "\n"); })) << log();
  const char* const kInOrder[] = {"Thread 0 started, max cache entries: 1000\n",
                                  "Thread 0 started, engine status: 1\n",
                                  "Thread 0 doing work\n",
                                  "Thread 0 avh_init 1\n",
                                  "Thread 0 added: \"",
                                  "Thread 0 doing work\n",
                                  "Thread 0 cache hit (1, 1000) \"",
                                  "Thread 0 cache erase "};
  size_t at = 0;
  const std::string text = log();
  for (const char* line : kInOrder) {
    const size_t found = text.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "\n" << text;
    at = found + 1;
  }
  const size_t woken = text.find("Thread 0 detected reload request\n");
  EXPECT_NE(text.find("Thread 0 doing work\n", woken), std::string::npos) << text;
}

TEST_F(Log, TraceNumbersTheWorkersFromZeroAndSaysWhoHasAHandle) {
  const std::string file = put_clean("file");
  set("Loglevel", "3");
  for (const char* status : {"1", "0"}) {
    start();
    for (int number = 0; number < 5; ++number) {
      const std::string started = "Thread " + std::to_string(number) + " started, engine status: ";
      EXPECT_TRUE(eventually([&] { return logged(started + status + "\n"); })) << started;
    }
    EXPECT_EQ(open_status(file), 0);
    EXPECT_TRUE(eventually([&] { return logged(std::string(" avh_init ") + status + "\n"); }));
    EXPECT_FALSE(logged("Thread 5 "));
    stop();
    script("fail vseInit\n");
  }
}

TEST_F(Log, TraceTellsOfARenewal) {
  stage_definitions();
  set_threads(1);
  set("Loglevel", "3");
  start();
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return logged("service_thread av database updated.\n"); }));
  EXPECT_EQ(open_status(put_clean("file")), 0);
  EXPECT_TRUE(eventually([&] {
    return logged("Thread 0 detected update request. Cache cleared\n");
  })) << log();
}

}  // namespace
}  // namespace e2e
