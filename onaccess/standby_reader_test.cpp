#include "standby_reader.h"

#include <gtest/gtest.h>
#include <signal.h>

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
    const bool stuck = stuck_;
    found_stuck_ += stuck ? 1 : 0;
    return stuck;
  }

  /// Reads an event; the first `blocked_` ones wait until that changes.
  void read() {
    const int number = ++reads_;
    ignores_terminate_ = blocks(SIGTERM);
    ignores_bus_error_ = blocks(SIGBUS);
    while (number <= blocked_) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    std::this_thread::sleep_for(milliseconds(1));
    ++finished_;
  }

  static bool blocks(int number) {
    sigset_t blocked;
    (void)pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return sigismember(&blocked, number) == 1;
  }

  std::atomic<bool> stuck_{false};
  std::atomic<int> blocked_{0};
  std::atomic<int> looks_{0};
  std::atomic<int> found_stuck_{0};
  std::atomic<int> reads_{0};
  std::atomic<int> finished_{0};
  std::atomic<bool> ignores_terminate_{false};
  std::atomic<bool> ignores_bus_error_{true};
  std::atomic<int> looked_after_{0};
  StandbyReaders readers_{[this] { return look(); }, [this] { read(); },
                          [this] { ++looked_after_; }};
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
  EXPECT_TRUE(eventually([&] { return looks_ >= looks + 12; }));
  EXPECT_TRUE(eventually([this] { return reads_ == found_stuck_; }))
      << "each read has been preceded by a look";
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

TEST_F(StandbyReadersTest, LeaveTheProcesssSignalsToTheMainThread) {
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
