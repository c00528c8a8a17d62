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

struct Progress {
  std::atomic<bool> entered{false};
  std::atomic<bool> go_on{false};
  std::atomic<bool> asked{false};
  pthread_t thread = 0;
};

void wait_for_the_gate(void* progress) {
  auto* p = static_cast<Progress*>(progress);
  p->thread = pthread_self();
  p->entered = true;
  EXPECT_TRUE(eventually([p] { return p->go_on.load(); }));
  p->asked = DetachedThread::stopping();
}

void run_until_asked(void* progress) {
  static_cast<Progress*>(progress)->entered = true;
  while (!DetachedThread::stopping()) {
    std::this_thread::yield();
  }
}

TEST(DetachedThreadTest, WithoutAThreadNobodyIsInside) {
  DetachedThread thread;
  thread.ask_to_stop();
  EXPECT_FALSE(thread.running());
  EXPECT_TRUE(thread.wait_until_left(std::chrono::milliseconds(0)));
  EXPECT_FALSE(DetachedThread::stopping()) << "this thread is nobody's";
}

TEST(DetachedThreadTest, RunsInAnotherThreadAndIsWaitedForWithinABound) {
  Progress progress;
  DetachedThread thread;
  ASSERT_EQ(thread.start(&wait_for_the_gate, &progress), 0);
  EXPECT_FALSE(thread.wait_until_left(short_bound));
  thread.ask_to_stop();
  EXPECT_FALSE(thread.running());
  EXPECT_FALSE(thread.wait_until_left(short_bound)) << "it leaves when it looks, not before";
  EXPECT_FALSE(DetachedThread::stopping()) << "another thread was asked";
  progress.go_on = true;
  EXPECT_TRUE(thread.wait_until_left(generous_bound));
  EXPECT_TRUE(progress.asked);
  EXPECT_FALSE(pthread_equal(progress.thread, pthread_self()));
}

TEST(DetachedThreadTest, IsAskedAtAnyMomentAndStartsAgain) {
  DetachedThread thread;
  for (int round = 0; round < 300; ++round) {
    Progress progress;
    ASSERT_EQ(thread.start(&run_until_asked, &progress), 0);
    EXPECT_TRUE(thread.running());
    if (round % 2 == 0) {
      ASSERT_TRUE(eventually([&progress] { return progress.entered.load(); }));
    }
    thread.ask_to_stop();
    EXPECT_FALSE(thread.running());
    ASSERT_TRUE(thread.wait_until_left(generous_bound));
  }
}

TEST(DetachedThreadTest, FailedStartGivesTheErrorAndLeavesNothingRunning) {
  Progress progress;
  DetachedThread thread;
  EXPECT_EQ(thread.start(&wait_for_the_gate, &progress, impossible_stack), EAGAIN);
  EXPECT_FALSE(thread.running());
  EXPECT_TRUE(thread.wait_until_left(std::chrono::milliseconds(0)));
}

}  // namespace
