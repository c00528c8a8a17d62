// Input that is missing, broken or hostile: the daemon runs on, and nobody is blocked.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <random>

#include "fixture.h"

namespace e2e {
namespace {

class BadInput : public E2eTest {
 protected:
  /// The work of the daemon goes on.
  void expect_service() {
    EXPECT_EQ(open_status(put_infected("bad")), EPERM);
    EXPECT_EQ(open_status(put_clean("good")), 0);
  }

  /// Writes a file until its file system takes no further byte.
  void fill_disk(const std::string& file) {
    const int fd = world().open_unseen(file, O_WRONLY | O_CREAT);
    ASSERT_GE(fd, 0);
    while (write(fd, "x", 1) == 1) {
    }
    EXPECT_EQ(errno, ENOSPC);
    close(fd);
  }
};

// Configuration.

TEST_F(BadInput, ConfigurationThatHoldsNothingMeansDefaults) {
  std::mt19937 random(4711);
  std::string bytes;
  for (int i = 0; i < 100000; ++i) {
    bytes += static_cast<char>(random() % 256);
  }
  world().put(work("random.conf"), bytes);
  world().put(work("empty.conf"), "");
  for (const char* name : {"absent.conf", "conf", "empty.conf", "random.conf"}) {
    start({.arguments = {"-n", "-c", work(name)}});
    expect_service();
    stop();
  }
  EXPECT_TRUE(World::exists("/var/log/pelowatchd.log"));
}

TEST_F(BadInput, OddKeysAndValuesLeaveTheDefaults) {
  add("UnknownKey", "value");
  add("#", "a comment");
  add("maxthreads", "0");  // keys are case-sensitive
  add("KeyWithoutValue", "");
  add("MaxThreads=3", "");
  for (const char* key : {"MaxThreads", "MaxCacheEntries", "DecompressLimit", "Loglevel", "Maxlog",
                          "DefaultAction"}) {
    set(key, "many");
  }
  set("MaxArchiveDepth", "99999999999999999999");
  add("MaxArchiveDepth", "1");
  start();
  EXPECT_EQ(count_of(log(), "\nget ConfParser::get(): Exception: \n"), 6U) << log();
  EXPECT_TRUE(
      logged("\nget ConfParser::get(): multiple values exist in the config. First value "
             "used\n"));
  expect_service();
  EXPECT_TRUE(eventually([&] { return engine_calls("vseInit").size() == 5; }));
  EXPECT_FALSE(engine_calls("vseSet", {"property=30 index=0 size=4 value=2147483647 "}).empty());
  EXPECT_FALSE(engine_calls("vseSet", {"property=4 index=0 size=4 value=0 "}).empty());
}

TEST_F(BadInput, HugeValuesAreSurvived) {
  const std::string huge(size_t{PELO_SLOW ? 1 : 10} << 20, 'x');
  for (const char* key : {"CloudAccessKey", "DatabaseDirectory", "MaxThreads", "IgnoreTool",
                          "DefaultAction", "StagingDirectory", "ScanEngineDirectory", "Unknown"}) {
    set(key, huge);
  }
  add("IncludeDirectory", "/" + huge);
  add("ExcludeFile", huge);
  start();
  daemon().signal(SIGHUP);
  expect_service();
}

// The log.

TEST_F(BadInput, LogThatCannotBeMadeMeansNoLog) {
  World::make_folder(work("log/pelowatchd.log"));
  for (const std::string& path :
       {work("probe/log"), std::string("/proc/log"), std::string("/dev/null"), work("log"),
        "/" + std::string(size_t{10} << 20, 'x')}) {
    set("LogPath", path);
    start();
    expect_service();
    stop();
  }
}

TEST_F(BadInput, LogOnAFullDiskStopsNobody) {
  world().mount_on(work("log"));
  ASSERT_EQ(mount("none", work("log").c_str(), nullptr, MS_REMOUNT, "size=16k"), 0);
  fill_disk(work("log/filler"));
  for (const char* asynchronous : {"no", "yes"}) {
    set("AsyncLogging", asynchronous);
    start();
    expect_service();
    EXPECT_TRUE(World::exists(work("log/pelowatchd.log")));
    EXPECT_EQ(log(), "") << "there was room for it";
    stop();
  }
}

// The engine.

// labels: long
TEST_F(BadInput, EngineThatFailsAnyOfItsCallsBlocksNobody) {
  const std::string bad = put_infected("bad");
  const std::string clean = put_clean("good");
  stage_definitions();
  const std::pair<const char*, int> kCalls[] = {
      {"vseGlobalInit", 0}, {"vseGlobalRelease", EPERM}, {"vseInit", 0}, {"vseRelease", EPERM},
      {"vseSet", 0},        {"vseGet", EPERM},           {"vseExec", 0}, {"vseExec:14", EPERM},
      {"vseExec:9", 0}};
  for (const auto& [call, expected] : kCalls) {
    script(std::string("fail ") + call + "\n");
    start();
    EXPECT_EQ(open_status(bad), expected) << call;
    EXPECT_EQ(open_status(clean), 0) << call;
    daemon().signal(SIGHUP);
    EXPECT_EQ(open_status(bad), expected) << call;
    stop();
  }
}

TEST_F(BadInput, EventLibraryThatIsMissingOrOfNoUseBlocksNobody) {
  const std::string libraries = PELO_LIBRARIES;
  size_t detections = 0;
  for (const std::string& path :
       {libraries + "/scripted", libraries + "/scripted:" + libraries + "/event-without-push"}) {
    start({.environment = {{"LD_LIBRARY_PATH", path}}});
    expect_service();
    EXPECT_EQ(count_of(log(), "infection detected in: "), ++detections);
    stop();
  }
  EXPECT_TRUE(events().empty());
}

// The status area.

TEST_F(BadInput, AreaThatIsShortOrStaleIsReplacedByAFreshOne) {
  const std::pair<off_t, pid_t> left[] = {
      {0, 0}, {10, 0}, {static_cast<off_t>(StatusArea::kSize), dead_pid()}};
  for (const auto& [size, owner] : left) {
    leave_area(owner, size);
    if (auto stale = StatusArea::map()) {
      stale->scribble(StatusArea::kAnsweredOffset, 16, 0xff);
      stale->set_mask(0x3ff);
    }
    launch();
    ASSERT_TRUE(eventually([&] { return daemon_pid() == daemon().pid(); })) << size;
    wait_until_ready();
    EXPECT_LT(StatusArea::map()->answered(), uint64_t{1} << 32);
    expect_service();
    stop();
  }
}

TEST_F(BadInput, SharedMemoryWithoutRoomForTheAreaEndsTheStartWithAMessage) {
  ASSERT_EQ(mount("none", "/dev/shm", nullptr, MS_REMOUNT, "size=16k"), 0);
  launch();
  EXPECT_EQ(daemon().wait(), (Exit{255, 0}));
  expect_no_clean_end();
  EXPECT_TRUE(logged("Unable to register filter."));
  EXPECT_TRUE(logged("the filter cannot be made: No space left on device"));
}

TEST_F(BadInput, AreaOfALiveProcessIsLeftAlone) {
  leave_area(getpid());
  const auto mine = StatusArea::map();  // an owner is only who has it mapped
  launch();
  EXPECT_EQ(daemon().wait(), (Exit{255, 0}));
  expect_no_clean_end();
  EXPECT_EQ(daemon_pid(), getpid());
  EXPECT_TRUE(
      logged("Unable to register filter. Check that daemon is run under root permissions."));
  EXPECT_FALSE(World::exists("/run/pelo/pelowatchd.pid"));
}

TEST_F(BadInput, AreaScribbledOverWhileRunningChangesNoVerdict) {
  const std::string bad = put_infected("bad");
  const std::string clean = put_clean("good");
  start();
  auto area = StatusArea::map();
  for (const int byte : {0xff, 0x01, 0x80, 0x00}) {
    // Everything but the owner, whose file accesses are never held by right.
    area->scribble(0, StatusArea::kOwnerOffset, byte);
    area->scribble(StatusArea::kAnsweredOffset, StatusArea::kSize - StatusArea::kAnsweredOffset,
                   byte);
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(open_status(bad), EPERM) << "byte " << byte;
      EXPECT_EQ(open_status(clean), 0) << "byte " << byte;
    }
  }
}

TEST_F(BadInput, LockOfTheAreaThatIsNeverReleasedBlocksNobody) {
  const std::string bad = put_infected("bad");
  start();
  auto area = StatusArea::map();
  area->set_mask(1);
  const pid_t dead = dead_pid();
  for (size_t word = 0; word < StatusArea::kLockSize / sizeof(dead); ++word) {
    for (const int byte : {0x01, 0x02, 0x7f, 0xff}) {
      area->scribble(StatusArea::kLockOffset + word * sizeof(dead), sizeof(dead), byte);
      EXPECT_EQ(open_status(bad), EPERM);
    }
  }
}

TEST_F(BadInput, AreaCutOffOrUnlinkedWhileRunningOrOfAnotherOwnerBlocksNobody) {
  const std::string bad = put_infected("bad");
  start();
  StatusArea::map()->set_owner(1);
  EXPECT_EQ(open_status(bad), EPERM) << "this test's processes are not the owner";
  ASSERT_EQ(truncate(StatusArea::kPath, 0), 0);
  expect_service();
  ASSERT_EQ(unlink(StatusArea::kPath), 0);
  expect_service();
  daemon().signal(SIGTERM);
  EXPECT_EQ(daemon().wait(), Exit{});
}

}  // namespace
}  // namespace e2e
