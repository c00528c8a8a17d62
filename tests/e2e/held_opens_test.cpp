// Who waits for an answer, and for how long: behind thousands of files that somebody has written,
// for workers that never come back, and at the end.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <optional>

#include "emulated.h"
#include "fixture.h"
#include "open_probe.h"
#include "openers.h"

namespace e2e {
namespace {

constexpr rlim_t kDescriptors = 16384;
constexpr int kSlowdown = PELO_SLOW ? 10 : 1;  // of what the times promise

class HeldOpens : public E2eTest {
 protected:
  static Launch with_descriptors() {
    Launch how;
    how.soft_descriptors = 1024;
    how.hard_descriptors = kDescriptors;
    return how;
  }

  std::vector<std::string> put_files(const std::string& name, int count,
                                     const std::string& content) {
    std::vector<std::string> files;
    for (int i = 0; i < count; ++i) {
      files.push_back(put(name + std::to_string(i), content));
    }
    return files;
  }

  std::vector<std::string> names(const std::string& name, int count) const {
    std::vector<std::string> files;
    for (int i = 0; i < count; ++i) {
      files.push_back(watched(name + std::to_string(i)));
    }
    return files;
  }

  /// One user makes all the files, writes them when all are open, each with a number at its end,
  /// and exits: all are closed at once.
  /// @param meanwhile is done while they are open
  void write_and_exit(
      const std::vector<std::string>& files, const std::string& content,
      const std::string& last_content, const std::function<void()>& meanwhile = [] {}) {
    Process writer([&] {
      const rlimit enough{kDescriptors, kDescriptors};
      setrlimit(RLIMIT_NOFILE, &enough);
      std::vector<int> open_files;
      for (const std::string& file : files) {
        open_files.push_back(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
      }
      touch(work("all open"));
      if (!eventually([&] { return World::exists(work("write")); }, 4 * kPatience)) {
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

  struct Waits {
    OpenTimes cached;
    OpenTimes uncached;
    size_t still_held = 0;  // at the end of the measurement
  };

  /// What another user sees in the next seconds.
  Waits measure(const std::string& cached_file, const std::vector<std::string>& uncached_files) {
    constexpr size_t kOpens = 100;
    OpenProbe cached({cached_file}, 0, Duration(5));
    OpenProbe uncached(uncached_files, 0, Duration(20));
    (void)eventually([&] { return cached.opens() >= kOpens && uncached.opens() >= kOpens / 4; },
                     kPatience);
    Waits waits{cached.times(), uncached.times(), held_descriptors()};
    std::cout << "figure: cached: " << waits.cached << "\nfigure: uncached: " << waits.uncached
              << "\nfigure: " << waits.still_held << " still held\n";
    return waits;
  }

  static void expect_fair(const Waits& waits) {
    EXPECT_GT(waits.still_held, 20U) << "too few closes to say anything";
    EXPECT_GE(waits.cached.opens, 100U);
    EXPECT_GE(waits.uncached.opens, 25U);
    EXPECT_EQ(waits.cached.wrong + waits.uncached.wrong, 0U);
    EXPECT_LT(waits.cached.worst, Duration(600) * kSlowdown);
    EXPECT_LT(waits.uncached.worst, Duration(1100) * kSlowdown);
  }

  /// Keeps all workers busy until `go` is made.
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

// labels: alone
class Fairness : public HeldOpens {
 protected:
  static constexpr int kFresh = PELO_EMULATED ? 200 : 1000;
};

TEST_F(Fairness, AnotherUserHardlyWaitsBehindThousandsOfFilesThatWereWritten) {
  const int written = PELO_EMULATED ? 300 : 5000;
  const std::string cached = put_clean("cached");
  const auto fresh = put_files("fresh", kFresh, "clean\n");
  start(with_descriptors());
  ASSERT_EQ(open_status(cached), 0);
  write_and_exit(names("written", written), "!sleep 50\n", "!sleep 50\n");
  ASSERT_FALSE(HasFatalFailure());
  expect_fair(measure(cached, fresh));
  stop(kStopBound);
}

TEST_F(Fairness, OpenOfAFileWhoseCloseWaitsFollowsThatClose) {
  const int written = PELO_EMULATED ? 100 : 600;
  const std::string cached = put_clean("cached");
  const auto fresh = put_files("fresh", kFresh, "clean\n");
  start(with_descriptors());
  ASSERT_EQ(open_status(cached), 0);
  // Each was clean when it was opened, and so is in the cache.
  const auto files = names("written", written);
  write_and_exit(files, "!sleep 50\n", "!detect name=Test.Written\n");
  ASSERT_FALSE(HasFatalFailure());
  Process follower = start_open(files.back());
  Process behind_a_clean_one = start_open(files[files.size() - 2]);
  expect_fair(measure(cached, fresh));
  EXPECT_EQ(follower.status(), EPERM);
  EXPECT_EQ(behind_a_clean_one.status(), 0);
  EXPECT_GE(scans(files.back()), 2U) << "once when it was opened, once when it was closed";
}

TEST_F(Fairness, ClosesAreScannedAlthoughOpensNeverCease) {
  constexpr int kClosed = 40;
  constexpr int kOpeners = PELO_SLOW ? 60 : 100;
  const auto busy = put_files("busy", 2, "!sleep 20\n!detect\n");
  start(with_descriptors());
  std::optional<OpenersUntilToldToEnd> openers;
  const std::string infected = "!detect name=Test.Closed\n";
  write_and_exit(names("written", kClosed), infected, infected, [&] {
    openers.emplace(kOpeners, std::vector<std::string>{}, busy, work("end"));
    EXPECT_TRUE(eventually([&] { return held_descriptors() >= kOpeners / 2; }));
  });
  ASSERT_FALSE(HasFatalFailure());
  EXPECT_TRUE(eventually([&] {
    return count_of(log(), "Detection name: \"Test.Closed\"") == kClosed;
  })) << count_of(log(), "Detection name: \"Test.Closed\"")
      << " were scanned";
  EXPECT_TRUE(openers->all_running());
  touch(work("end"));
  EXPECT_TRUE(openers->all_released());
}

#ifdef PELO_BUNDLED_DEFINITIONS
TEST_F(Fairness, NorBehindHundredsOfArchivesWithTheClamAvEngine) {
  // Takes some 50 ms to look through.
  const std::string command = "cd " + work() +
                              " && head -c 1400000 /dev/zero | tr '\\0' 'x' >inner &&"
                              " zip -q archive.zip inner";
  ASSERT_EQ(std::system(command.c_str()), 0);
  const std::string cached = put_clean("cached");
  const auto fresh = put_files("fresh", kFresh, "clean\n");
  world().put(work("db/pelo.ndb"), world().read(PELO_BUNDLED_DEFINITIONS));
  Launch how = with_descriptors();
  how.wrapper = {"env", "-u", "LD_LIBRARY_PATH"};
  start(how);
  ASSERT_EQ(open_status(cached), 0);
  const std::string archive = world().read(work("archive.zip"));
  write_and_exit(names("written", 600), archive, archive);
  ASSERT_FALSE(HasFatalFailure());
  expect_fair(measure(cached, fresh));
  stop(kStopBound);
}
#endif

// labels: alone essential
class StopWithHeldOpens : public HeldOpens, public testing::WithParamInterface<int> {};

TEST_P(StopWithHeldOpens, ReleasesThousandsWhileAllWorkersAreStuck) {
  constexpr int kHeld = PELO_EMULATED ? 300 : PELO_SLOW ? 1000 : 5000;
  const auto files = put_files("file", 200, "clean\n");
  start(with_descriptors());
  auto stuck = stick_workers(5);
  OpenersAtOnce openers(files, kHeld);
  ASSERT_TRUE(eventually([&] { return held_descriptors() == kHeld + 5; })) << held_descriptors();
  const auto begin = std::chrono::steady_clock::now();
  daemon().signal(GetParam());
  const auto exit = daemon().wait(4 * kPatience);
  ASSERT_TRUE(exit.has_value());
  const auto gone = std::chrono::steady_clock::now() - begin;
  EXPECT_TRUE(openers.wait());
  const auto released = std::chrono::steady_clock::now() - begin;
  for (Process& opener : stuck) {
    EXPECT_EQ(opener.status(), 0);
  }
  std::cout << "figure: gone after " << gone / Duration(1) << " ms, the last opener released after "
            << released / Duration(1) << " ms\n";
  EXPECT_EQ(openers.tally().allowed, kHeld);
  EXPECT_LT(released, kStopBound);
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
  EXPECT_LT(held, std::chrono::seconds(5) * kSlowdown);
  EXPECT_EQ(scans_begun(infected), 0U);
  EXPECT_TRUE(eventually([&] { return logged("allowed without a scan"); })) << log();
  touch(work("go"));
  for (Process& opener : stuck) {
    EXPECT_EQ(opener.status(), 0);
  }
  EXPECT_EQ(open_status(infected), EPERM);
}

TEST_F(HeldOpens, HoldLimitOfZeroLetsNothingGo) {
  const std::string infected = put_infected("bad");
  set("HoldLimit", "0");
  set_threads(1);
  start();
  auto stuck = stick_workers(1);
  Process opener = start_open(infected);
  EXPECT_EQ(opener.status(std::chrono::seconds(4)), kStuck);
  touch(work("go"));
  EXPECT_EQ(opener.status(), EPERM);
}

// The kernel opens the file once more for the daemon, without waiting. Where that open meets a
// lease, it fails, and with it the open that the daemon was asked about.
TEST_F(HeldOpens, OpenThatMeetsAWriteLeaseIsDenied) {
  const std::string file = put_clean("leased");
  start();
  ASSERT_EQ(open_status(file), 0);
  Process holder([&] {
    std::signal(SIGIO, SIG_IGN);  // it does not give the lease back when asked to
    const int leased = open(file.c_str(), O_RDWR | O_CLOEXEC);
    // Nobody else may have it open, and the daemon closes it a moment after its answer.
    if (!eventually([&] { return fcntl(leased, F_SETLEASE, F_WRLCK) == 0; })) {
      return errno;
    }
    touch(work("held"));
    (void)eventually([&] { return World::exists(work("go")); }, 4 * kPatience);
    return 0;
  });
  ASSERT_TRUE(eventually([&] { return World::exists(work("held")) || !holder.running(); }));
  ASSERT_TRUE(holder.running()) << *holder.wait();
  EXPECT_EQ(open_status(file), EPERM);
  touch(work("go"));
  EXPECT_EQ(holder.status(), 0);
  EXPECT_EQ(open_status(file), 0);
}

}  // namespace
}  // namespace e2e
