// Input that is missing, broken or hostile: the daemon runs on, and nobody is blocked.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

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
};

// Configuration.

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

// From the first record on, which reading the configuration writes.
TEST_F(BadInput, LogBeyondTheProcessSizeLimitCostsRecordsOnly) {
  const std::string before(256 * 1024, 'x');
  world().put(work("log/pelowatchd.log"), before);
  start({.wrapper = {"/bin/sh", "-c", R"(ulimit -f 128; exec "$0" "$@")"}});
  expect_service();
  EXPECT_EQ(log(), before);
}

TEST_F(BadInput, LogOnAFullDiskStopsNobody) {
  world().mount_on(work("log"));
  ASSERT_EQ(mount("none", work("log").c_str(), nullptr, MS_REMOUNT, "size=16k"), 0);
  const int filler = world().open_unseen(work("log/filler"), O_WRONLY | O_CREAT);
  while (write(filler, "x", 1) == 1) {
  }
  close(filler);
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
  const std::pair<const char*, int> odd_calls[] = {
      {"vseGlobalInit", 0}, {"vseGlobalRelease", EPERM}, {"vseInit", 0}, {"vseRelease", EPERM},
      {"vseSet", 0},        {"vseGet", EPERM},           {"vseExec", 0}, {"vseExec:14", EPERM},
      {"vseExec:9", 0}};
  for (const auto& [call, expected] : odd_calls) {
    script(std::string("fail ") + call + "\n");
    start();
    EXPECT_EQ(open_status(bad), expected) << call;
    EXPECT_EQ(open_status(clean), 0) << call;
    daemon().signal(SIGHUP);
    EXPECT_EQ(open_status(bad), expected) << call;
    stop();
  }
}

TEST_F(BadInput, StubInPlaceOfAnEngineIsReportedAndEverythingAllowed) {
  const std::string infected = put_infected("bad");
  set_threads(1);  // who has answered has said whatever there is to say
  start({.environment = {{"LD_LIBRARY_PATH", PELO_STUB_ENGINE}}});
  EXPECT_EQ(open_status(infected), 0);
  EXPECT_EQ(count_of(log(),
                     "Error number: 0x00000001\n"
                     "Error Description: \"Unable to initialize scan engine\"\n"),
            1U)
      << log();
  EXPECT_FALSE(logged("no engine handle")) << log();
  EXPECT_EQ(engine_record(), "");
}

// The status area.

TEST_F(BadInput, SharedMemoryWithoutRoomForTheAreaEndsTheStartWithAMessage) {
  ASSERT_EQ(mount("none", "/dev/shm", nullptr, MS_REMOUNT, "size=16k"), 0);
  launch();
  EXPECT_EQ(daemon().wait(), (Exit{255, 0}));
  expect_no_clean_end();
  EXPECT_TRUE(logged("Unable to register filter."));
  EXPECT_TRUE(logged("the filter cannot be made: No space left on device"));
  EXPECT_FALSE(World::exists(pid_file));
}

TEST_F(BadInput, AreaScribbledOverCutOffAndUnlinkedWhileRunningChangesNoVerdict) {
  const std::string bad = put_infected("bad");
  const std::string clean = put_clean("good");
  start();
  auto area = StatusArea::map();
  // Everything but the owner, whose file accesses are never held by right. The lock is part of it.
  for (const int byte : {0xff, 0x01, 0x80, 0x00}) {
    area->scribble(0, StatusArea::owner_offset, byte);
    area->scribble(StatusArea::answered_offset,
                   StatusArea::total_size - StatusArea::answered_offset, byte);
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(open_status(bad), EPERM) << "byte " << byte;
      EXPECT_EQ(open_status(clean), 0) << "byte " << byte;
    }
  }
  area->set_owner(1);
  EXPECT_EQ(open_status(bad), EPERM) << "this test's processes are not the owner";
  ASSERT_EQ(truncate(StatusArea::path, 0), 0);
  expect_service();
  ASSERT_EQ(unlink(StatusArea::path), 0);
  expect_service();
  daemon().signal(SIGTERM);
  EXPECT_EQ(daemon().wait(), Exit{});
}

}  // namespace
}  // namespace e2e
