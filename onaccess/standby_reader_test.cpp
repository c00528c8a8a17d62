#include "standby_reader.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <iterator>

#include "wait.h"

namespace {

using std::chrono::milliseconds;

/// Long enough for a standby reader to look again; what is right never fails it.
constexpr milliseconds glimpse{500};

/// Standby readers beside a main thread that is stuck when the test says so.
class StandbyReadersTest : public testing::Test {
 protected:
  ~StandbyReadersTest() override {
    blocked_ = 0;
    EXPECT_TRUE(readers_.stop(generous_bound));
  }

  bool look() {
    ++looks_;
    return stuck_;
  }

  /// There is always an event.
  bool await_event() {
    const int waiting = ++waiting_;
    most_waiting_ = std::max(most_waiting_.load(), waiting);
    std::this_thread::sleep_for(milliseconds(1));  // a reader of the kernel's events would wait too
    --waiting_;
    return true;
  }

  /// Reads an event; the first `blocked_` ones wait until that changes.
  void read() {
    const int number = ++reads_;
    ignores_terminate_ = blocks(SIGTERM);
    ignores_bus_error_ = blocks(SIGBUS);
    while (number <= blocked_) {
      std::this_thread::sleep_for(milliseconds(1));  // as long as the test wants
    }
    ++finished_;
  }

  static std::ptrdiff_t threads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator{});
  }

  static bool blocks(int number) {
    sigset_t blocked;
    (void)pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return sigismember(&blocked, number) == 1;
  }

  std::atomic<bool> stuck_{false};
  std::atomic<int> blocked_{0};
  std::atomic<int> looks_{0};
  std::atomic<int> waiting_{0};
  std::atomic<int> most_waiting_{0};
  std::atomic<int> reads_{0};
  std::atomic<int> finished_{0};
  std::atomic<bool> ignores_terminate_{false};
  std::atomic<bool> ignores_bus_error_{true};
  std::atomic<int> looked_after_{0};
  std::atomic<int> looks_after_{INT_MAX};  // that many, then the lookout waits until it is more
  std::atomic<int> overwhelmed_{0};
  std::atomic<bool> lookout_blocks_terminate_{true};
  StandbyReaders readers_{{.is_stuck = [this] { return look(); },
                           .await_event = [this] { return await_event(); },
                           .read_one = [this] { read(); },
                           .look_after =
                               [this] {
                                 lookout_blocks_terminate_ = blocks(SIGTERM);
                                 ++looked_after_;
                                 while (looked_after_ > looks_after_) {
                                   std::this_thread::sleep_for(milliseconds(1));
                                 }
                               },
                           .overwhelmed = [this] { ++overwhelmed_; }}};
};

TEST_F(StandbyReadersTest, ReadNothingWhileTheMainThreadGetsOn) {
  readers_.start();
  EXPECT_TRUE(eventually([this] { return looks_ >= 9; }));
  EXPECT_EQ(reads_, 0);
}

TEST_F(StandbyReadersTest, ReadOnAndOnWhileTheMainThreadIsStuck) {
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return finished_ >= 20; }));
}

// To make a thread takes a lock that a thread may hold whose open only they can answer.
TEST_F(StandbyReadersTest, NoThreadIsMadeAfterTheStart) {
  readers_.start();
  const auto made = threads();
  blocked_ = 1000;
  stuck_ = true;
  EXPECT_TRUE(eventually([this] { return reads_ == 64; }));
  EXPECT_EQ(threads(), made);
  EXPECT_FALSE(readers_.stop(milliseconds(50)));
  EXPECT_EQ(threads(), made) << "a stop in vain must leave all of them";
  readers_.start();
  EXPECT_EQ(threads(), made);
}

// Each read is a moment at which one reader rests and another calls it.
TEST_F(StandbyReadersTest, LoseNoCallWhileTheLookoutIsAway) {
  stuck_ = true;
  looks_after_ = 1;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return finished_ >= 5000; }));
  blocked_ = INT_MAX;
  EXPECT_TRUE(eventually([this] { return reads_ - finished_ == 64; }))
      << "with each stuck in turn, the next must be free";
  blocked_ = 0;
  looks_after_ = INT_MAX;
}

TEST_F(StandbyReadersTest, GoOnAfterAStopInVain) {
  stuck_ = true;
  readers_.start();
  for (int i = 0; i < 200; ++i) {
    const int reads = reads_;
    (void)readers_.stop(milliseconds(i % 3));
    readers_.start();
    EXPECT_TRUE(eventually([&] { return reads_ > reads; }));
  }
  const int looked_after = looked_after_;
  EXPECT_TRUE(eventually([&] { return looked_after_ > looked_after; }));
  blocked_ = INT_MAX;
  EXPECT_TRUE(eventually([this] { return reads_ - finished_ == 64; }));
}

TEST_F(StandbyReadersTest, NoticeThatTheMainThreadGotStuckLater) {
  readers_.start();
  EXPECT_TRUE(eventually([this] { return looks_ >= 3; }));
  stuck_ = true;
  EXPECT_TRUE(eventually([this] { return reads_ > 0; }));
}

TEST_F(StandbyReadersTest, CeaseWhenTheMainThreadGetsOnAgain) {
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return reads_ > 0; }));
  stuck_ = false;
  const int looks = looks_;
  EXPECT_TRUE(eventually([&] { return looks_ >= looks + 3; }));
  const int reads = reads_;
  EXPECT_TRUE(eventually([&] { return looks_ >= looks + 6; }));
  EXPECT_EQ(reads_, reads);
}

TEST_F(StandbyReadersTest, LookAfterTheRestAlsoWhileTheMainThreadGetsOn) {
  readers_.start();
  EXPECT_TRUE(eventually([this] { return looked_after_ >= 3; }));
}

TEST_F(StandbyReadersTest, ThoseThatAreStuckThemselvesLeaveOthers) {
  blocked_ = 40;
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return finished_ > 0; }));
}

TEST_F(StandbyReadersTest, OneThatIsStillStuckFromAnEarlierTimeIsPassedOver) {
  blocked_ = 1;
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return finished_ > 0; }));
  stuck_ = false;
  const int looks = looks_;
  EXPECT_TRUE(eventually([&] { return looks_ >= looks + 3; }));
  const int finished = finished_;
  stuck_ = true;
  EXPECT_TRUE(eventually([&] { return finished_ > finished; }));
}

TEST_F(StandbyReadersTest, LookAfterTheRestWhileAllReadersAreStuck) {
  blocked_ = 1000;
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return reads_ == 64; }));
  const int looked_after = looked_after_;
  EXPECT_TRUE(eventually([&] { return looked_after_ > looked_after + 1; }));
}

TEST_F(StandbyReadersTest, DoNotAllWaitForTheSameEvent) {
  blocked_ = 20;
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return finished_ > 0; }));
  blocked_ = 0;
  EXPECT_TRUE(eventually([this] { return finished_ > 100; }));
  most_waiting_ = 0;
  EXPECT_TRUE(eventually([this] { return finished_ > 200; }));
  EXPECT_LE(most_waiting_, 2) << "the free one, and one that has just been called";
}

TEST_F(StandbyReadersTest, SayThatMostAreBusy) {
  blocked_ = 47;
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return finished_ > 0; }));
  EXPECT_EQ(readers_.busy() / 47, 1) << "one more may be busy for a moment";
  const int moments = overwhelmed_;
  blocked_ = 1000;
  EXPECT_TRUE(eventually([this] { return readers_.busy() == 64; }));
  EXPECT_TRUE(readers_.overwhelmed());
  EXPECT_GT(overwhelmed_, moments);
  blocked_ = 0;
  EXPECT_TRUE(eventually([this] { return !readers_.overwhelmed(); }));
}

TEST_F(StandbyReadersTest, TheLookoutTakesTheSignalsThatItsMakerDoesNotBlock) {
  readers_.start();
  EXPECT_TRUE(readers_.has_lookout());
  EXPECT_TRUE(eventually([this] { return looked_after_ > 0; }));
  EXPECT_FALSE(lookout_blocks_terminate_);
}

TEST_F(StandbyReadersTest, LeaveTheProcesssSignalsToTheLookout) {
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return finished_ > 0; }));
  EXPECT_TRUE(ignores_terminate_);
  EXPECT_FALSE(ignores_bus_error_) << "a fault of their own cannot wait for another thread";
}

TEST_F(StandbyReadersTest, AStopEndsThem) {
  readers_.start();
  EXPECT_TRUE(eventually([this] { return looks_ >= 3; }));
  EXPECT_TRUE(readers_.stop(generous_bound));
  const int looks = looks_;
  EXPECT_FALSE(eventually([&] { return looks_ != looks; }, glimpse));
}

TEST_F(StandbyReadersTest, AStopEndsThemWhileTheMainThreadIsStuck) {
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return reads_ > 0; }));
  EXPECT_TRUE(readers_.stop(generous_bound));
  EXPECT_EQ(finished_, reads_);
}

TEST_F(StandbyReadersTest, AStopReportsOneThatIsStuckItself) {
  blocked_ = 1;
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return reads_ > 0; }));
  EXPECT_FALSE(readers_.stop(milliseconds(50)));
  blocked_ = 0;
  EXPECT_TRUE(readers_.stop(generous_bound));
}

TEST_F(StandbyReadersTest, ReadOnAfterAStopThatOneWasTooStuckFor) {
  blocked_ = 1;
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return reads_ > 0; }));
  EXPECT_FALSE(readers_.stop(milliseconds(50)));
  const int finished = finished_;
  readers_.start();
  EXPECT_TRUE(eventually([&] { return finished_ > finished; }));
}

TEST_F(StandbyReadersTest, AnotherStartChangesNothing) {
  readers_.start();
  readers_.start();
  EXPECT_TRUE(eventually([this] { return looks_ >= 3; }));
  EXPECT_TRUE(readers_.stop(generous_bound));
  const int looks = looks_;
  EXPECT_FALSE(eventually([&] { return looks_ != looks; }, glimpse)) << "there are two lookouts";
}

TEST_F(StandbyReadersTest, AStopWithoutAStartFindsNobody) {
  EXPECT_TRUE(readers_.stop(milliseconds(0)));
}

TEST_F(StandbyReadersTest, AreStartedAgainAfterAStop) {
  readers_.start();
  EXPECT_TRUE(readers_.stop(generous_bound));
  stuck_ = true;
  readers_.start();
  EXPECT_TRUE(eventually([this] { return reads_ > 0; }));
}

}  // namespace
