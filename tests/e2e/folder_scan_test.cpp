// Scheduled folder scans: when they run, what is recorded of them, and what goes on beside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <optional>

#include "emulated.h"
#include "fuse_server.h"
#include "schedule_fixture.h"

namespace e2e {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

class FolderScan : public ScheduleTest {
 protected:
  void prepare() override {
    ScheduleTest::prepare();
    World::make_folder(share());
  }
  std::string share() const { return watched("share"); }
};

// labels: essential one-processor
TEST_F(FolderScan, ScanIsRecordedWordForWord) {
  set("MaxRecursion", "7");
  put_clean("share/file");
  put_infected("share/bad");
  World::make_folder(watched("other"));
  start_at_noon();
  run_jobs({due_job(share()), due_job(watched("other"), "DAILY")});
  const std::string text = log();
  const std::string session = "Session ID: 4098\nPath: \"";
  EXPECT_EQ(count_of(text, start_record(share(), 7)), 1U) << text;
  EXPECT_EQ(count_of(text, "\nFile scan: " + session + watched("share/file") + "\"\n"), 1U) << text;
  EXPECT_EQ(count_of(text, "\ninfection detected in: " + session + watched("share/bad") +
                               "\"\nArchive name: \"\"\nDetection name: \"Test.Infected\"\n"),
            1U)
      << text;
  EXPECT_EQ(count_of(text, stop_record(share(), true)), 1U) << text;
  EXPECT_EQ(count_of(text, start_record(watched("other"), 7)), 1U) << text;
  EXPECT_EQ(count_of(text, stop_record(watched("other"), false, 3)), 1U) << text;
  EXPECT_LT(text.find("Scan started: "), text.find("File scan: "));
  EXPECT_LT(text.find("File scan: "), text.find("Scan completed: "));
  EXPECT_EQ(events().size(), 1U);
  EXPECT_EQ(engine_calls("vseRelease", {"handle=2 ", "result=0"}).size(), 1U);
  EXPECT_EQ(engine_calls("vseRelease", {"handle=3 ", "result=0"}).size(), 1U);
}

// labels: essential
TEST_F(FolderScan, FilesOfThreeGibibytesAreScanned) {
  const std::string clean = put_clean("share/clean");
  const std::string infected = put_infected("share/infected");
  for (const std::string& file : {clean, infected}) {
    world().resize(file, off_t{3} << 30);
  }
  start_at_noon();
  run_jobs({due_job(share())});
  EXPECT_THAT(scanned(), UnorderedElementsAre(clean, infected));
  EXPECT_TRUE(logged("Path: \"" + infected + "\"\nArchive name: \"\"\nDetection name: "));
}

TEST_F(FolderScan, MountThatGoesAwayEndsTheScanInGoodOrder) {
  constexpr int file_count = 20;
  const std::string disk = watched("share/disk");
  world().mount_on(disk);
  put_files("share/disk/file", file_count, waiting());
  start_at_noon();
  Job daily = due_job(disk, "DAILY");
  write_jobs({daily});
  ASSERT_TRUE(request_pass_until([&] { return engine_calls("vseExec-begin").size() == 1; }));
  world().unmount(disk);
  release();
  ASSERT_TRUE(eventually([&] { return scans_completed() == 1; }));
  EXPECT_EQ(scanned().size(), 1U);
  EXPECT_EQ(count_of(log(), "\nhandleDir unable to stat:" + disk + "/file"), file_count - 1)
      << log();
  expect_forgotten(disk);
  EXPECT_EQ(open_status(put_infected("bad")), EPERM) << "the mount around it is still watched";
  EXPECT_THAT(jobs(), ElementsAre(daily.key()));
}

/// Scans that make load, or whose stop has a bound: they run alone.
// labels: alone
class LongFolderScan : public FolderScan {
 protected:
  /// A stop in the middle of a folder scan takes less than five seconds.
  static constexpr Duration scan_stop_bound = std::max(stop_bound, Duration(5000));

  /// How many descriptors an idle daemon has: their number once it has stayed the same for a while.
  /// What ends a scan, and the mount table that is read now and then, make it change.
  size_t settled_descriptors() const {
    constexpr int sample_count = 20;
    size_t settled = 0;
    int same = 0;
    EXPECT_TRUE(eventually([&] {
      const size_t now = descriptors().size();
      same = now == settled ? same + 1 : 1;
      settled = now;
      return same == sample_count;
    }));
    return settled;
  }
};

// labels: essential
TEST_F(LongFolderScan, TwentyThousandFilesInOnePassWithConstantMemoryAndDescriptors) {
  constexpr int folder_count = PELO_EMULATED ? 1 : 20;
  constexpr size_t folder_levels = 3;
  constexpr size_t memory_bound = 2048;  // KiB: about a hundred bytes a file would be seen
  set("Loglevel", "1");
  World::make_folder(watched("small"));
  put_clean("small/file");
  for (int i = 0; i < folder_count * 10; ++i) {
    const std::string folder = "share/" + std::to_string(i / 10);
    World::make_folder(watched(folder));
    World::make_folder(watched(folder + "/" + std::to_string(i)));
    put_files(folder + "/" + std::to_string(i) + "/file", 100);
  }
  start_at_noon();
  write_jobs({due_job(watched("small"))});
  ASSERT_TRUE(request_pass_until([&] { return scans_completed() == 1; }));
  const unsigned long memory_before = std::stoul(daemon_status("VmRSS"));
  const size_t descriptors_before = settled_descriptors();
  unsigned long memory_during = 0;
  size_t descriptors_during = 0;
  size_t samples = 0;
  Job all = due_job(share());
  all.recursive = true;
  write_jobs({all});
  ASSERT_TRUE(request_pass_until([&] { return scans_started() == 2; }));
  ASSERT_TRUE(eventually(
      [&] {
        memory_during = std::max(memory_during, std::stoul(daemon_status("VmRSS")));
        descriptors_during = std::max(descriptors_during, descriptors().size());
        ++samples;
        return scans_completed() == 2;
      },
      4 * patience));
  EXPECT_GT(samples, 10U);
  EXPECT_EQ(scanned().size(), folder_count * 1000U + 1);
  EXPECT_EQ(scans_started(), 2U);
  EXPECT_GT(descriptors_during, descriptors_before);
  // One directory a level, one file, and the event of the daemon's own access. They come and go
  // while /proc is read, so a few may be seen twice.
  EXPECT_LE(descriptors_during, descriptors_before + 2 * (folder_levels + 2));
  EXPECT_TRUE(eventually([&] { return descriptors().size() <= descriptors_before; }));
  if (PELO_SANITIZED == 0) {
    EXPECT_LE(memory_during, memory_before + memory_bound);
  }
  std::printf("VmRSS %lu KiB before, %lu during; descriptors %zu and %zu; %zu samples\n",
              memory_before, memory_during, descriptors_before, descriptors_during, samples);
}

TEST_F(LongFolderScan, StopBetweenTwoFilesReleasesTheEngineHandle) {
  constexpr int file_count = 2000;
  put_files("share/file", file_count, "!sleep 20\n");
  start_at_noon();
  write_jobs({due_job(share())});
  ASSERT_TRUE(request_pass_until([&] { return engine_calls("vseExec").size() >= 20; }));
  stop(scan_stop_bound);
  EXPECT_EQ(engine_calls("vseRelease", {"handle=2 ", "result=0"}).size(), 1U) << engine_record();
  EXPECT_EQ(engine_calls("vseExec").size(), engine_calls("vseExec-begin").size());
  EXPECT_LT(scanned().size(), size_t{file_count});
  EXPECT_EQ(scans_completed(), 0U);
}

// labels: essential
TEST_F(LongFolderScan, StopDuringTheScanOfAFileThatNeverEnds) {
  const std::string file = put("share/endless", "!wait " + work("never") + "\n");
  start_at_noon();
  write_jobs({due_job(share())});
  ASSERT_TRUE(request_pass_until([&] { return scans_begun(file) == 1; }));
  stop(scan_stop_bound);
}

/// A job on a mount whose server hangs keeps the service thread, and nothing else.
// labels: alone
class StuckFolderScan : public LongFolderScan {
 protected:
  void prepare() override {
    LongFolderScan::prepare();
    fuse_.emplace(watched("fuse"), put_clean("backing"));
    fuse_->require();
  }
  void TearDown() override {
    LongFolderScan::TearDown();
    fuse_.reset();
  }

  /// Starts a scan of the mount and waits until it is stuck there. The server hangs from the time
  /// of another job of the same pass on, so that nothing else of the service thread meets it first.
  void start_stuck_scan() {
    World::make_folder(watched("before"));
    const std::string first = put("before/file", waiting());
    start_at_noon();
    write_jobs({due_job(watched("before")), due_job(watched("fuse"))});
    ASSERT_TRUE(request_pass_until([&] { return scans_begun(first) == 1; }));
    fuse_->hang();
    release();
    expect_logged(start_record(watched("fuse")));
    ASSERT_TRUE(eventually([&] {
      return waits_of(daemon().pid()).find("fuse") != std::string::npos;
    })) << waits_of(daemon().pid());
  }

  std::optional<FuseServer> fuse_;
};

// labels: essential
TEST_F(StuckFolderScan, LeavesAccessesAndTheEndOfTheDaemonAlone) {
  const std::string infected = put_infected("bad");
  const std::string clean = put_clean("clean");
  ASSERT_NO_FATAL_FAILURE(start_stuck_scan());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_status(infected), EPERM);
    EXPECT_EQ(open_status(clean), 0);
  }
  EXPECT_EQ(scans_completed(), 1U) << "that is the one before it";
  daemon().signal(SIGTERM);
  EXPECT_TRUE(eventually([&] { return open_status(infected) == 0; }));
  EXPECT_EQ(write_status(clean, "written"), 0);
  fuse_->end();
  EXPECT_EQ(daemon().wait(), Exit{});
  expect_nothing_left();
}

TEST_F(StuckFolderScan, EndsWithTheServerAndTheNextOneRuns) {
  const std::string file = put_clean("share/file");
  ASSERT_NO_FATAL_FAILURE(start_stuck_scan());
  fuse_->end();
  expect_logged(stop_record(watched("fuse"), false, 3));
  EXPECT_TRUE(logged("unable to stat:" + watched("fuse") + " "));
  run_jobs({due_job(share())});
  EXPECT_EQ(scans(file), 1U);
}

}  // namespace
}  // namespace e2e
