// Which opens need a scan: the cache of clean paths.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include "fixture.h"

namespace e2e {
namespace {

class Cache : public E2eTest {
 protected:
  /// Opens `file` until the log shows that the cache has the capacity given by the configuration:
  /// the service thread sets it at about the time the first events are served.
  void open_until_capacity(const std::string& file, int capacity) {
    const std::string end = ", " + std::to_string(capacity) + ") \"" + file + "\"";
    ASSERT_TRUE(eventually([&] { return open_status(file) == 0 && logged(end); })) << log();
  }
};

// labels: essential one-processor
TEST_F(Cache, CleanFileOpenedAgainIsNotScannedAgain) {
  const std::string file = put_clean("file");
  const std::string error = put("error", "!code -1\n");
  const std::string infected = put_infected("bad");
  set("Loglevel", "3");
  start();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_status(file), 0);
    EXPECT_EQ(open_status(infected), EPERM);
  }
  EXPECT_EQ(scans_begun(file), 1U);
  EXPECT_EQ(scans_begun(infected), 3U);
  open_until_capacity(file, 1000);
  EXPECT_TRUE(logged(" cache hit (1, 1000) \"" + file + "\"\n")) << log();
  EXPECT_TRUE(logged(" added: \"" + file + "\"\n"));
  EXPECT_EQ(open_status(error), 0);
  EXPECT_EQ(open_status(error), 0);
  EXPECT_EQ(scans_begun(error), 1U) << "an engine's error is cached like any other zero";
  // An entry is the path alone: another file moved over it inherits the verdict, a known limit.
  ASSERT_EQ(rename(infected.c_str(), file.c_str()), 0);
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 1U);
}

// labels: essential
TEST_F(Cache, WrittenFileIsScannedAgainAndTakesNoSecondEntry) {
  const std::string file = put_clean("file");
  set("Loglevel", "3");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(write_status(file, "also clean\n"), 0);
  ASSERT_TRUE(eventually([&] { return scans(file) == 2; }));
  EXPECT_TRUE(eventually([&] { return logged(" cache erase " + file + "\n"); }));
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 2U) << "the written file was clean and is still cached";
  EXPECT_FALSE(logged(" cache hit (2, ")) << log();
  EXPECT_EQ(write_status(file, "!detect\n"), 0);
  ASSERT_TRUE(eventually([&] { return scans(file) == 3; }));
  EXPECT_TRUE(eventually([&] { return open_status(file) == EPERM; }));
  EXPECT_EQ(open_status(file), EPERM);
}

TEST_F(Cache, NothingIsCachedWhileThereIsNoEngineHandle) {
  const std::string file = put_clean("file");
  set_threads(1);
  set("Loglevel", "3");
  script("fail vseInit\n");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(open_status(file), 0);
  EXPECT_FALSE(logged("cache hit"));
  EXPECT_FALSE(logged("added:"));
}

// labels: essential
TEST_F(Cache, UpdateEmptiesItAndARefusedOneDoesNot) {
  const std::string file = put_clean("file");
  stage_definitions();
  script("fail vseExec:14 1\n");
  start();
  EXPECT_EQ(open_status(file), 0);
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return !engine_calls("vseRelease").empty(); }));
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 1U);
  // A request that comes while the service thread is busy is dropped, so it is made again.
  EXPECT_TRUE(eventually([&] {
    daemon().signal(SIGHUP);
    return open_status(file) == 0 && scans(file) >= 2;
  }));
}

// labels: essential
TEST_F(Cache, FullCacheDropsThePathThatSortsLowest) {
  for (const char* name : {"a", "b", "c", "d"}) {
    put_clean(name);
  }
  set("MaxCacheEntries", "2");
  set("Loglevel", "3");
  start();
  open_until_capacity(watched("b"), 2);
  EXPECT_EQ(open_status(watched("c")), 0);
  EXPECT_EQ(open_status(watched("a")), 0);  // b goes
  EXPECT_EQ(open_status(watched("c")), 0);
  EXPECT_EQ(scans_begun(watched("c")), 1U);
  EXPECT_EQ(open_status(watched("d")), 0);  // a goes
  EXPECT_EQ(open_status(watched("c")), 0);
  EXPECT_EQ(scans_begun(watched("c")), 1U);
  EXPECT_EQ(open_status(watched("b")), 0);  // was gone; c goes
  EXPECT_EQ(scans_begun(watched("b")), 2U);
}

TEST_F(Cache, CapacityOfZeroKeepsOneEntry) {
  put_clean("a");
  put_clean("b");
  set("MaxCacheEntries", "0");
  set("Loglevel", "3");
  start();
  open_until_capacity(watched("a"), 0);
  EXPECT_EQ(open_status(watched("b")), 0);
  EXPECT_EQ(open_status(watched("b")), 0);
  EXPECT_EQ(scans_begun(watched("b")), 1U);
  EXPECT_FALSE(logged(" cache hit (2, ")) << log();
}

}  // namespace
}  // namespace e2e
