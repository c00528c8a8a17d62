// Many opens at once: each is answered, rightly, and nothing is left behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "emulated.h"
#include "fixture.h"
#include "openers.h"

namespace e2e {
namespace {

// labels: alone
class Load : public E2eTest {
 protected:
  /// Leaves watched() as the only mount whose opens make events, so that events can be counted.
  void name_no_other_mount_to_the_daemon() {
    unlink("/etc/mtab");
    world().put("/etc/mtab", "device " + watched() + " tmpfs rw,relatime 0 0\n");
  }

  std::vector<std::string> put_files(int count, const std::function<std::string(int)>& content) {
    std::vector<std::string> files;
    for (int i = 0; i < count; ++i) {
      files.push_back(put("file" + std::to_string(i), content(i)));
    }
    return files;
  }

  /// Keeps all workers busy with files whose scans end when `go` is made.
  std::vector<Process> stick_workers(int count) {
    std::vector<Process> openers;
    for (int i = 0; i < count; ++i) {
      const std::string file = put("stuck" + std::to_string(i), "!wait " + work("go") + "\n");
      openers.push_back(start_open(file));
      EXPECT_TRUE(eventually([&] { return scans_begun(file) == 1; }));
    }
    return openers;
  }
};

constexpr int kProcesses = 8;
constexpr int kOpens = PELO_EMULATED ? 100 : 2000;
constexpr int kFiles = 200;

bool is_infected(int file) {
  return file % 20 == 3;
}
bool is_slow(int file) {
  return file % 25 == 3;
}

std::string content_of(int file) {
  return std::string(is_slow(file) ? "!sleep 5\n" : "") +
         (is_infected(file) ? "!detect name=Test.Load\n" : "clean\n");
}

int file_of(int process, int open) {
  return (open * 7 + process * 31) % kFiles;
}

/// One of the processes: @return the number of wrong answers, at most 250
int open_many(const std::vector<std::string>& files, int process) {
  int wrong = 0;
  for (int i = 0; i < kOpens; ++i) {
    const int file = file_of(process, i);
    const int expected = is_infected(file) ? EPERM : 0;
    wrong += try_open(files[static_cast<size_t>(file)]) == expected ? 0 : 1;
  }
  return std::min(wrong, 250);
}

TEST_F(Load, EveryOpenOfEightProcessesIsAnsweredRightlyAndCounted) {
  const auto files = put_files(kFiles, content_of);
  name_no_other_mount_to_the_daemon();
  start();
  const auto area = StatusArea::map();
  ASSERT_TRUE(area);
  EXPECT_EQ(area->mounts(), std::vector{watched()});
  ASSERT_TRUE(eventually([&] { return engine_calls("vseSet", {"property=9 "}).size() == 5; }));
  const auto descriptors_before = descriptors();
  const uint64_t answered = area->answered();
  const uint64_t denied = area->denied();

  std::vector<Process> openers;
  uint64_t infected = 0;
  for (int process = 0; process < kProcesses; ++process) {
    openers.emplace_back([&] { return open_many(files, process); });
    for (int i = 0; i < kOpens; ++i) {
      infected += is_infected(file_of(process, i)) ? 1 : 0;
    }
  }
  for (Process& opener : openers) {
    EXPECT_EQ(opener.status(std::chrono::seconds(150)), 0);
  }
  EXPECT_EQ(area->answered() - answered, uint64_t{kProcesses} * kOpens);
  EXPECT_EQ(area->denied() - denied, infected);
  EXPECT_TRUE(eventually([&] { return descriptors() == descriptors_before; }))
      << testing::PrintToString(descriptors());
  EXPECT_EQ(count_of(log(), "Detection name: \"Test.Load\""), infected);
  EXPECT_EQ(events().size(), infected);
}

// labels: essential
TEST_F(Load, ThousandsOfHeldOpensAreAllAnsweredRightly) {
  // The kernel wakes all who wait at every answer, so ten times as many take a hundred times as
  // long; sanitizers need not see that.
  constexpr int kHeld = PELO_EMULATED ? 300 : PELO_SLOW ? 1000 : 5000;
  const auto files =
      put_files(kFiles, [](int i) { return std::string(i % 10 == 0 ? "!detect\n" : "clean\n"); });
  set("HoldLimit", "0");  // however long a busy machine takes for so many
  start({.soft_descriptors = 1024, .hard_descriptors = 16384});
  auto stuck = stick_workers(5);
  OpenersAtOnce openers(files, kHeld);
  EXPECT_TRUE(eventually([&] { return held_descriptors() == kHeld + 5; }, 3 * kPatience))
      << held_descriptors() << " opens are held; " << openers.tally().finished() << " returned";
  EXPECT_EQ(openers.tally().finished(), 0);
  touch(work("go"));
  EXPECT_TRUE(openers.wait(std::chrono::seconds(120)));
  EXPECT_EQ(openers.tally().allowed, kHeld * 9 / 10);
  EXPECT_EQ(openers.tally().denied, kHeld / 10);
  EXPECT_EQ(openers.tally().failed, 0);
  for (Process& opener : stuck) {
    EXPECT_EQ(opener.status(), 0);
  }
}

TEST_F(Load, OpensBeyondTheDescriptorLimitAreAllowedAtOnce) {
  constexpr int kLimit = 256;
  constexpr int kMostHeld = kLimit / 2;
  const auto files = put_files(kFiles, [](int) { return std::string("clean\n"); });
  const std::string infected = put_infected("bad");
  start({.soft_descriptors = kLimit, .hard_descriptors = kLimit});
  auto stuck = stick_workers(5);
  OpenersAtOnce openers(files, 400);
  EXPECT_TRUE(eventually([&] { return openers.tally().finished() >= 400 - kMostHeld; }));
  // One more is in the reader's hands while it is answered.
  EXPECT_LE(held_descriptors(), size_t{kMostHeld} + 1);
  EXPECT_EQ(open_status(infected), 0) << "no room to hold it, and nothing may be denied for that";
  EXPECT_EQ(openers.tally().denied, 0);
  touch(work("go"));
  EXPECT_TRUE(openers.wait());
  EXPECT_EQ(openers.tally().allowed, 400);
  EXPECT_TRUE(eventually([&] { return open_status(infected) == EPERM; }));
}

TEST_F(Load, OneFreeWorkerServesEverybodyWhileTheOthersAreStuck) {
  const auto files = put_files(20, content_of);
  start();
  auto stuck = stick_workers(4);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(open_status(files[static_cast<size_t>(i)]), is_infected(i) ? EPERM : 0);
  }
  touch(work("go"));
  for (Process& opener : stuck) {
    EXPECT_EQ(opener.status(), 0);
  }
}

TEST_F(Load, HundredKilledOpenersLeaveNothingBehind) {
  const auto files = put_files(kFiles, [](int) { return std::string("clean\n"); });
  start();
  auto stuck = stick_workers(5);
  {
    std::vector<Process> openers;
    for (int i = 0; i < 100; ++i) {
      openers.push_back(start_open(files[static_cast<size_t>(i)]));
    }
    EXPECT_TRUE(eventually([&] { return held_descriptors() == 105; }));
  }
  touch(work("go"));
  EXPECT_TRUE(eventually([&] { return held_descriptors() == 0; }));
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
}

TEST_F(Load, UpdatesUnderLoadDelayAnswersButLoseNone) {
  const auto clean = put_files(40, [](int) { return std::string("clean\n"); });
  const std::vector<std::string> infected = {put_infected("bad1"), put_infected("bad2")};
  stage_definitions();
  start();
  OpenersUntilToldToEnd openers(4, clean, infected, work("end"));
  const auto updates = [&] { return engine_calls("vseExec", {"operation=14"}).size(); };
  for (size_t update = 1; update <= 5; ++update) {
    // A request that comes during the cycle before is dropped with it: ask again.
    EXPECT_TRUE(eventually([&] {
      daemon().signal(SIGHUP);
      return updates() >= update;
    }));
    const size_t scans_before = engine_calls("vseExec", {"operation=9"}).size();
    EXPECT_TRUE(eventually([&] {
      return engine_calls("vseExec", {"operation=9"}).size() > scans_before + 40;
    })) << "no progress after update "
        << update;
  }
  EXPECT_TRUE(openers.all_running());
  touch(work("end"));
  EXPECT_TRUE(openers.all_released());
  EXPECT_EQ(open_status(infected[0]), EPERM);
}

}  // namespace
}  // namespace e2e
