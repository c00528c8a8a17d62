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
  const size_t size = std::strlen(text);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
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

// labels: essential one-processor
TEST_F(Access, InfectedFileIsRefusedAndACleanOneOpensForReadingAndForWriting) {
  const std::string infected = put_infected("bad");
  const std::string clean = put_clean("good");
  world().put(watched("program"), "!detect\n", 0755);
  start();
  for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR}) {
    EXPECT_EQ(open_status(infected, flags), EPERM) << flags;
    EXPECT_EQ(open_status(clean, flags), 0) << flags;
  }
  EXPECT_EQ(scans(infected), 3U) << "a file that is refused is never cached";
  EXPECT_EQ(world().read(infected), "!detect name=Test.Infected \n");
  Process runner([&] {
    execl(watched("program").c_str(), "program", nullptr);
    return errno;
  });
  EXPECT_EQ(runner.status(), EPERM) << "an infected program is not executed";
}

// Sizes that 31 and 32 bits cannot hold.
// labels: essential
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

// labels: essential
TEST_F(Access, NewFileIsScannedWhenItIsClosed) {
  const std::string clean = put_clean("file");
  const std::string mapped = put_clean("mapped");
  const std::string read = put_infected("bad", "code=0");
  start();
  EXPECT_EQ(write_status(clean, "still clean\n"), 0);
  EXPECT_TRUE(eventually([&] { return scans(clean) == 2; })) << engine_record();
  EXPECT_EQ(write_status(watched("new"), "!detect name=Test.Written\n"), 0);
  EXPECT_TRUE(eventually([&] { return logged("Detection name: \"Test.Written\""); }));
  Process writer([&] { return write_through_mapping(mapped, "!detect name=Test.Mapped"); });
  EXPECT_EQ(writer.status(), 0);
  EXPECT_TRUE(eventually([&] { return logged("Detection name: \"Test.Mapped\""); }));
  // Until the scan's verdict is in, the one from before it was written holds.
  EXPECT_TRUE(eventually([&] { return open_status(watched("new")) == EPERM; }));
  EXPECT_TRUE(eventually([&] { return open_status(mapped) == EPERM; }));
  // Closing without having opened for writing is no reason to scan.
  EXPECT_EQ(open_status(read), 0);
  EXPECT_EQ(open_status(put_clean("after")), 0);
  EXPECT_EQ(scans_begun(read), 1U);
}

TEST_F(Access, EnginesCodesDecide) {
  const std::pair<std::string, int> files[] = {
      {put_infected("one", "code=1"), EPERM},
      {put_infected("two", "code=2"), EPERM},
      {put("other", "!detect\n!code 3\n"), 0},  // no detection, whatever the engine reported
      {put("error", "!code -1\n"), 0}};
  start();
  for (const auto& [file, verdict] : files) {
    EXPECT_EQ(open_status(file), verdict) << file;
    EXPECT_EQ(scans(file), 1U) << file;
    EXPECT_TRUE(World::exists(file)) << "an engine's code 2 is not the outcome that removes";
  }
}

TEST_F(Access, DetectionTypesAreIgnoredAsTheConfigurationSays) {
  const std::string adware = put_infected("adware", "type=2");
  const std::string joke = put_infected("joke", "type=12");
  start();
  EXPECT_EQ(open_status(adware), 0) << "adware is ignored by default";
  EXPECT_EQ(open_status(joke), EPERM);
  stop();
  set("IgnoreAdwareDetections", "no");
  set("IgnoreJokeDetections", "yes");
  start();
  EXPECT_EQ(open_status(adware), EPERM);
  EXPECT_EQ(open_status(joke), 0);
}

TEST_F(Access, OnlyRegularFilesAreScannedAndAFifoHoldsUpNobody) {
  ASSERT_EQ(mkfifo(watched("fifo").c_str(), 0644), 0);
  ASSERT_EQ(mknod(watched("device").c_str(), S_IFCHR | 0644, makedev(1, 3)), 0);
  World::make_folder(watched("folder"));
  start();
  EXPECT_EQ(open_status(watched("fifo"), O_RDONLY | O_NONBLOCK), 0);
  EXPECT_EQ(open_status(watched("device")), 0);
  EXPECT_EQ(open_status(watched("folder"), O_RDONLY | O_DIRECTORY), 0);
  const Process reader = start_open(watched("fifo"), O_RDONLY);  // until there is a writer
  EXPECT_EQ(open_status(put_infected("bad")), EPERM) << "the watch goes on";
  EXPECT_EQ(engine_calls("vseExec").size(), 1U);
}

// labels: essential
TEST_F(Access, FilesTheEngineOpensItselfAreNotHeld) {
  const std::string other = put_infected("other");
  const std::string file = put("opens", "!open " + other + "\n");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(engine_calls("engine-open", {"errno=0"}).size(), 1U) << engine_record();
  EXPECT_EQ(scans_begun(other), 0U);
}

TEST_F(Access, SlowScanHoldsUpOnlyItsOwnFileAndAnOpenerKilledMeanwhileLeavesNothing) {
  const std::string slow = put("slow", "!wait " + work("go") + "\n");
  const std::string other = put("other", "!wait " + work("go") + "\n");
  set_threads(3);
  start();
  Process held = start_open(slow);
  Process killed = start_open(other);
  ASSERT_TRUE(eventually([&] { return scans_begun(slow) == 1 && scans_begun(other) == 1; }));
  EXPECT_EQ(open_status(put_clean("clean")), 0);
  EXPECT_TRUE(held.running()) << "the open returned before its scan";
  killed.kill();
  touch(work("go"));
  EXPECT_EQ(held.status(), 0);
  EXPECT_TRUE(eventually([&] { return held_descriptors() == 0; }));
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
}

// labels: essential one-processor
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
  // An answer is counted after it has been given.
  EXPECT_TRUE(eventually([&] { return area->answered() - answered >= 3; }));
  EXPECT_TRUE(eventually([&] { return area->denied() - denied == 2; })) << area->denied();
}

}  // namespace
}  // namespace e2e
