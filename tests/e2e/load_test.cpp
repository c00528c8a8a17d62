// Many opens at once: each is answered, rightly, and nothing is left behind.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <iostream>
#include <optional>

#include "emulated.h"
#include "fixture.h"
#include "openers.h"

namespace e2e {
namespace {

using testing::Each;

// labels: alone
class Load : public E2eTest {};

constexpr int process_count = 8;
constexpr int opens_per_process = PELO_EMULATED ? 100 : 2000;
constexpr int load_files = 200;

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
  return (open * 7 + process * 31) % load_files;
}

/// One of the processes: @return the number of wrong answers, at most 250
int open_many(const std::vector<std::string>& files, int process) {
  int wrong = 0;
  for (int i = 0; i < opens_per_process; ++i) {
    const int file = file_of(process, i);
    const int expected = is_infected(file) ? EPERM : 0;
    wrong += try_open(files[static_cast<size_t>(file)]) == expected ? 0 : 1;
  }
  return std::min(wrong, 250);
}

TEST_F(Load, EveryOpenOfEightProcessesIsAnsweredRightlyAndCounted) {
  const auto files = names("file", load_files);
  for (int i = 0; i < load_files; ++i) {
    put("file" + std::to_string(i), content_of(i));
  }
  // The only mount whose opens make events, so that events can be counted.
  unlink("/etc/mtab");
  world().put("/etc/mtab", "device " + watched() + " tmpfs rw,relatime 0 0\n");
  start();
  const auto area = StatusArea::map();
  ASSERT_TRUE(area);
  EXPECT_EQ(area->mounts(), std::vector{watched()});
  wait_for_handles(5);
  const auto descriptors_before = descriptors();
  const uint64_t answered = area->answered();
  const uint64_t denied = area->denied();

  std::vector<Process> openers;
  uint64_t infected = 0;
  for (int process = 0; process < process_count; ++process) {
    openers.emplace_back([&] { return open_many(files, process); });
    for (int i = 0; i < opens_per_process; ++i) {
      infected += is_infected(file_of(process, i)) ? 1 : 0;
    }
  }
  for (Process& opener : openers) {
    EXPECT_EQ(opener.status(std::chrono::seconds(150)), 0);
  }
  EXPECT_EQ(area->answered() - answered, uint64_t{process_count} * opens_per_process);
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
  constexpr int held_opens = PELO_EMULATED ? 200 : PELO_SLOW ? 1000 : 5000;
  static_assert(held_opens % load_files == 0, "each file is opened as often as any other");
  auto files = put_files("file", load_files * 9 / 10);
  const auto infected = put_files("bad", load_files / 10, "!detect\n");
  files.insert(files.end(), infected.begin(), infected.end());
  set("HoldLimit", "0");  // however long a busy machine takes for so many
  start({.soft_descriptors = 1024, .hard_descriptors = 16384});
  auto stuck = stick_workers(5);
  OpenersAtOnce openers(files, held_opens);
  EXPECT_TRUE(eventually([&] { return held_descriptors() == held_opens + 5; }, 3 * patience))
      << held_descriptors() << " opens are held; " << openers.tally().finished() << " returned";
  EXPECT_EQ(openers.tally().finished(), 0);
  release();
  EXPECT_TRUE(openers.wait(std::chrono::seconds(120)));
  EXPECT_EQ(openers.tally().allowed, held_opens * 9 / 10);
  EXPECT_EQ(openers.tally().denied, held_opens / 10);
  EXPECT_EQ(openers.tally().failed, 0);
  EXPECT_THAT(statuses(stuck), Each(0));
}

TEST_F(Load, OpensBeyondTheDescriptorLimitAreAllowedAtOnce) {
  constexpr int few_descriptors = 256;
  constexpr int most_held = few_descriptors / 2;
  const auto files = put_files("file", load_files);
  const std::string infected = put_infected("bad");
  start({.soft_descriptors = few_descriptors, .hard_descriptors = few_descriptors});
  auto stuck = stick_workers(5);
  OpenersAtOnce openers(files, 400);
  EXPECT_TRUE(eventually([&] { return openers.tally().finished() >= 400 - most_held; }));
  // One more is in the reader's hands while it is answered.
  EXPECT_LE(held_descriptors(), size_t{most_held} + 1);
  EXPECT_EQ(open_status(infected), 0) << "no room to hold it, and nothing may be denied for that";
  EXPECT_EQ(openers.tally().denied, 0);
  release();
  EXPECT_TRUE(openers.wait());
  EXPECT_EQ(openers.tally().allowed, 400);
  EXPECT_TRUE(eventually([&] { return open_status(infected) == EPERM; }));
}

TEST_F(Load, UpdatesUnderLoadDelayAnswersButLoseNone) {
  const auto clean = put_files("file", 40);
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

// Who waits for an answer, and for how long: behind thousands of files that somebody has written,
// for workers that never come back, and at the end.

constexpr rlim_t many_descriptors = 16384;

class HeldOpens : public E2eTest {
 protected:
  static Launch with_descriptors() {
    return {.soft_descriptors = 1024, .hard_descriptors = many_descriptors};
  }

  /// One user makes all the files, writes them when all are open, each with a number at its end,
  /// and exits: all are closed at once.
  /// @param meanwhile is done while they are open
  void write_and_exit(
      const std::vector<std::string>& files, const std::string& content,
      const std::string& last_content, const std::function<void()>& meanwhile = [] {}) {
    Process writer([&] {
      const rlimit enough{many_descriptors, many_descriptors};
      setrlimit(RLIMIT_NOFILE, &enough);
      std::vector<int> open_files;
      for (const std::string& file : files) {
        open_files.push_back(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
      }
      touch(work("all open"));
      if (!eventually([&] { return World::exists(work("write")); }, 4 * patience)) {
        return 1;
      }
      for (const int file : open_files) {
        const std::string text =
            (file == open_files.back() ? last_content : content) + std::to_string(file);
        if (write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
          return 1;
        }
      }
      return 0;
    });
    ASSERT_TRUE(eventually([&] { return World::exists(work("all open")); }));
    meanwhile();
    touch(work("write"));
    ASSERT_EQ(writer.status(), 0);
  }
};

// labels: alone
class Fairness : public HeldOpens {
 protected:
  /// Makes the files that are measured, and starts the daemon.
  void begin(const Launch& how) {
    cached_ = put_clean("cached");
    fresh_ = put_files("fresh", PELO_EMULATED ? 200 : 1000);
    start(how);
    ASSERT_EQ(open_status(cached_), 0);
  }

  /// What another user sees in the next seconds.
  void expect_fair() {
    constexpr size_t probe_count = 100;
    OpenProbe cached({cached_}, 0, Duration(5));
    OpenProbe uncached(fresh_, 0, Duration(20));
    EXPECT_TRUE(eventually(
        [&] { return cached.opens() >= probe_count && uncached.opens() >= probe_count / 4; }));
    const OpenTimes of_cached = cached.times();
    const OpenTimes of_uncached = uncached.times();
    const size_t still_held = held_descriptors();
    std::cout << "figure: cached: " << of_cached << "\nfigure: uncached: " << of_uncached
              << "\nfigure: " << still_held << " still held\n";
    EXPECT_GT(still_held, 20U) << "too few closes to say anything";
    EXPECT_EQ(of_cached.wrong + of_uncached.wrong, 0U);
    EXPECT_LT(of_cached.worst, Duration(600) * slowdown);
    EXPECT_LT(of_uncached.worst, Duration(1100) * slowdown);
  }

  std::string cached_;
  std::vector<std::string> fresh_;
};

TEST_F(Fairness, AnotherUserHardlyWaitsBehindThousandsOfFilesThatWereWritten) {
  const int written = PELO_EMULATED ? 300 : 5000;
  ASSERT_NO_FATAL_FAILURE(begin(with_descriptors()));
  write_and_exit(names("written", written), "!sleep 50\n", "!sleep 50\n");
  ASSERT_FALSE(HasFatalFailure());
  expect_fair();
  stop(stop_bound);
}

TEST_F(Fairness, OpenOfAFileWhoseCloseWaitsFollowsThatClose) {
  const int written = PELO_EMULATED ? 100 : 600;
  ASSERT_NO_FATAL_FAILURE(begin(with_descriptors()));
  // Each was clean when it was opened, and so is in the cache.
  const auto files = names("written", written);
  write_and_exit(files, "!sleep 50\n", "!detect name=Test.Written\n");
  ASSERT_FALSE(HasFatalFailure());
  Process follower = start_open(files.back());
  Process behind_a_clean_one = start_open(files[files.size() - 2]);
  expect_fair();
  EXPECT_EQ(follower.status(), EPERM);
  EXPECT_EQ(behind_a_clean_one.status(), 0);
  EXPECT_GE(scans(files.back()), 2U) << "once when it was opened, once when it was closed";
}

#ifdef PELO_BUNDLED_DEFINITIONS
// labels: long
TEST_F(Fairness, AnotherUserHardlyWaitsBehindHundredsOfZipsForTheShippedEngine) {
  constexpr int member_size = 4 << 20;
  std::string member;
  while (member.size() < member_size) {
    member += "line " + std::to_string(member.size() % 1000) + "\n";
  }
  world().put(work("member"), member);
  Process packer([&]() -> int { execute({"zip", "-q", work("packed.zip"), work("member")}); });
  ASSERT_EQ(packer.status(), 0);
  const std::string packed = world().read(work("packed.zip"));
  set("DatabaseDirectory", PELO_LIBRARIES "/../share/definitions");
  Launch as_installed = with_descriptors();
  as_installed.wrapper = {"env", "-u", "LD_LIBRARY_PATH"};
  ASSERT_NO_FATAL_FAILURE(begin(as_installed));
  write_and_exit(names("written", PELO_EMULATED ? 100 : 600), packed, packed);
  ASSERT_FALSE(HasFatalFailure());
  expect_fair();
  EXPECT_EQ(engine_record(), "");
  stop(stop_bound);
}
#endif

TEST_F(Fairness, ClosesAreScannedAlthoughOpensNeverCease) {
  constexpr int closed_files = 40;
  constexpr int opener_count = PELO_SLOW ? 60 : 100;
  const auto busy = put_files("busy", 2, "!sleep 20\n!detect\n");
  start(with_descriptors());
  std::optional<OpenersUntilToldToEnd> openers;
  const std::string infected = "!detect name=Test.Closed\n";
  write_and_exit(names("written", closed_files), infected, infected, [&] {
    openers.emplace(opener_count, std::vector<std::string>{}, busy, work("end"));
    EXPECT_TRUE(eventually([&] { return held_descriptors() >= opener_count / 2; }));
  });
  ASSERT_FALSE(HasFatalFailure());
  EXPECT_TRUE(eventually([&] {
    return count_of(log(), "Detection name: \"Test.Closed\"") == closed_files;
  })) << count_of(log(), "Detection name: \"Test.Closed\"")
      << " were scanned";
  EXPECT_TRUE(openers->all_running());
  touch(work("end"));
  EXPECT_TRUE(openers->all_released());
}

// labels: alone essential
class StopWithHeldOpens : public HeldOpens, public testing::WithParamInterface<int> {};

TEST_P(StopWithHeldOpens, ReleasesThousandsWhileAllWorkersAreStuck) {
  constexpr int held_opens = PELO_EMULATED ? 300 : PELO_SLOW ? 1000 : 5000;
  const auto files = put_files("file", 200);
  start(with_descriptors());
  auto stuck = stick_workers(5);
  OpenersAtOnce openers(files, held_opens);
  ASSERT_TRUE(eventually([&] { return held_descriptors() == held_opens + 5; }))
      << held_descriptors();
  const auto begin = std::chrono::steady_clock::now();
  daemon().signal(GetParam());
  const auto exit = daemon().wait(4 * patience);
  ASSERT_TRUE(exit.has_value());
  const auto gone = std::chrono::steady_clock::now() - begin;
  EXPECT_TRUE(openers.wait());
  const auto released = std::chrono::steady_clock::now() - begin;
  EXPECT_THAT(statuses(stuck), Each(0));
  std::cout << "figure: gone after " << gone / Duration(1) << " ms, the last opener released after "
            << released / Duration(1) << " ms\n";
  EXPECT_EQ(openers.tally().allowed, held_opens);
  EXPECT_LT(released, stop_bound);
  if (GetParam() == SIGKILL) {
    expect_no_clean_end();
  } else {
    EXPECT_EQ(*exit, Exit{});
  }
}

INSTANTIATE_TEST_SUITE_P(Signals, StopWithHeldOpens, testing::Values(SIGTERM, SIGKILL),
                         [](const auto& test) {
                           return std::string(test.param == SIGTERM ? "Sigterm" : "Sigkill");
                         });

TEST_F(HeldOpens, HoldLimitLetsGoOfWhatWaitsLongerAndCountsIt) {
  const std::string infected = put_infected("bad");
  set("HoldLimit", "2");
  set_threads(2);
  start();
  auto stuck = stick_workers(2);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(open_status(infected), 0);
  const auto held = std::chrono::steady_clock::now() - begin;
  std::cout << "figure: held for " << held / Duration(1) << " ms\n";
  EXPECT_GE(held, std::chrono::seconds(2));
  EXPECT_LT(held, std::chrono::seconds(30)) << "the default";
  EXPECT_EQ(scans_begun(infected), 0U);
  expect_logged("allowed without a scan");
  release();
  EXPECT_THAT(statuses(stuck), Each(0));
  EXPECT_EQ(open_status(infected), EPERM);
}

}  // namespace
}  // namespace e2e
