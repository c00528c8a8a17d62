// Scheduled folder scans: which files they reach, what becomes of those, and what goes on beside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

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
  std::string share(const std::string& name = "") const {
    return watched(name.empty() ? "share" : "share/" + name);
  }
  std::string put_in_share(const std::string& name, const std::string& content = "clean\n") const {
    return put("share/" + name, content);
  }
  void make_folders(const std::vector<std::string>& names) const {
    for (const std::string& name : names) {
      World::make_folder(share(name));
    }
  }
  static void link_to(const std::string& target, const std::string& path) {
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
  }

  Job job(bool recursive, const std::string& action = "REPORT") {
    Job result = due_job(share());
    result.recursive = recursive;
    result.action = action;
    return result;
  }

  /// Starts a daemon and runs one scan of share().
  void scan(bool recursive, const std::string& action = "REPORT", const Launch& how = {}) {
    start_at_noon(how);
    run_jobs({job(recursive, action)});
  }

  std::string waiting() const { return "!wait " + work("go") + "\n"; }
};

// labels: essential
TEST_F(FolderScan, FilesOfThreeGibibytesAreScanned) {
  put_in_share("clean");
  put_in_share("infected", "!detect name=Test.Large\n");
  world().resize(share("clean"), off_t{3} << 30);
  world().resize(share("infected"), off_t{3} << 30);
  scan(false);
  EXPECT_THAT(scanned(), UnorderedElementsAre(share("clean"), share("infected")));
  EXPECT_TRUE(logged("Detection name: \"Test.Large\""));
}

TEST_F(FolderScan, RecursionFollowsLinksAndEndsAtTheLevelLimit) {
  const std::string odd = "100%s \xff\"<&\x01";
  make_folders({"1", "1/2", "1/2/3"});
  for (const std::string& name :
       {std::string("file"), std::string("1/2/file"), std::string("1/2/3/file"), odd}) {
    put_in_share(name);
  }
  World::make_folder(watched("elsewhere"));
  put_clean("elsewhere/file");
  link_to("../elsewhere", share("folder"));
  link_to("../elsewhere/file", share("link"));
  link_to(".", share("1/loop"));
  link_to("nowhere", share("dangling"));
  link_to("/dev/null", share("device"));
  ASSERT_EQ(mkfifo(share("pipe").c_str(), 0644), 0);
  set("MaxRecursion", "2");
  scan(true);
  EXPECT_EQ(scans(share(odd)), 1U);
  EXPECT_EQ(scanned().size(), 5U);
  for (const char* name : {"file", "1/2/file", "folder/file", "link"}) {
    EXPECT_EQ(scans(share(name)), 1U) << name;
  }
  EXPECT_TRUE(logged("\nhandleDir unable to stat:" + share("dangling") + "\n")) << log();
  EXPECT_EQ(count_of(log(), "\nhandleDir"), 1U) << "what is no file is skipped without a word";
  EXPECT_FALSE(logged("can't open"));
  stop();
  world().put(work("engine.record"), "");
  scan(false);
  EXPECT_EQ(scanned().size(), 3U) << "only the folder's own";
}

TEST_F(FolderScan, FolderOutsideTheIncludedOnesIsScanned) {
  World::make_folder(work("outside"));
  world().put(work("outside/bad"), "!detect\n");
  start_at_noon();
  run_jobs({due_job(work("outside"))});
  EXPECT_TRUE(logged(stop_record(work("outside"), true))) << log();
  EXPECT_EQ(open_status(work("outside/bad")), 0) << "nobody watches it";
}

TEST_F(FolderScan, FileThatTheEngineWantsRemovedIsRemovedAndCounts) {
  make_folders({"sub"});
  const std::string bad = put_in_share("bad", "!detect code=7\n");
  const std::string deep = put_in_share("sub/bad", "!detect code=7\n");
  const std::string reported = put_in_share("reported", "!detect\n");
  const std::string clean = put_in_share("clean");
  const std::string target = put("target", "!detect code=7\n");
  link_to("../target", share("link"));
  scan(true, "DELETE");
  EXPECT_FALSE(World::exists(bad));
  EXPECT_FALSE(World::exists(deep));
  EXPECT_TRUE(World::exists(reported));
  EXPECT_TRUE(World::exists(clean));
  EXPECT_FALSE(World::exists(share("link"))) << "of a link the link is removed";
  EXPECT_TRUE(World::exists(target));
  EXPECT_TRUE(logged(stop_record(share(), true)));
  EXPECT_EQ(count_of(log(), "infection detected in: "), 4U);
}

// labels: essential
TEST_F(FolderScan, AccessesAreAnsweredMeanwhile) {
  const std::string slow = put_in_share("slow", waiting());
  const std::string clean = put_clean("clean");
  const std::string bad = put_infected("bad");
  start_at_noon();
  write_jobs({job(true)});
  ASSERT_TRUE(request_pass_until([&] { return scans_begun(slow) == 1; }));
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(open_status(clean), 0);
    EXPECT_EQ(open_status(bad), EPERM);
  }
  EXPECT_EQ(scans_completed(), 0U);
  touch(work("go"));
  EXPECT_TRUE(eventually([&] { return scans_completed() == 1; }));
}

TEST_F(FolderScan, MountThatGoesAwayEndsTheScanInGoodOrder) {
  constexpr size_t kFiles = 20;
  const std::string disk = share("disk");
  world().mount_on(disk);
  for (size_t i = 0; i < kFiles; ++i) {
    put_in_share("disk/file" + std::to_string(i), waiting());
  }
  start_at_noon();
  Job daily = due_job(disk, "DAILY");
  write_jobs({daily});
  ASSERT_TRUE(request_pass_until([&] { return engine_calls("vseExec-begin").size() == 1; }));
  world().unmount(disk);
  touch(work("go"));
  ASSERT_TRUE(eventually([&] { return scans_completed() == 1; }));
  EXPECT_EQ(scanned().size(), 1U);
  EXPECT_EQ(count_of(log(), "\nhandleDir unable to stat:" + disk + "/file"), kFiles - 1) << log();
  EXPECT_TRUE(eventually([&] { return !is_registered(disk); }));
  EXPECT_EQ(open_status(put_infected("bad")), EPERM) << "the mount around it is still watched";
  EXPECT_THAT(jobs(), ElementsAre(daily.key()));
}

/// Scans that make load, or whose stop has a bound: they run alone.
// labels: alone
class LongFolderScan : public FolderScan {
 protected:
  /// A stop in the middle of a folder scan takes less than five seconds.
  static constexpr Duration kScanStopBound = std::max(kStopBound, Duration(5000));

  /// How many descriptors an idle daemon has: their number once it has stayed the same for a while.
  /// What ends a scan, and the mount table that is read now and then, make it change.
  size_t settled_descriptors() const {
    constexpr int kSamples = 20;
    size_t settled = 0;
    int same = 0;
    EXPECT_TRUE(eventually([&] {
      const size_t now = descriptors().size();
      same = now == settled ? same + 1 : 1;
      settled = now;
      return same == kSamples;
    }));
    return settled;
  }

  void make_tree(int folders, int subfolders, int files) const {
    for (int i = 0; i < folders; ++i) {
      const std::string folder = "folder" + std::to_string(i);
      make_folders({folder});
      for (int j = 0; j < subfolders; ++j) {
        const std::string subfolder = folder + "/folder" + std::to_string(j);
        make_folders({subfolder});
        for (int k = 0; k < files; ++k) {
          put_in_share(subfolder + "/file" + std::to_string(k));
        }
      }
    }
  }
};

// labels: essential
TEST_F(LongFolderScan, TwentyThousandFilesInOnePassWithConstantMemoryAndDescriptors) {
  constexpr size_t kFolders = PELO_EMULATED ? 1 : 20;
  constexpr size_t kFiles = kFolders * 1000;
  constexpr size_t kLevels = 3;
  constexpr size_t kMemory = 2048;  // KiB: about a hundred bytes a file would be seen
  set("Loglevel", "1");
  World::make_folder(watched("small"));
  put_clean("small/file");
  make_tree(kFolders, 10, 100);
  start_at_noon();
  write_jobs({due_job(watched("small"))});
  ASSERT_TRUE(request_pass_until([&] { return scans_completed() == 1; }));
  const size_t memory_before = memory("VmRSS");
  const size_t descriptors_before = settled_descriptors();
  size_t memory_during = 0;
  size_t descriptors_during = 0;
  size_t samples = 0;
  write_jobs({job(true)});
  ASSERT_TRUE(request_pass_until([&] { return scans_started() == 2; }));
  ASSERT_TRUE(eventually(
      [&] {
        memory_during = std::max(memory_during, memory("VmRSS"));
        descriptors_during = std::max(descriptors_during, descriptors().size());
        ++samples;
        return scans_completed() == 2;
      },
      4 * kPatience));
  EXPECT_GT(samples, 10U);
  EXPECT_EQ(scanned().size(), kFiles + 1);
  EXPECT_EQ(scans_started(), 2U);
  EXPECT_GT(descriptors_during, descriptors_before);
  // One directory a level, one file, and the event of the daemon's own access. They come and go
  // while /proc is read, so a few may be seen twice.
  EXPECT_LE(descriptors_during, descriptors_before + 2 * (kLevels + 2));
  EXPECT_TRUE(eventually([&] { return descriptors().size() <= descriptors_before; }));
  if (PELO_SANITIZED == 0) {
    EXPECT_LE(memory_during, memory_before + kMemory);
  }
  std::printf("VmRSS %zu KiB before, %zu during; descriptors %zu and %zu; %zu samples\n",
              memory_before, memory_during, descriptors_before, descriptors_during, samples);
}

TEST_F(LongFolderScan, StopBetweenTwoFilesReleasesTheEngineHandle) {
  constexpr size_t kFiles = 2000;
  for (size_t i = 0; i < kFiles; ++i) {
    put_in_share("file" + std::to_string(i), "!sleep 20\n");
  }
  start_at_noon();
  write_jobs({job(true)});
  ASSERT_TRUE(request_pass_until([&] { return engine_calls("vseExec").size() >= 20; }));
  stop(kScanStopBound);
  EXPECT_EQ(engine_calls("vseRelease", {"handle=2 ", "result=0"}).size(), 1U) << engine_record();
  EXPECT_EQ(engine_calls("vseExec").size(), engine_calls("vseExec-begin").size());
  EXPECT_LT(scanned().size(), kFiles);
  EXPECT_EQ(scans_completed(), 0U);
}

// labels: essential
TEST_F(LongFolderScan, StopDuringTheScanOfAFileThatNeverEnds) {
  const std::string file = put_in_share("endless", "!wait " + work("never") + "\n");
  start_at_noon();
  write_jobs({job(true)});
  ASSERT_TRUE(request_pass_until([&] { return scans_begun(file) == 1; }));
  stop(kScanStopBound);
}

TEST_F(LongFolderScan, StopAndStartAgainScansAgain) {
  const std::string file = put_in_share("file");
  for (size_t round = 1; round <= 2; ++round) {
    scan(false);
    EXPECT_EQ(scans(file), round);
    stop(kScanStopBound);
  }
  EXPECT_EQ(scans_completed(), 2U);
}

/// A job on a mount whose server hangs keeps the service thread, and nothing else.
// labels: alone
class StuckFolderScan : public LongFolderScan {
 protected:
  void SetUp() override {
    LongFolderScan::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    fuse_.emplace(watched("fuse"), put_clean("backing"), BackingUse::opens);
    ASSERT_NO_FATAL_FAILURE(require(*fuse_));
  }
  void TearDown() override {
    LongFolderScan::TearDown();
    fuse_.reset();
  }

  FuseServer& server() { return *fuse_; }

  /// Starts a scan of the mount and waits until it is stuck there. The server hangs from the time
  /// of another job of the same pass on, so that nothing else of the service thread meets it first.
  void start_stuck_scan() {
    World::make_folder(watched("before"));
    const std::string first = put("before/file", waiting());
    start_at_noon();
    write_jobs({due_job(watched("before")), due_job(watched("fuse"))});
    ASSERT_TRUE(request_pass_until([&] { return scans_begun(first) == 1; }));
    fuse_->hang();
    touch(work("go"));
    ASSERT_TRUE(eventually([&] { return logged(start_record(watched("fuse"))); }));
    ASSERT_TRUE(eventually([&] {
      return waits_of(daemon().pid()).find("fuse") != std::string::npos;
    })) << waits_of(daemon().pid());
  }

 private:
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
  server().end();
  EXPECT_EQ(daemon().wait(), Exit{});
  expect_nothing_left();
}

TEST_F(StuckFolderScan, EndsWithTheServerAndTheNextOneRuns) {
  const std::string file = put_in_share("file");
  ASSERT_NO_FATAL_FAILURE(start_stuck_scan());
  server().end();
  ASSERT_TRUE(eventually([&] { return logged(stop_record(watched("fuse"), false, 3)); })) << log();
  EXPECT_TRUE(logged("unable to stat:" + watched("fuse") + " "));
  run_jobs({job(false)});
  EXPECT_EQ(scans(file), 1U);
}

}  // namespace
}  // namespace e2e
