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

TEST_F(Log, FileIsWhereTheConfigurationSaysWithOrWithoutASlash) {
  for (const std::string& path : {work("log"), work("log") + "/"}) {
    set("LogPath", path);
    start();
    EXPECT_FALSE(log().empty()) << path;
    stop();
    unlink(work("log/pelowatchd.log").c_str());
  }
}

TEST_F(Log, WhatReadingTheConfigurationLogsIsAlreadyWrittenThere) {
  // Wherever the key stands in the file.
  for (const bool first : {true, false}) {
    drop("LogPath");
    drop("DefinitionType");
    add("DefinitionType", "V2");
    if (first) {
      drop("DefinitionType");
    }
    add("LogPath", work("log"));
    if (first) {
      add("DefinitionType", "V2");
    }
    start();
    EXPECT_EQ(count_of(log(), "\nget ConfParser::get(): V2\n"), 1U) << log();
    EXPECT_EQ(
        count_of(log(), "\nget ConfParser::get(): MaxRecursion does not exist in the config\n"),
        2U);
    EXPECT_FALSE(World::exists("/var/log/pelowatchd.log"));
    stop();
    unlink(work("log/pelowatchd.log").c_str());
  }
}

TEST_F(Log, FolderIsMadeAndTheFileIsNotForEverybody) {
  set("LogPath", work("a/b/c"));
  start();
  struct stat info {};
  ASSERT_EQ(stat(work("a/b/c/pelowatchd.log").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640U);
  ASSERT_EQ(stat(work("a/b").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0755U);
}

TEST_F(Log, FileAtItsLimitIsEmptiedBeforeTheNextRecord) {
  const std::string file = put_infected("bad");
  set("Maxlog", "1");
  world().put(work("log/pelowatchd.log"), std::string(size_t{1} << 20, 'x'));
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_LT(log().size(), size_t{100} << 10);
  EXPECT_FALSE(logged("xxxx"));
  EXPECT_TRUE(logged("infection detected in: "));
}

TEST_F(Log, LimitOfZeroKeepsOnlyTheLastRecord) {
  const std::string file = put_infected("bad");
  set("Maxlog", "0");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_EQ(log().find("\nAt "), 0U);
  EXPECT_EQ(count_of(log(), "\nAt "), 1U) << log();
  EXPECT_TRUE(logged("infection detected in: "));
}

TEST_F(Log, RecordsAreAppendedToWhatIsThere) {
  world().put(work("log/pelowatchd.log"), "from before\n");
  start();
  EXPECT_EQ(log().find("from before\n\nAt "), 0U) << log();
}

TEST_F(Log, StartUpMessagesAboutMountsAndPathsAreNotWritten) {
  start();
  EXPECT_FALSE(logged("addmnt(): adding mount point"));
  EXPECT_FALSE(logged("Include folder"));
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

TEST_F(Log, ConsoleStaysEmptyAtLevelOne) {
  const std::string file = put_infected("bad");
  set("Loglevel", "1");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  stop();
  EXPECT_EQ(output(), "");
  EXPECT_EQ(errors(), "terminate signal\n");
}

TEST_F(Log, StopIsSaidOnTheConsoleAndNotInTheFile) {
  start();
  const std::string before = log();
  stop();
  EXPECT_EQ(output(), "uninitialize\n");
  EXPECT_EQ(errors(), "terminate signal\n");
  EXPECT_EQ(log(), before);
}

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

TEST_F(Log, TraceNumbersTheWorkersFromZero) {
  set("Loglevel", "3");
  start();
  for (int number = 0; number < 5; ++number) {
    const std::string thread = "Thread " + std::to_string(number);
    EXPECT_TRUE(eventually([&] { return logged(thread + " started, engine status: 1\n"); }))
        << thread;
  }
  EXPECT_FALSE(logged("Thread 5 "));
}

TEST_F(Log, WorkerWithoutAHandleSaysSoForEachEvent) {
  const std::string file = put_clean("file");
  set_threads(1);
  set("Loglevel", "3");
  script("fail vseInit\n");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_TRUE(logged("Thread 0 started, engine status: 0\n")) << log();
  EXPECT_TRUE(logged("Thread 0 avh_init 0\n"));
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

TEST_F(Log, AsynchronousRecordsKeepTheirOrder) {
  set("AsyncLogging", "yes");
  set_threads(1);
  start();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(open_status(put_infected("bad" + std::to_string(i))), EPERM);
  }
  EXPECT_TRUE(eventually([&] { return count_of(log(), "infection detected in: ") == 100; }));
  const std::string text = log();
  size_t at = 0;
  for (int i = 0; i < 100; ++i) {
    at = text.find("infection detected in: Session ID: 4097\nPath: \"" +
                       watched("bad" + std::to_string(i)) + "\"",
                   at);
    ASSERT_NE(at, std::string::npos) << i;
  }
}

}  // namespace
}  // namespace e2e
