// What could stop the answers on every watched mount at once does not: file systems whose server
// opens watched files itself, renewals that wait for somebody, updates one after the other.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "fixture.h"
#include "fuse_server.h"
#include "openers.h"

namespace e2e {
namespace {

class Freeze : public E2eTest {
 protected:
  size_t updates_begun() const { return engine_calls("vseExec-begin", {"operation=14 "}).size(); }

  /// Skips where there are no file systems in user space, but not silently.
  void SetUp() override {
    E2eTest::SetUp();
    backing_ = IsSkipped() || HasFatalFailure() ? "" : put_clean("backing");
  }

  /// A file system whose server opens a file on the watched mount; not served before this.
  void serve(BackingUse use) {
    fuse_.emplace(watched("fuse"), backing_, use);
    if (!fuse_->failure().empty() && std::getenv("CI") == nullptr) {
      // Such kernels cannot come into the state that the test is about.
      GTEST_SKIP() << "needs file systems in user space: " << fuse_->failure();
    }
    ASSERT_EQ(fuse_->failure(), "");
    ASSERT_EQ(open_status(fuse_->file()), 0);
  }

  void TearDown() override {
    E2eTest::TearDown();
    fuse_.reset();
  }

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
  ASSERT_TRUE(is_registered(watched("fuse")));
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
  ASSERT_TRUE(is_registered(watched("fuse")));
  EXPECT_EQ(open_status(fuse_->file()), 0);
  EXPECT_TRUE(eventually([&] { return open_status(infected) == EPERM; }));
  stop(kStopBound);
  EXPECT_EQ(open_status(infected), 0);
  EXPECT_EQ(open_status(fuse_->file()), 0);
}

TEST_F(Freeze, ServerThatHangsKeepsNoOtherFileFromBeingScannedOrLetGo) {
  const std::string infected = put_infected("bad");
  const std::string clean = put_clean("clean");
  serve(BackingUse::opens);
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  start();
  ASSERT_EQ(open_status(fuse_->file()), 0);
  fuse_->hang();
  Process opener = start_open(fuse_->file());
  ASSERT_TRUE(eventually([&] {
    return waits_of(daemon().pid()).find("fuse") != std::string::npos;
  })) << "no thread of the daemon is stuck in the open";
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_status(infected), EPERM);
    EXPECT_EQ(open_status(clean), 0);
  }
  // The kernel does not let a process go that waits for such a server, but everything else.
  daemon().signal(SIGTERM);
  EXPECT_TRUE(eventually([&] { return open_status(infected) == 0; }));
  EXPECT_EQ(write_status(clean, "written"), 0);
  EXPECT_EQ(daemon().wait(Duration(0)), std::nullopt);
  fuse_->end();
  EXPECT_EQ(daemon().wait(), Exit{});
  expect_nothing_left();
  EXPECT_NE(opener.status(), kStuck);
  kill_daemon();
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
  OpenersAtOnce openers(files, 1000);
  EXPECT_TRUE(openers.wait());
  EXPECT_EQ(openers.tally().denied, 1000);
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
  ASSERT_TRUE(eventually([&] { return logged("service_thread av database updated.\n"); }));
  script("wait vseExec:14 " + work("loaded") + "\n");
  ASSERT_TRUE(eventually([&] {
    daemon().signal(SIGHUP);
    return updates_begun() == 2;
  }));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_status(infected), EPERM);
    EXPECT_EQ(open_status(clean), 0);
  }
  EXPECT_EQ(scans(clean), 3U) << "a verdict of old definitions was remembered";
  EXPECT_EQ(engine_calls("vseExec", {"operation=14 "}).size(), 1U) << "the second one is loading";
  touch(work("loaded"));
  touch(work("go"));
  EXPECT_EQ(opener.status(), 0);
}

}  // namespace
}  // namespace e2e
