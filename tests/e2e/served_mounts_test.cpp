// File systems that other processes serve, out of files that are watched too: nobody waits for such
// a server but who uses its mount.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>

#include "emulated.h"
#include "fixture.h"
#include "fuse_server.h"
#include "openers.h"

namespace e2e {
namespace {

using testing::Each;
using testing::Ne;

/// Who serves a folder out of another one: a program, or without one a server of ours, which has
/// but one file and opens a watched one for every open of it.
struct Kind {
  std::string name;
  std::vector<std::string> command = {};  // the two folders follow
  std::string option = "";                // what the first of them is the value of
};

const Kind ours = {"Ours"};
const Kind programs[] = {
    {"Bindfs", {"bindfs", "-f"}},
    {"BindfsMultithreaded", {"bindfs", "-f", "--multithreaded"}},
    {"FuseOverlayfs", {"fuse-overlayfs", "-f", "-o"}, "lowerdir="},
    {"Mergerfs", {"mergerfs", "-f"}},
};

/// watched("disk") is served once more as watched("served"); watched("else") has nothing to do with
/// it.
class ServedMounts : public E2eTest {
 protected:
  void prepare() override {
    for (const char* mount : {"disk", "else"}) {
      world().mount_on(watched(mount));
    }
    (void)put_files("disk/clean", 100);
    files_ = names("served/clean", 100);
    direct_ = put_files("disk/direct", 100);
    (void)put_infected("disk/bad");
    // Not watched where it lies, so that only who reads it through the server can find it.
    World::make_folder(watched("disk/raw"));
    (void)put_infected("disk/raw/bad");
    add("ExcludeDirectory", watched("disk/raw"));
    cached_ = put_clean("else/cached");
    infected_ = put_infected("else/bad");
    set("Loglevel", "3");
  }

  /// The server ends first: not even SIGKILL ends those who wait for it.
  void TearDown() override {
    if (server_) {
      server_->end();
    }
    openers_.clear();
    E2eTest::TearDown();
    server_.reset();
  }

  /// Serves the folder, in place of what served it before.
  /// @return false when the test is over
  [[nodiscard]] bool serve(const Kind& kind) {
    const std::string folder = watched("served");
    server_.reset();
    if (kind.command.empty()) {
      ours_ = new FuseServer(folder, direct_[0]);
      server_.reset(ours_);
      files_ = {ours_->file()};
    } else {
      std::vector<std::string> command = kind.command;
      command.insert(command.end(), {kind.option + watched("disk"), folder});
      server_ = std::make_unique<ServedFolder>(folder, command);
    }
    server_->require();
    if (!IsSkipped() && !HasFatalFailure()) {
      EXPECT_EQ(open_status(files_[0]), 0);
    }
    return !IsSkipped() && !HasFailure();
  }

  /// Starts the daemon; returns when it watches all mounts.
  void start_watching() {
    start();
    expect_registered(watched("served"));
    ASSERT_EQ(open_status(infected_), EPERM);
    ASSERT_EQ(open_status(cached_), 0);
    ASSERT_EQ(open_status(files_[0]), 0);
  }

  struct Times {
    Duration slowest{0};  // of so many opens at once
    OpenTimes others;     // who have nothing to do with them
  };

  /// 300 opens at once, three times.
  Times open_many(const std::vector<std::string>& files) const {
    constexpr int open_count = PELO_EMULATED ? 60 : 300;
    Times times;
    const OpenProbe cached({cached_}, 0, Duration(1));
    for (int round = 0; round < 3; ++round) {
      const auto begin = std::chrono::steady_clock::now();
      OpenersAtOnce openers(files, open_count);
      EXPECT_TRUE(openers.wait());
      EXPECT_EQ(openers.tally().allowed, open_count);
      times.slowest =
          std::max(times.slowest,
                   std::chrono::duration_cast<Duration>(std::chrono::steady_clock::now() - begin));
    }
    times.others = cached.times();
    EXPECT_EQ(times.others.wrong, 0U);
    return times;
  }

  /// @return whether many opens through the server take less than two seconds, and others' opens at
  /// most twice as long as beside as many opens of files that the kernel serves
  bool nobody_waits_long() const {
    constexpr Duration most(PELO_SLOW ? 100000 : 2000);
    constexpr Micros noise(PELO_SLOW ? 200000 : 2000);
    const Times usual = open_many(direct_);
    const Times served = open_many(files_);
    std::cout << "figure: 300 opens in " << served.slowest.count()
              << " ms\nfigure: usual: " << usual.others << "\nfigure: meanwhile: " << served.others
              << "\n";
    return served.slowest < most && served.others.p99 <= std::max(2 * usual.others.p99, noise);
  }

  void expect_nobody_else_waits() {
    const OpenProbe guard({infected_}, EPERM);
    EXPECT_TRUE(nobody_waits_long() || nobody_waits_long()) << "twice: the machine may be busy";
    const OpenTimes denied = guard.times();
    std::cout << "figure: denied: " << denied << "\n";
    EXPECT_EQ(denied.wrong, 0U) << "an infected file was let pass";
    EXPECT_GT(denied.opens, 5U);
  }

  void expect_scanned_through_the_server() {
    if (ours_ != nullptr) {
      EXPECT_GE(scans(ours_->file()), 1U);
      return;
    }
    EXPECT_EQ(open_status(watched("served/bad")), EPERM);
    EXPECT_EQ(open_status(watched("served/raw/bad")), EPERM);
    EXPECT_GE(scans(watched("served/raw/bad")), 1U);
    EXPECT_EQ(open_status(watched("disk/raw/bad")), 0) << "excluded";
  }

  /// Opens that wait for a server which has stopped.
  void open_while_it_hangs() {
    ASSERT_TRUE(eventually([&] { return has_closed_all(daemon().pid(), watched("served/")); }))
        << waits_of(daemon().pid());
    server_->hang();
    for (size_t i = 0; i < 10; ++i) {
      openers_.push_back(start_open(files_[i % files_.size()]));
    }
    for (int i = 0; i < 5; ++i) {
      ASSERT_EQ(open_status(infected_), EPERM);
      ASSERT_EQ(open_status(cached_), 0);
    }
    EXPECT_TRUE(std::all_of(openers_.begin(), openers_.end(),
                            [](Process& opener) { return opener.running(); }));
  }

  std::vector<std::string> files_;   // served, clean
  std::vector<std::string> direct_;  // others of the same disk, opened there
  std::string cached_;
  std::string infected_;
  std::vector<Process> openers_;
  std::unique_ptr<FileServer> server_;
  FuseServer* ours_ = nullptr;
};

class ServedBy : public ServedMounts, public testing::WithParamInterface<Kind> {
 protected:
  void prepare() override {
    ServedMounts::prepare();
    (void)serve(GetParam());
  }
};

// labels: alone
TEST_P(ServedBy, ManyOpensAtOnceKeepNobodyElseWaitingAndAreScanned) {
  ASSERT_NO_FATAL_FAILURE(start_watching());
  expect_nobody_else_waits();
  expect_scanned_through_the_server();
  stop(stop_bound);
}

// labels: alone
TEST_P(ServedBy, StoppedServerHoldsNobodyWhenTheDaemonEnds) {
  for (const int number : {SIGTERM, SIGKILL}) {
    ASSERT_NO_FATAL_FAILURE(start_watching());
    ASSERT_NO_FATAL_FAILURE(open_while_it_hangs());
    daemon().signal(number);
    const auto exit = daemon().wait(stop_bound);
    EXPECT_TRUE(exit.has_value()) << waits_of(daemon().pid());
    EXPECT_EQ(open_status(infected_), 0) << "freed";
    EXPECT_EQ(open_status(direct_[0]), 0) << "freed";
    if (number == SIGTERM && exit) {
      EXPECT_EQ(*exit, Exit{});
      expect_nothing_left();
    }
    server_->go_on();
    // The kernel denies an open when who reads its event is ended meanwhile.
    EXPECT_THAT(statuses(openers_), Each(Ne(still_stuck)));
    openers_.clear();
    expect_no_clean_end();
    unlink(pid_file);
    unlink(StatusArea::path);
  }
}

class ServedByAProgram : public ServedBy {};

// labels: long
TEST_P(ServedByAProgram, MountThatComesAgainIsFollowed) {
  ASSERT_NO_FATAL_FAILURE(start_watching());
  server_.reset();
  expect_forgotten(watched("served"));
  EXPECT_EQ(open_status(infected_), EPERM);
  EXPECT_EQ(open_status(watched("disk/bad")), EPERM);
  ASSERT_TRUE(serve(GetParam()));
  EXPECT_TRUE(eventually([&] { return open_status(watched("served/raw/bad")) == EPERM; }));
}

const auto name_of_kind = [](const auto& test) { return test.param.name; };
// labels: essential
INSTANTIATE_TEST_SUITE_P(Server, ServedBy, testing::Values(ours), name_of_kind);
INSTANTIATE_TEST_SUITE_P(Debian, ServedBy, testing::ValuesIn(programs), name_of_kind);
INSTANTIATE_TEST_SUITE_P(Debian, ServedByAProgram, testing::ValuesIn(programs), name_of_kind);

#if !PELO_SANITIZED_THREAD  // with it lanes share the table of descriptors
// The server has read the request and never answers: not even SIGKILL ends who waits for it.
// labels: alone essential
TEST_F(ServedMounts, KillFreesEverythingElseAlthoughAThreadCannotEnd) {
  if (!serve(ours)) {
    return;
  }
  ASSERT_NO_FATAL_FAILURE(start_watching());
  ours_->hang_opens();
  openers_.push_back(start_open(files_[0]));
  ASSERT_TRUE(eventually([&] {
    const std::string waits = waits_of(daemon().pid());
    return waits.find("fanotify_read") != std::string::npos &&
           waits.find("fuse_") != std::string::npos;
  })) << waits_of(daemon().pid());
  EXPECT_EQ(open_status(infected_), EPERM);
  daemon().signal(SIGKILL);
  EXPECT_TRUE(
      eventually([&] { return start_open(infected_).status(Duration(500)) == 0; }, stop_bound))
      << waits_of(daemon().pid());
  EXPECT_EQ(open_status(direct_[0]), 0);
  server_->end();
  EXPECT_TRUE(daemon().wait().has_value());
  expect_no_clean_end();
}
#endif

TEST_F(ServedMounts, OneThatOnlyAnotherUserMaySeeIsNamedWithTheReason) {
  server_ = std::make_unique<FuseServer>(watched("served"), direct_[0], "user_id=1,group_id=1");
  server_->require();
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  start();
  expect_logged("report mount point '" + watched("served") +
                "' type: 'fuse' is not watched: Permission denied\n");
}

// labels: long
TEST_F(ServedMounts, MountsUpdatesAndPassesGoOnBesideAStoppedServer) {
  stage_definitions();
  if (!serve(programs[0])) {
    return;
  }
  ASSERT_NO_FATAL_FAILURE(start_watching());
  const OpenProbe guard({infected_}, EPERM);
  ASSERT_NO_FATAL_FAILURE(open_while_it_hangs());
  world().mount_on(watched("later"));
  const std::string later = put_infected("later/bad");
  EXPECT_TRUE(eventually([&] { return open_status(later) == EPERM; }));
  daemon().signal(SIGHUP);
  expect_logged("service_thread av database updated.\n");
  const size_t passes = count_of(log(), "scanner_func(): done\n");
  EXPECT_TRUE(eventually([&] {
    daemon().signal(SIGUSR2);  // one that comes during the update's cycle is dropped
    return count_of(log(), "scanner_func(): done\n") > passes;
  }));
  world().unmount(watched("later"));
  expect_forgotten(watched("later"));
  EXPECT_EQ(guard.times().wrong, 0U);
  server_->go_on();
  EXPECT_THAT(statuses(openers_), Each(0));
  expect_scanned_through_the_server();
}

// labels: alone
TEST_F(ServedMounts, OverlayWithALayerOnAServedMountIsOneToo) {
  const std::string lower = watched("lower");
  const std::string empty = watched("empty");
  World::make_folder(empty);
  World::make_folder(watched("served"));
  server_ = std::make_unique<ServedFolder>(
      lower, std::vector<std::string>{"bindfs", "-f", watched("disk"), lower});
  server_->require();
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  const std::string layers = "lowerdir=" + lower + ":" + empty;
  ASSERT_EQ(mount("test", watched("served").c_str(), "overlay", MS_RDONLY, layers.c_str()), 0)
      << std::strerror(errno);
  ASSERT_NO_FATAL_FAILURE(start_watching());
  expect_nobody_else_waits();
  expect_scanned_through_the_server();
  stop(stop_bound);
  umount2(watched("served").c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace e2e
