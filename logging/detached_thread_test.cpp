#include "detached_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "impossible_stack.h"
#include "wait.h"

namespace {

constexpr std::chrono::milliseconds short_bound{20};

TEST(DetachedThreadTest, WithoutAThreadNobodyIsInside) {
  DetachedThread thread;
  thread.ask_to_stop();
  EXPECT_FALSE(thread.running());
  EXPECT_TRUE(thread.wait_until_left(std::chrono::milliseconds(0)));
  EXPECT_FALSE(DetachedThread::stopping()) << "this thread is nobody's";
}

TEST(DetachedThreadTest, RunsInAnotherThreadAndIsWaitedForWithinABound) {
  std::atomic<bool> go_on{false};
  bool asked = false;
  pthread_t other = pthread_self();
  DetachedThread thread;
  const auto wait_for_the_gate = [&] {
    other = pthread_self();
    EXPECT_TRUE(eventually([&] { return go_on.load(); }));
    asked = DetachedThread::stopping();
  };
  ASSERT_EQ(thread.start(wait_for_the_gate), 0);
  EXPECT_FALSE(thread.wait_until_left(short_bound));
  thread.ask_to_stop();
  EXPECT_FALSE(thread.running());
  EXPECT_FALSE(thread.wait_until_left(short_bound)) << "it leaves when it looks, not before";
  EXPECT_FALSE(DetachedThread::stopping()) << "another thread was asked";
  go_on = true;
  EXPECT_TRUE(thread.wait_until_left(generous_bound));
  EXPECT_TRUE(asked);
  EXPECT_FALSE(pthread_equal(other, pthread_self()));
}

TEST(DetachedThreadTest, IsAskedAtAnyMomentAndStartsAgain) {
  DetachedThread thread;
  for (int round = 0; round < 300; ++round) {
    std::atomic<bool> entered{false};
    const auto run_until_asked = [&entered] {
      entered = true;
      while (!DetachedThread::stopping()) {
        std::this_thread::yield();
      }
    };
    ASSERT_EQ(thread.start(run_until_asked), 0);
    EXPECT_TRUE(thread.running());
    if (round % 2 == 0) {
      ASSERT_TRUE(eventually([&entered] { return entered.load(); }));
    }
    thread.ask_to_stop();
    EXPECT_FALSE(thread.running());
    ASSERT_TRUE(thread.wait_until_left(generous_bound));
  }
}

TEST(DetachedThreadTest, FailedStartGivesTheErrorAndLeavesNothingRunning) {
  DetachedThread thread;
  EXPECT_EQ(thread.start([] { ADD_FAILURE() << "it runs"; }, impossible_stack), EAGAIN);
  EXPECT_FALSE(thread.running());
  EXPECT_TRUE(thread.wait_until_left(std::chrono::milliseconds(0)));
}

}  // namespace
