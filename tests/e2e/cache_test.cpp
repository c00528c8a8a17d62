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

TEST_F(Cache, CleanFileOpenedAgainIsNotScannedAgain) {
  const std::string file = put_clean("file");
  start();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(open_status(file), 0);
  }
  EXPECT_EQ(scans_begun(file), 1U);
}

TEST_F(Cache, InfectedFileIsScannedAtEveryOpen) {
  const std::string file = put_infected("file");
  start();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_status(file), EPERM);
  }
  EXPECT_EQ(scans_begun(file), 3U);
}

TEST_F(Cache, HitIsLoggedWithSizeAndCapacity) {
  const std::string file = put_clean("file");
  set("Loglevel", "3");
  start();
  open_until_capacity(file, 1000);
  EXPECT_TRUE(logged(" cache hit (1, 1000) \"" + file + "\"\n")) << log();
  EXPECT_TRUE(logged(" added: \"" + file + "\"\n"));
}

TEST_F(Cache, WrittenFileIsScannedAgainAndTakesNoSecondEntry) {
  const std::string file = put_clean("file");
  set("Loglevel", "3");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(write_status(file, "also clean\n"), 0);
  ASSERT_TRUE(eventually([&] { return scans(file) == 2; }));
  EXPECT_TRUE(logged(" cache erase " + file + "\n"));
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 2U) << "the written file was clean and is still cached";
  EXPECT_FALSE(logged(" cache hit (2, ")) << log();
}

TEST_F(Cache, CachedFileThatTurnsBadWhenWrittenIsRefusedAfterwards) {
  const std::string file = put_clean("file");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(write_status(file, "!detect\n"), 0);
  ASSERT_TRUE(eventually([&] { return scans(file) == 2; }));
  EXPECT_TRUE(eventually([&] { return open_status(file) == EPERM; }));
  EXPECT_EQ(open_status(file), EPERM);
}

TEST_F(Cache, EntryIsThePathAlone) {
  // Another file moved over a cached path inherits its verdict: a known limit.
  const std::string file = put_clean("file");
  const std::string infected = put_infected("bad");
  start();
  EXPECT_EQ(open_status(file), 0);
  ASSERT_EQ(rename(infected.c_str(), file.c_str()), 0);
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 1U);
}

TEST_F(Cache, EngineErrorIsCachedLikeAnyOtherZero) {
  const std::string file = put("file", "!code -1\n");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 1U);
}

TEST_F(Cache, NothingIsCachedWhileThereIsNoEngineHandle) {
  const std::string file = put_clean("file");
  set_threads(1);
  set("Loglevel", "3");
  script("fail vseInit 2\n");  // the worker's: the first one loads the definitions
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(open_status(file), 0);
  EXPECT_FALSE(logged("cache hit"));
  EXPECT_FALSE(logged("added:"));
}

TEST_F(Cache, UpdateEmptiesIt) {
  const std::string file = put_clean("file");
  stage_definitions();
  start();
  EXPECT_EQ(open_status(file), 0);
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return !engine_calls("vseRelease").empty(); }));
  EXPECT_TRUE(eventually([&] { return open_status(file) == 0 && scans(file) == 2; }));
}

TEST_F(Cache, RefusedUpdateLeavesItAsItIs) {
  const std::string file = put_clean("file");
  stage_definitions();
  script("fail vseExec:14\n");
  start();
  EXPECT_EQ(open_status(file), 0);
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return !engine_calls("vseRelease").empty(); }));
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 1U);
}

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
