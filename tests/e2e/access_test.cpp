// What becomes of one open: refused, allowed, scanned or not.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "fixture.h"

namespace e2e {
namespace {

class Access : public E2eTest {};

/// Overwrites the beginning of a file through a mapping that outlives the descriptor.
int write_through_mapping(const std::string& path, const char* text) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  const size_t size = std::strlen(text);
  if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
    return errno;
  }
  void* mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (mapping == MAP_FAILED) {
    return ENOMEM;
  }
  std::memcpy(mapping, text, size);
  return munmap(mapping, size);
}

TEST_F(Access, InfectedFileIsRefusedForReadingAndForWriting) {
  const std::string file = put_infected("bad");
  start();
  EXPECT_EQ(open_status(file, O_RDONLY), EPERM);
  EXPECT_EQ(open_status(file, O_WRONLY), EPERM);
  EXPECT_EQ(open_status(file, O_RDWR), EPERM);
  EXPECT_EQ(scans(file), 3U) << "a file that is refused is never cached";
  EXPECT_EQ(world().read(file), "!detect name=Test.Infected \n");
}

TEST_F(Access, CleanFileOpensForReadingAndForWriting) {
  const std::string file = put_clean("good");
  start();
  EXPECT_EQ(open_status(file, O_RDONLY), 0);
  EXPECT_EQ(open_status(file, O_WRONLY), 0);
  EXPECT_EQ(open_status(file, O_RDWR), 0);
}

// Sizes that 31 and 32 bits cannot hold.
TEST_F(Access, FilesOfThreeAndFiveGibibytesAreScannedAndOpenedOrRefused) {
  for (const off_t gibibytes : {3, 5}) {
    world().resize(put_clean("good" + std::to_string(gibibytes)), gibibytes << 30);
    world().resize(put_infected("bad" + std::to_string(gibibytes)), gibibytes << 30);
  }
  start();
  for (const char* size : {"3", "5"}) {
    const std::string clean = watched(std::string("good") + size);
    const std::string infected = watched(std::string("bad") + size);
    EXPECT_EQ(open_status(clean, O_RDONLY), 0) << size;
    EXPECT_EQ(scans(clean), 1U) << size;
    EXPECT_EQ(open_status(clean, O_RDWR), 0) << size;
    EXPECT_EQ(open_status(infected, O_RDONLY), EPERM) << size;
    EXPECT_EQ(scans(infected), 1U) << size << ": the kernel refused it by itself";
  }
}

TEST_F(Access, InfectedProgramIsNotExecuted) {
  world().put(watched("program"), "!detect\n", 0755);
  start();
  Process runner([&] {
    execl(watched("program").c_str(), "program", nullptr);
    return errno;
  });
  EXPECT_EQ(runner.status(), EPERM);
}

TEST_F(Access, FileIsScannedOnOpenAndAgainOnCloseAfterWriting) {
  const std::string file = put_clean("file");
  start();
  EXPECT_EQ(write_status(file, "still clean\n"), 0);
  EXPECT_TRUE(eventually([&] { return scans(file) == 2; })) << engine_record();
}

TEST_F(Access, NewFileIsScannedWhenItIsClosed) {
  start();
  const std::string file = watched("new");
  EXPECT_EQ(write_status(file, "!detect name=Test.Written\n"), 0);
  EXPECT_TRUE(eventually([&] { return logged("Detection name: \"Test.Written\""); }));
  // Until the scan's verdict is in, the one from before it was written holds.
  EXPECT_TRUE(eventually([&] { return open_status(file) == EPERM; }));
}

TEST_F(Access, ClosingWithoutHavingOpenedForWritingIsNoReasonToScan) {
  const std::string file = put_infected("bad", "code=0");
  const std::string after = put_clean("after");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(open_status(after), 0);
  EXPECT_EQ(scans_begun(file), 1U);
}

TEST_F(Access, EngineErrorAllowsTheAccess) {
  const std::string error = put("error", "!code -1\n");
  const std::string other = put("other", "!detect\n!code 3\n");
  start();
  EXPECT_EQ(open_status(error), 0);
  EXPECT_EQ(open_status(other), 0) << "3 is no detection, whatever the engine reported";
  EXPECT_EQ(scans(error), 1U);
  EXPECT_EQ(scans(other), 1U);
}

TEST_F(Access, BothDetectionCodesAreRefused) {
  const std::string one = put_infected("one", "code=1");
  const std::string two = put_infected("two", "code=2");
  start();
  EXPECT_EQ(open_status(one), EPERM);
  EXPECT_EQ(open_status(two), EPERM);
  EXPECT_TRUE(World::exists(two)) << "an engine's code 2 is not the outcome that removes";
}

TEST_F(Access, IgnoredDetectionTypesAreAllowed) {
  const std::string adware = put_infected("adware", "type=2");
  const std::string joke = put_infected("joke", "type=12");
  start();
  EXPECT_EQ(open_status(adware), 0) << "adware is ignored by default";
  EXPECT_EQ(open_status(joke), EPERM);
}

TEST_F(Access, DetectionTypesAreIgnoredAsTheConfigurationSays) {
  const std::string adware = put_infected("adware", "type=2");
  const std::string joke = put_infected("joke", "type=12");
  set("IgnoreAdwareDetections", "no");
  set("IgnoreJokeDetections", "yes");
  start();
  EXPECT_EQ(open_status(adware), EPERM);
  EXPECT_EQ(open_status(joke), 0);
}

TEST_F(Access, OnlyRegularFilesAreScanned) {
  ASSERT_EQ(mkfifo(watched("fifo").c_str(), 0644), 0);
  ASSERT_EQ(mknod(watched("device").c_str(), S_IFCHR | 0644, makedev(1, 3)), 0);
  World::make_folder(watched("folder"));
  start();
  EXPECT_EQ(open_status(watched("fifo"), O_RDONLY | O_NONBLOCK), 0);
  EXPECT_EQ(open_status(watched("device")), 0);
  EXPECT_EQ(open_status(watched("folder"), O_RDONLY | O_DIRECTORY), 0);
  EXPECT_EQ(open_status(put_infected("bad")), EPERM) << "the watch goes on";
  EXPECT_EQ(engine_calls("vseExec").size(), 1U);
}

TEST_F(Access, FifoWithoutAPartnerHoldsUpNobody) {
  ASSERT_EQ(mkfifo(watched("fifo").c_str(), 0644), 0);
  const std::string file = put_clean("good");
  start();
  const Process reader = start_open(watched("fifo"), O_RDONLY);
  const Process writer = start_open(watched("fifo"), O_WRONLY);
  EXPECT_EQ(open_status(file), 0);
}

TEST_F(Access, FilesTheEngineOpensItselfAreNotHeld) {
  const std::string other = put_infected("other");
  const std::string file = put("opens", "!open " + other + "\n");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(engine_calls("engine-open", {"errno=0"}).size(), 1U) << engine_record();
  EXPECT_EQ(scans_begun(other), 0U);
}

TEST_F(Access, SlowScanHoldsUpOnlyItsOwnFile) {
  const std::string slow = put("slow", "!wait " + work("go") + "\n");
  const std::string clean = put_clean("clean");
  set_threads(2);
  start();
  Process held = start_open(slow);
  ASSERT_TRUE(eventually([&] { return scans_begun(slow) == 1; }));
  EXPECT_EQ(open_status(clean), 0);
  EXPECT_TRUE(held.running()) << "the open returned before its scan";
  touch(work("go"));
  EXPECT_EQ(held.status(), 0);
}

TEST_F(Access, OpenerThatIsKilledWhileHeldLeavesNothingBehind) {
  const std::string slow = put("slow", "!wait " + work("go") + "\n");
  set_threads(2);
  start();
  Process held = start_open(slow);
  ASSERT_TRUE(eventually([&] { return scans_begun(slow) == 1; }));
  held.kill();
  touch(work("go"));
  EXPECT_TRUE(eventually([&] { return held_descriptors() == 0; }));
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
}

TEST_F(Access, AnswersAndDenialsAreCounted) {
  const std::string clean = put_clean("clean");
  const std::string infected = put_infected("bad");
  start();
  const auto area = StatusArea::map();
  ASSERT_TRUE(area);
  const uint64_t denied = area->denied();
  const uint64_t answered = area->answered();
  EXPECT_EQ(open_status(clean), 0);
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_EQ(area->denied() - denied, 2U);
  EXPECT_GE(area->answered() - answered, 3U);
}

TEST_F(Access, FileWrittenThroughAMappingIsScannedWhenTheMappingGoes) {
  const std::string file = put_clean("mapped");
  start();
  Process writer([&] { return write_through_mapping(file, "!detect"); });
  EXPECT_EQ(writer.status(), 0);
  EXPECT_TRUE(eventually([&] { return logged("infection detected in"); }));
  EXPECT_TRUE(eventually([&] { return open_status(file) == EPERM; }));
}

}  // namespace
}  // namespace e2e
