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
  /// Writes the configuration as it is; the harness's own is not used.
  void start_with_configuration(const std::string& path) {
    Launch launch;
    launch.arguments = {"-n", "-c", path};
    start(launch);
  }

  /// The work of the daemon goes on.
  void expect_service() {
    EXPECT_EQ(open_status(put_infected("bad")), EPERM);
    EXPECT_EQ(open_status(put_clean("good")), 0);
  }

  /// Makes what a daemon that was killed, or somebody else, may have left in shared memory.
  static void leave_area(off_t size, pid_t owner) {
    const int fd = open(StatusArea::kPath, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, size), 0);
    if (size >= static_cast<off_t>(StatusArea::kOwnerOffset + sizeof(owner))) {
      ASSERT_EQ(pwrite(fd, &owner, sizeof(owner), StatusArea::kOwnerOffset),
                static_cast<ssize_t>(sizeof(owner)));
    }
    close(fd);
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

  static pid_t dead_pid() {
    Process gone([] { return 0; });
    EXPECT_EQ(gone.status(), 0);
    return gone.pid();
  }
};

// Configuration.

TEST_F(BadInput, MissingConfigurationFileMeansDefaults) {
  start_with_configuration(work("absent.conf"));
  expect_service();
  EXPECT_TRUE(World::exists("/var/log/pelowatchd.log"));
}

TEST_F(BadInput, FolderInPlaceOfTheConfigurationFileMeansDefaults) {
  start_with_configuration(work("conf"));
  expect_service();
}

TEST_F(BadInput, EmptyConfigurationFileMeansDefaults) {
  world().put(work("empty.conf"), "");
  start_with_configuration(work("empty.conf"));
  expect_service();
}

TEST_F(BadInput, ConfigurationOfRandomBytesIsSurvived) {
  std::mt19937 random(4711);
  std::string bytes;
  for (int i = 0; i < 100000; ++i) {
    bytes += static_cast<char>(random() % 256);
  }
  world().put(work("random.conf"), bytes);
  start_with_configuration(work("random.conf"));
  expect_service();
}

TEST_F(BadInput, UnknownKeysAndOddLinesAreIgnored) {
  add("UnknownKey", "value");
  add("#", "a comment");
  add("maxthreads", "0");  // keys are case-sensitive
  add("KeyWithoutValue", "");
  add("MaxThreads=3", "");
  start();
  expect_service();
  EXPECT_TRUE(eventually([&] { return engine_calls("vseInit").size() == 5; }));
}

TEST_F(BadInput, WordsWhereNumbersBelongLeaveTheDefaults) {
  for (const char* key : {"MaxThreads", "MaxArchiveDepth", "MaxCacheEntries", "DecompressLimit",
                          "Loglevel", "Maxlog", "DefaultAction"}) {
    set(key, "many");
  }
  start();
  EXPECT_EQ(count_of(log(), "\nget ConfParser::get(): Exception: \n"), 7U) << log();
  expect_service();
  EXPECT_TRUE(eventually([&] { return engine_calls("vseInit").size() == 5; }));
  EXPECT_FALSE(engine_calls("vseSet", {"property=30 index=0 size=4 value=2 "}).empty());
  EXPECT_FALSE(engine_calls("vseSet", {"property=4 index=0 size=4 value=0 "}).empty());
}

TEST_F(BadInput, NumberTooLargeIsClamped) {
  set("MaxArchiveDepth", "99999999999999999999");
  set("Maxlog", "99999999999999999999");
  start();
  expect_service();
  EXPECT_FALSE(engine_calls("vseSet", {"property=30 index=0 size=4 value=2147483647 "}).empty())
      << engine_record();
}

TEST_F(BadInput, RepeatedKeyUsesItsFirstValue) {
  set("MaxThreads", "2");
  add("MaxThreads", "7");
  start();
  expect_service();
  EXPECT_TRUE(
      logged("\nget ConfParser::get(): multiple values exist in the config. First value "
             "used\n"));
  EXPECT_EQ(engine_calls("vseInit").size(), 2U);
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

TEST_F(BadInput, LogPathOfTenMegabytesMeansNoLog) {
  set("LogPath", "/" + std::string(size_t{10} << 20, 'x'));
  start();
  expect_service();
}

// The log.

TEST_F(BadInput, LogFolderThatCannotBeMadeMeansNoLog) {
  for (const std::string& path :
       {work("probe/log"), std::string("/proc/log"), std::string("/dev/null")}) {
    set("LogPath", path);
    start();
    expect_service();
    stop();
  }
}

TEST_F(BadInput, LogFileThatIsAFolderMeansNoLog) {
  World::make_folder(work("log/pelowatchd.log"));
  start();
  expect_service();
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

TEST_F(BadInput, MissingEventLibraryBlocksNobody) {
  Launch launch;
  launch.environment["LD_LIBRARY_PATH"] = std::string(PELO_LIBRARIES) + "/scripted";
  start(launch);
  expect_service();
  EXPECT_TRUE(logged("infection detected in: "));
  EXPECT_TRUE(events().empty());
}

TEST_F(BadInput, EventLibraryWithoutItsFunctionBlocksNobody) {
  const std::string libraries = PELO_LIBRARIES;
  Launch launch;
  launch.environment["LD_LIBRARY_PATH"] =
      libraries + "/scripted:" + libraries + "/event-without-push";
  start(launch);
  expect_service();
  EXPECT_TRUE(logged("infection detected in: "));
}

// The status area.

TEST_F(BadInput, ShortAreaIsReplaced) {
  leave_area(10, 0);
  start();
  expect_service();
  EXPECT_EQ(daemon_pid(), daemon().pid());
}

TEST_F(BadInput, EmptyAreaIsReplaced) {
  leave_area(0, 0);
  start();
  expect_service();
}

TEST_F(BadInput, StaleAreaIsReplacedByAFreshOne) {
  leave_area(static_cast<off_t>(StatusArea::kSize), dead_pid());
  {
    auto stale = StatusArea::map();
    stale->scribble(StatusArea::kAnsweredOffset, 16, 0xff);
    stale->set_mask(0x3ff);
  }
  launch();
  ASSERT_TRUE(eventually([&] { return daemon_pid() == daemon().pid(); }));
  wait_until_ready();
  EXPECT_LT(StatusArea::map()->answered(), uint64_t{1} << 32);
  expect_service();
}

TEST_F(BadInput, SharedMemoryWithoutRoomForTheAreaEndsTheStartWithAMessage) {
  ASSERT_EQ(mount("none", "/dev/shm", nullptr, MS_REMOUNT, "size=16k"), 0);
  launch();
  EXPECT_EQ(daemon().wait(), (Exit{255, 0}));
  expect_no_clean_end();
  EXPECT_TRUE(logged("Unable to register filter."));
}

TEST_F(BadInput, AreaOfALiveProcessIsLeftAlone) {
  leave_area(static_cast<off_t>(StatusArea::kSize), getpid());
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

TEST_F(BadInput, AreaThatNamesAnotherOwnerChangesNoVerdict) {
  const std::string bad = put_infected("bad");
  start();
  auto area = StatusArea::map();
  area->set_owner(1);
  EXPECT_EQ(open_status(bad), EPERM) << "this test's processes are not the owner";
  area->set_owner(daemon().pid());
}

TEST_F(BadInput, AreaUnlinkedWhileRunningBlocksNobody) {
  start();
  ASSERT_EQ(unlink(StatusArea::kPath), 0);
  expect_service();
  daemon().signal(SIGTERM);
  EXPECT_EQ(daemon().wait(), Exit{});
}

TEST_F(BadInput, AreaCutOffWhileRunningBlocksNobody) {
  const std::string bad = put_infected("bad");
  start();
  ASSERT_EQ(truncate(StatusArea::kPath, 0), 0);
  EXPECT_EQ(open_status(bad), EPERM);
  EXPECT_TRUE(daemon().running());
}

}  // namespace
}  // namespace e2e
