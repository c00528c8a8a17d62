#include "barriers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "wait.h"

namespace {

/// Long enough for a thread that is wrongly let through to be seen; a right one never fails it.
constexpr std::chrono::milliseconds glimpse{50};

class UpdateBarrierTest : public testing::Test {
 protected:
  ~UpdateBarrierTest() override { join(); }

  /// An update for so many workers.
  void request_of(int workers) {
    barrier_.set_parties(workers);
    barrier_.request();
  }

  /// Arrives, or comes back, as a worker does. @return whether it may go on
  bool arrive(unsigned renewed_for) { return barrier_.arrive(renewed_for, barrier_.turn()); }

  /// Has workers arrive on threads of their own, and sees that they wait.
  void wait_in_threads(unsigned renewed_for, int workers = 1) {
    for (int i = 0; i < workers; ++i) {
      threads_.emplace_back([this, renewed_for, turn = barrier_.turn()] {
        (barrier_.arrive(renewed_for, turn) ? go_on_ : renew_) += 1;
      });
    }
    EXPECT_FALSE(eventually([this] { return go_on_ + renew_ > 0; }, glimpse));
  }
  void join() {
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }

  std::atomic<int> updating_{0};
  UpdateBarrier barrier_{updating_};
  std::atomic<int> go_on_{0};  // how many of the threads may go on, and how many must renew
  std::atomic<int> renew_{0};
  std::vector<std::thread> threads_;
};

TEST_F(UpdateBarrierTest, AnUpdateIsCountedAndPendingIfThereAreWorkers) {
  EXPECT_EQ(barrier_.update(), 0U);
  request_of(2);
  EXPECT_EQ(updating_, 1);
  EXPECT_EQ(barrier_.update(), 1U);
  request_of(0);
  EXPECT_EQ(updating_, 0);
  EXPECT_EQ(barrier_.update(), 2U);
}

TEST_F(UpdateBarrierTest, TheLastRenewedWorkerEndsTheUpdate) {
  request_of(3);
  wait_in_threads(1, 2);
  EXPECT_EQ(updating_, 1);
  EXPECT_TRUE(arrive(1));
  EXPECT_EQ(updating_, 0);
  join();
  EXPECT_EQ(go_on_, 2);
}

TEST_F(UpdateBarrierTest, AWorkerWithAnOldHandleIsSentToRenewAndDoesNotCount) {
  request_of(2);
  barrier_.request();
  EXPECT_FALSE(arrive(1));
  wait_in_threads(2);
  EXPECT_TRUE(arrive(2));
}

TEST_F(UpdateBarrierTest, ASecondUpdateSendsThoseWhoWaitToRenewOnceMore) {
  request_of(3);
  wait_in_threads(1, 2);
  barrier_.request();
  join();
  EXPECT_EQ(renew_, 2) << "an old handle was taken for a new one";
  EXPECT_EQ(updating_, 1);
  renew_ = 0;
  wait_in_threads(2, 2);
  EXPECT_EQ(updating_, 1) << "two of three workers ended it";
  EXPECT_TRUE(arrive(2));
}

TEST_F(UpdateBarrierTest, ThoseLetThroughHaveArrivedForGood) {
  request_of(2);
  wait_in_threads(1);
  barrier_.let_through();
  join();
  EXPECT_EQ(go_on_, 1);
  EXPECT_EQ(updating_, 1) << "only one of two has arrived";
  EXPECT_TRUE(arrive(1)) << "the other one completes the renewal";
  EXPECT_EQ(updating_, 0);
}

TEST_F(UpdateBarrierTest, ALetThroughCountsOnlyWhileAWorkerRenewsEvenForAnOldUpdate) {
  request_of(2);
  const unsigned turn = barrier_.turn();
  barrier_.let_through();
  EXPECT_TRUE(barrier_.arrive(1, turn));
  EXPECT_EQ(updating_, 1);
  barrier_.request();
  EXPECT_TRUE(barrier_.arrive(1, turn)) << "updates do not cease";
  wait_in_threads(2);
  EXPECT_TRUE(arrive(2));
}

TEST_F(UpdateBarrierTest, ManyUpdatesDuringRenewalsLeaveNobodyBehind) {
  constexpr int workers = 4;
  constexpr unsigned updates = 500;
  barrier_.set_parties(workers);
  std::atomic<bool> stop{false};
  for (int worker = 0; worker < workers; ++worker) {
    threads_.emplace_back([&] {
      unsigned renewed_for = 0;
      while (!stop || (updating_ == 1)) {
        if (updating_ == 0) {
          std::this_thread::yield();
          continue;
        }
        do {
          renewed_for = barrier_.update();
        } while (!arrive(renewed_for));
      }
      go_on_ += renewed_for == updates ? 1 : 0;
    });
  }
  for (unsigned update = 0; update < updates; ++update) {
    barrier_.request();
    std::this_thread::yield();
  }
  EXPECT_TRUE(eventually([this] { return updating_ == 0; }));
  stop = true;
  join();
  EXPECT_EQ(go_on_, workers);
}

}  // namespace
