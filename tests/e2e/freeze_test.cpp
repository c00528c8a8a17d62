// What could stop the answers on every watched mount at once does not: file systems whose server
// opens watched files itself, renewals that wait for somebody, updates one after the other.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "emulated.h"
#include "fixture.h"
#include "fuse_server.h"
#include "openers.h"

namespace e2e {
namespace {

/// Who read in the main thread's place when it is stuck.
constexpr size_t kReaders = 64;

/// When nobody is stuck any more, everything is watched again with the next looks at the mounts.
constexpr Duration kWellAgainBound = std::chrono::seconds(20);

class Freeze : public E2eTest {
 protected:
  size_t updates_begun() const { return engine_calls("vseExec-begin", {"operation=14 "}).size(); }

  void SetUp() override {
    E2eTest::SetUp();
    backing_ = IsSkipped() || HasFatalFailure() ? "" : put_clean("backing");
  }

  /// A file system whose server opens a file on the watched mount; not served before this.
  void serve(BackingUse use) {
    fuse_.emplace(watched("fuse"), backing_, use);
    require(*fuse_);
  }

  /// Starts the daemon with a server that answers no open any more.
  void start_with_hanging_server() {
    infected_ = put_infected("bad");
    clean_ = put_clean("clean");
    serve(BackingUse::never);
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    start();
    ASSERT_TRUE(eventually([&] { return is_registered(watched("fuse")); }));
    ASSERT_EQ(open_status(fuse_->file()), 0);
    ASSERT_GE(scans(fuse_->file()), 1U);
    fuse_->hang_opens();
  }

  /// Where in the kernel the daemon's main thread is.
  std::string main_thread_wait() { return wait_of(daemon().pid(), daemon().pid()); }

  /// Opens the hanging file. Returns when the daemon's main thread, which reads the event, waits
  /// for the server in the middle of its read.
  void get_main_thread_stuck() {
    openers_.push_back(start_open(fuse_->file()));
    ASSERT_TRUE(eventually([&] {
      const std::string wait = main_thread_wait();
      return wait.find("fanotify_read") != std::string::npos &&
             wait.find("fuse_") != std::string::npos;
    })) << waits_of(daemon().pid());
  }

  void expect_scans_as_ever() {
    for (int i = 0; i < 5; ++i) {
      ASSERT_EQ(open_status(infected_), EPERM);
      ASSERT_EQ(open_status(clean_), 0);
    }
  }

  /// Every open returns and is allowed, whatever is in the file.
  void expect_all_allowed() {
    for (int i = 0; i < 5; ++i) {
      ASSERT_EQ(open_status(infected_), 0);
      ASSERT_EQ(open_status(put_clean("new" + std::to_string(i))), 0);
    }
    EXPECT_EQ(write_status(clean_, "written"), 0);
  }

  /// Whether an open of the infected file is allowed before the bound is over, and returns then.
  bool infected_is_let_go(Duration bound) const {
    const auto end = std::chrono::steady_clock::now() + bound;
    return eventually(
        [&] {
          const auto left =
              std::chrono::duration_cast<Duration>(end - std::chrono::steady_clock::now());
          return start_open(infected_).status(std::max(left, Duration(0))) == 0;
        },
        bound);
  }

  size_t daemon_threads() { return count_of(waits_of(daemon().pid()), "thread "); }
  size_t stuck_readers() { return count_of(waits_of(daemon().pid()), "fanotify_read"); }

  /// Whether the readers are stuck, or an opener waits for the server itself, as only those do that
  /// nobody reads an event of any more.
  bool readers_are_at_their_limit() {
    return stuck_readers() >= kReaders ||
           std::any_of(openers_.begin(), openers_.end(), [](const Process& opener) {
             return waits_of(opener.pid()).find("fuse_open") != std::string::npos;
           });
  }

  /// How many mounts the kernel's account of the daemon's descriptors names.
  size_t marks() {
    size_t count = 0;
    std::error_code gone;
    const std::string folder = "/proc/" + std::to_string(daemon().pid()) + "/fdinfo";
    for (const auto& entry : std::filesystem::directory_iterator(folder, gone)) {
      std::ifstream file(entry.path());
      count += count_of(std::string(std::istreambuf_iterator<char>(file), {}), "fanotify mnt_id:");
    }
    return count;
  }

  /// The server ends first: not even SIGKILL ends those who wait for it.
  void TearDown() override {
    if (fuse_) {
      fuse_->end();
    }
    openers_.clear();
    E2eTest::TearDown();
    fuse_.reset();
  }

  std::string infected_;
  std::string clean_;
  std::vector<Process> openers_;  // of the file whose server hangs
  std::string backing_;
  std::optional<FuseServer> fuse_;
};

TEST_F(Freeze, FileWhoseServerOpensAWatchedFileOpens) {
  const std::string infected = put_infected("bad");
  serve(BackingUse::opens);
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(watched("fuse")); }));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_status(fuse_->file()), 0);
    EXPECT_EQ(open_status(infected), EPERM) << "other files are scanned as ever";
  }
  EXPECT_GE(scans(backing_), 1U);
  EXPECT_GE(scans(fuse_->file()), 1U);
  stop(kStopBound);
  EXPECT_EQ(open_status(fuse_->file()), 0);
}

TEST_F(Freeze, AFewOpensOfSuchAFileAtOnceAllEnd) {
  serve(BackingUse::opens);
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  start();
  // Each may keep a reader and a worker waiting for the server; one of the five workers must be
  // left for it.
  OpenersAtOnce openers({fuse_->file()}, 4);
  EXPECT_TRUE(openers.wait());
  EXPECT_EQ(openers.tally().allowed, 4);
  stop(kStopBound);
}

TEST_F(Freeze, ServerThatOpensAWatchedFileOnEveryWalkStopsNeitherStartNorEnd) {
  const std::string infected = put_infected("bad");
  serve(BackingUse::opens_and_walks);
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(watched("fuse")); }));
  EXPECT_EQ(open_status(fuse_->file()), 0);
  EXPECT_TRUE(eventually([&] { return open_status(infected) == EPERM; }));
  stop(kStopBound);
  EXPECT_EQ(open_status(infected), 0);
  EXPECT_EQ(open_status(fuse_->file()), 0);
}

TEST_F(Freeze, ServerThatHangsKeepsNoOtherFileFromBeingScannedOrLetGo) {
  start_with_hanging_server();
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  get_main_thread_stuck();
  ASSERT_FALSE(HasFatalFailure());
  expect_scans_as_ever();
  daemon().signal(SIGTERM);
  EXPECT_TRUE(infected_is_let_go(kStopBound));
  expect_all_allowed();
  // The kernel does not let a process go that waits for such a server.
  EXPECT_TRUE(daemon().running());
  EXPECT_NE(main_thread_wait().find("fanotify_read"), std::string::npos);
  fuse_->end();
  EXPECT_EQ(daemon().wait(), Exit{});
  expect_nothing_left();
  EXPECT_NE(openers_[0].status(), kStuck);
}

// Service managers do that, and the group lives on in a thread that not even SIGKILL ends.
TEST_F(Freeze, KillAfterTheStopHoldsNoOpenAlthoughAServerHangs) {
  start_with_hanging_server();
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  get_main_thread_stuck();
  ASSERT_FALSE(HasFatalFailure());
  expect_scans_as_ever();
  ASSERT_GT(marks(), 0U);
  daemon().signal(SIGTERM);
  EXPECT_TRUE(infected_is_let_go(kStopBound));
  ASSERT_TRUE(eventually([&] { return marks() == 0; })) << waits_of(daemon().pid());
  daemon().signal(SIGKILL);
  ASSERT_TRUE(eventually([&] { return daemon_threads() == 1; })) << waits_of(daemon().pid());
  ASSERT_NE(main_thread_wait().find("fanotify_read"), std::string::npos);
  expect_all_allowed();
  fuse_->end();
  EXPECT_TRUE(daemon().wait().has_value());
  expect_no_clean_end();
  EXPECT_NE(openers_[0].status(), kStuck);
}

TEST_F(Freeze, MoreOpensOfHangingFilesThanReadersHoldNoOtherOpenForGood) {
  start_with_hanging_server();
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  const std::string changed = put_clean("changed");
  ASSERT_EQ(open_status(changed), 0);  // and is in the cache
  for (size_t i = 0; i < kReaders + 6; ++i) {
    openers_.push_back(start_open(fuse_->file()));
  }
  ASSERT_TRUE(eventually([&] { return readers_are_at_their_limit(); }))
      << stuck_readers() << " readers are stuck:\n"
      << waits_of(daemon().pid());
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(open_status(clean_), 0);
    ASSERT_NE(open_status(infected_), kStuck);
  }
  ASSERT_EQ(write_status(changed, "!detect name=Test.Infected\n"), 0);
  fuse_->end();
  for (Process& opener : openers_) {
    EXPECT_NE(opener.status(), kStuck);
  }
  EXPECT_TRUE(eventually([&] { return open_status(infected_) == EPERM; }, kWellAgainBound));
  EXPECT_TRUE(eventually([&] { return open_status(changed) == EPERM; }))
      << "what was written while nothing was watched counts as clean";
  EXPECT_EQ(open_status(clean_), 0);
}

TEST_F(Freeze, RenewalThatWaitsForALongScanDoesNotSlowTheOtherWorkers) {
  const std::string slow = put("slow", "!wait " + work("go") + "\n");
  std::vector<std::string> files;
  for (int i = 0; i < 20; ++i) {
    files.push_back(put_infected("bad" + std::to_string(i)));
  }
  stage_definitions();
  set_threads(3);
  set("Loglevel", "3");
  start();
  Process opener = start_open(slow);
  ASSERT_TRUE(eventually([&] { return scans_begun(slow) == 1; }));
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return logged("service_thread av database updated.\n"); }));
  // A few at a time, as held up by a barrier that is passed anew for every event, would take many
  // times the bound.
  constexpr int kOpens = PELO_EMULATED ? 200 : 1000;
  OpenersAtOnce openers(files, kOpens);
  EXPECT_TRUE(openers.wait());
  EXPECT_EQ(openers.tally().denied, kOpens);
  touch(work("go"));
  EXPECT_EQ(opener.status(), 0);
}

TEST_F(Freeze, SecondUpdateBeingLoadedDuringARenewalHoldsNoOpen) {
  const std::string slow = put("slow", "!wait " + work("go") + "\n");
  const std::string clean = put_clean("clean");
  const std::string infected = put_infected("bad");
  stage_definitions();
  set_threads(3);
  set("Loglevel", "3");
  start();
  Process opener = start_open(slow);
  ASSERT_TRUE(eventually([&] { return scans_begun(slow) == 1; }));
  daemon().signal(SIGHUP);
  // The update's own handle and those of the two workers that sleep.
  ASSERT_TRUE(eventually([&] { return engine_calls("vseInit").size() == 6; }));
  script("wait vseExec:14 " + work("loaded") + "\n");
  ASSERT_TRUE(eventually([&] {
    daemon().signal(SIGHUP);
    return updates_begun() == 2;
  }));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_status(infected), EPERM);
    EXPECT_EQ(open_status(clean), 0);
  }
  EXPECT_EQ(scans(clean), 1U) << "by the definitions in force, which is remembered";
  EXPECT_EQ(engine_calls("vseExec", {"operation=14 "}).size(), 1U) << "the second one is loading";
  touch(work("loaded"));
  touch(work("go"));
  EXPECT_EQ(opener.status(), 0);
}

}  // namespace
}  // namespace e2e
