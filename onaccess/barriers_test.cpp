#include "barriers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "wait.h"

namespace {

/// Long enough for a thread that is wrongly let through to be seen; a right one never fails it.
constexpr std::chrono::milliseconds glimpse{50};

/// Threads that each do one thing, and how many are done.
class Parties {
 public:
  template <typename Body>
  void start(Body body) {
    threads_.emplace_back([this, body] {
      body();
      ++done_;
    });
  }
  ~Parties() { join(); }

  bool all_done() {
    return eventually([this] { return done_ == static_cast<int>(threads_.size()); });
  }
  bool some_done() {
    return eventually([this] { return done_ > 0; }, glimpse);
  }
  void join() {
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
    done_ = 0;
  }

 private:
  std::atomic<int> done_{0};
  std::vector<std::thread> threads_;
};

class UpdateBarrierTest : public testing::Test {
 protected:
  /// Arrives, or comes back, as a worker does. @return whether it may go on
  bool arrive(unsigned renewed_for) { return arrive(renewed_for, barrier_.turn()); }
  bool arrive(unsigned renewed_for, unsigned turn) { return barrier_.arrive(renewed_for, turn); }
  void arrive_in_thread(unsigned renewed_for) {
    parties_.start([this, renewed_for, turn = barrier_.turn()] {
      results_ += arrive(renewed_for, turn) ? 1 : 0;
    });
  }

  std::atomic<int> updating_{0};
  UpdateBarrier barrier_{updating_};
  std::atomic<int> results_{0};  // how many of the arrivals may go on
  Parties parties_;
};

TEST_F(UpdateBarrierTest, NothingIsPendingBeforeAnUpdate) {
  barrier_.set_parties(2);
  EXPECT_EQ(updating_, 0);
  EXPECT_EQ(barrier_.update(), 0U);
}

TEST_F(UpdateBarrierTest, AnUpdateIsCountedAndPending) {
  barrier_.set_parties(2);
  barrier_.request();
  EXPECT_EQ(updating_, 1);
  EXPECT_EQ(barrier_.update(), 1U);
}

TEST_F(UpdateBarrierTest, WithoutWorkersNothingStaysPending) {
  barrier_.set_parties(0);
  barrier_.request();
  EXPECT_EQ(updating_, 0);
  EXPECT_EQ(barrier_.update(), 1U);
}

TEST_F(UpdateBarrierTest, TheLastRenewedWorkerEndsTheUpdate) {
  barrier_.set_parties(3);
  barrier_.request();
  arrive_in_thread(1);
  arrive_in_thread(1);
  EXPECT_FALSE(parties_.some_done());
  EXPECT_EQ(updating_, 1);
  EXPECT_TRUE(arrive(1));
  EXPECT_EQ(updating_, 0);
  EXPECT_TRUE(parties_.all_done());
  EXPECT_EQ(results_, 2);
}

TEST_F(UpdateBarrierTest, AWorkerWithAnOldHandleIsSentToRenewAndDoesNotCount) {
  barrier_.set_parties(2);
  barrier_.request();
  barrier_.request();
  EXPECT_FALSE(arrive(1));
  arrive_in_thread(2);
  EXPECT_FALSE(parties_.some_done());
  EXPECT_TRUE(arrive(2));
  EXPECT_TRUE(parties_.all_done());
}

TEST_F(UpdateBarrierTest, ASecondUpdateSendsThoseWhoWaitToRenewOnceMore) {
  barrier_.set_parties(3);
  barrier_.request();
  arrive_in_thread(1);
  arrive_in_thread(1);
  EXPECT_FALSE(parties_.some_done());
  barrier_.request();
  EXPECT_TRUE(parties_.all_done());
  EXPECT_EQ(results_, 0) << "an old handle was taken for a new one";
  EXPECT_EQ(updating_, 1);
}

TEST_F(UpdateBarrierTest, ArrivalsForAnEarlierUpdateDoNotEndTheNext) {
  barrier_.set_parties(2);
  barrier_.request();
  arrive_in_thread(1);
  EXPECT_FALSE(parties_.some_done());
  barrier_.request();
  ASSERT_TRUE(parties_.all_done());
  parties_.join();
  arrive_in_thread(2);
  EXPECT_FALSE(parties_.some_done());
  EXPECT_EQ(updating_, 1) << "one of two workers ended it";
  EXPECT_TRUE(arrive(2));
}

TEST_F(UpdateBarrierTest, ThoseLetThroughHaveArrivedForGood) {
  barrier_.set_parties(2);
  barrier_.request();
  arrive_in_thread(1);
  EXPECT_FALSE(parties_.some_done());
  barrier_.let_through();
  ASSERT_TRUE(parties_.all_done());
  EXPECT_EQ(results_, 1);
  EXPECT_EQ(updating_, 1) << "only one of two has arrived";
  EXPECT_TRUE(arrive(1)) << "the other one completes the renewal";
  EXPECT_EQ(updating_, 0);
}

TEST_F(UpdateBarrierTest, NoLetThroughIsMissedWhileAWorkerRenews) {
  barrier_.set_parties(2);
  barrier_.request();
  const unsigned turn = barrier_.turn();
  barrier_.let_through();
  EXPECT_TRUE(arrive(1, turn));
  EXPECT_EQ(updating_, 1);
}

TEST_F(UpdateBarrierTest, UpdatesThatDoNotCeaseDoNotKeepALetThroughWorkerFromItsTurn) {
  barrier_.set_parties(2);
  barrier_.request();
  const unsigned turn = barrier_.turn();
  barrier_.request();
  barrier_.let_through();
  EXPECT_TRUE(arrive(1, turn));
}

TEST_F(UpdateBarrierTest, ALetThroughBeforeAWorkerComesDoesNotShortenItsWait) {
  barrier_.set_parties(2);
  barrier_.request();
  barrier_.let_through();
  arrive_in_thread(1);
  EXPECT_FALSE(parties_.some_done());
  EXPECT_TRUE(arrive(1));
}

TEST_F(UpdateBarrierTest, ALoweredNumberEndsAnUpdateThatAllOthersHaveReached) {
  barrier_.set_parties(3);
  barrier_.request();
  arrive_in_thread(1);
  arrive_in_thread(1);
  EXPECT_FALSE(parties_.some_done());
  barrier_.set_parties(2);
  EXPECT_TRUE(parties_.all_done());
  EXPECT_EQ(updating_, 0);
  EXPECT_EQ(results_, 2);
}

TEST_F(UpdateBarrierTest, ManyUpdatesDuringRenewalsLeaveNobodyBehind) {
  constexpr int workers = 4;
  constexpr unsigned updates = 500;
  barrier_.set_parties(workers);
  std::atomic<bool> stop{false};
  for (int worker = 0; worker < workers; ++worker) {
    parties_.start([&] {
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
      results_ += renewed_for == updates ? 1 : 0;
    });
  }
  for (unsigned update = 0; update < updates; ++update) {
    barrier_.request();
    std::this_thread::yield();
  }
  EXPECT_TRUE(eventually([this] { return updating_ == 0; }));
  stop = true;
  EXPECT_TRUE(parties_.all_done());
  EXPECT_EQ(results_, workers);
}

}  // namespace
