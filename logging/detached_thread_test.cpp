#include "detached_thread.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "impossible_stack.h"
#include "wait.h"

namespace {

constexpr std::chrono::minutes ample{1};
constexpr std::chrono::milliseconds short_bound{20};

/// Waits until the flag is set. @return false when that takes a minute
bool wait_for(const std::atomic<bool>& flag) {
  return eventually([&flag] { return flag.load(); }, ample);
}

/// What a thread under test and its test tell each other.
struct Progress {
  Progress() { EXPECT_EQ(pipe2(gate, O_CLOEXEC), 0); }
  ~Progress() {
    close(gate[0]);
    close(gate[1]);
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// For the thread: waits in a system call at which POSIX would let it be cancelled.
  void wait_at_gate() {
    char byte = 0;
    while (read(gate[0], &byte, 1) < 0) {
    }
  }
  void open_gate() { EXPECT_EQ(write(gate[1], "", 1), 1); }

  int gate[2] = {-1, -1};
  std::atomic<bool> entered{false};
  std::atomic<bool> passed_gate{false};
  std::atomic<bool> passed_cancellation{false};
  std::atomic<bool> unwound{false};
  pthread_t thread = 0;
};

struct SetOnUnwinding {
  std::atomic<bool>& flag;
  ~SetOnUnwinding() { flag = true; }
};

void return_at_once(void* progress) {
  auto* p = static_cast<Progress*>(progress);
  p->thread = pthread_self();
  p->entered = true;
}

void wait_then_offer_cancellation(void* progress) {
  auto* p = static_cast<Progress*>(progress);
  const SetOnUnwinding unwinding{p->unwound};
  p->entered = true;
  p->wait_at_gate();
  p->passed_gate = true;
  DetachedThread::cancellation_point();
  p->passed_cancellation = true;
}

void offer_cancellation_forever(void* progress) {
  auto* p = static_cast<Progress*>(progress);
  const SetOnUnwinding unwinding{p->unwound};
  p->entered = true;
  for (;;) {
    DetachedThread::cancellation_point();
    std::this_thread::yield();
  }
}

TEST(DetachedThreadTest, BodyRunsWithItsArgumentInAnotherThread) {
  Progress progress;
  DetachedThread thread;
  ASSERT_EQ(thread.start(&return_at_once, &progress), 0);
  ASSERT_TRUE(thread.wait_until_left(ample));
  EXPECT_TRUE(progress.entered);
  EXPECT_FALSE(pthread_equal(progress.thread, pthread_self()));
}

TEST(DetachedThreadTest, WithoutAThreadNobodyIsInside) {
  DetachedThread thread;
  EXPECT_FALSE(thread.running());
  EXPECT_TRUE(thread.wait_until_left(std::chrono::milliseconds(0)));
}

TEST(DetachedThreadTest, CancellingWithoutAThreadDoesNothing) {
  DetachedThread thread;
  thread.cancel();
  EXPECT_FALSE(thread.running());
}

TEST(DetachedThreadTest, RunsFromStartToCancel) {
  Progress progress;
  DetachedThread thread;
  ASSERT_EQ(thread.start(&offer_cancellation_forever, &progress), 0);
  EXPECT_TRUE(thread.running());
  thread.cancel();
  EXPECT_FALSE(thread.running());
  EXPECT_TRUE(thread.wait_until_left(ample));
}

TEST(DetachedThreadTest, CancelledThreadIsUnwoundAtItsCancellationPoint) {
  Progress progress;
  DetachedThread thread;
  ASSERT_EQ(thread.start(&offer_cancellation_forever, &progress), 0);
  ASSERT_TRUE(wait_for(progress.entered));
  thread.cancel();
  ASSERT_TRUE(thread.wait_until_left(ample));
  EXPECT_TRUE(progress.unwound);
}

TEST(DetachedThreadTest, CancelledThreadFinishesTheSystemCallItWaitsIn) {
  Progress progress;
  DetachedThread thread;
  ASSERT_EQ(thread.start(&wait_then_offer_cancellation, &progress), 0);
  ASSERT_TRUE(wait_for(progress.entered));
  thread.cancel();
  EXPECT_FALSE(thread.wait_until_left(short_bound));
  progress.open_gate();
  ASSERT_TRUE(thread.wait_until_left(ample));
  EXPECT_TRUE(progress.passed_gate);
  EXPECT_FALSE(progress.passed_cancellation);
}

/// A frame with memory of its own and nothing to clean up, as those of real work have.
void offer_cancellation_in_a_deeper_frame() {
  volatile char work[256];
  for (volatile char& byte : work) {
    byte = 1;
  }
  DetachedThread::cancellation_point();
  for (volatile char& byte : work) {
    byte = 2;
  }
}

TEST(DetachedThreadTest, CancelledThreadIsUnwoundThroughFramesWithoutCleanUp) {
  Progress progress;
  DetachedThread thread;
  ASSERT_EQ(thread.start(
                [](void* argument) {
                  auto* p = static_cast<Progress*>(argument);
                  const SetOnUnwinding unwinding{p->unwound};
                  for (;;) {
                    offer_cancellation_in_a_deeper_frame();
                  }
                },
                &progress),
            0);
  thread.cancel();
  ASSERT_TRUE(thread.wait_until_left(ample));
  EXPECT_TRUE(progress.unwound);
}

TEST(DetachedThreadTest, WithoutCancelTheCancellationPointIsPassed) {
  Progress progress;
  DetachedThread thread;
  ASSERT_EQ(thread.start(&wait_then_offer_cancellation, &progress), 0);
  progress.open_gate();
  ASSERT_TRUE(thread.wait_until_left(ample));
  EXPECT_TRUE(progress.passed_cancellation);
}

TEST(DetachedThreadTest, CancellationIsOffAgainBehindTheCancellationPoint) {
  Progress progress;
  DetachedThread thread;
  ASSERT_EQ(thread.start(
                [](void* argument) {
                  auto* p = static_cast<Progress*>(argument);
                  DetachedThread::cancellation_point();
                  p->entered = true;
                  p->wait_at_gate();
                  p->passed_gate = true;
                },
                &progress),
            0);
  ASSERT_TRUE(wait_for(progress.entered));
  thread.cancel();
  progress.open_gate();
  ASSERT_TRUE(thread.wait_until_left(ample));
  EXPECT_TRUE(progress.passed_gate);
}

TEST(DetachedThreadTest, WaitGivesUpAfterItsBoundWhileTheBodyRuns) {
  Progress progress;
  DetachedThread thread;
  ASSERT_EQ(thread.start(&wait_then_offer_cancellation, &progress), 0);
  EXPECT_FALSE(thread.wait_until_left(short_bound));
  progress.open_gate();
  EXPECT_TRUE(thread.wait_until_left(ample));
}

TEST(DetachedThreadTest, StartsAgainAfterItHasLeft) {
  DetachedThread thread;
  for (int round = 0; round < 3; ++round) {
    Progress progress;
    ASSERT_EQ(thread.start(&offer_cancellation_forever, &progress), 0);
    EXPECT_TRUE(thread.running());
    thread.cancel();
    ASSERT_TRUE(thread.wait_until_left(ample));
  }
}

TEST(DetachedThreadTest, IsCancelledAtAnyMoment) {
  for (int round = 0; round < 300; ++round) {
    Progress progress;
    DetachedThread thread;
    ASSERT_EQ(thread.start(&offer_cancellation_forever, &progress), 0);
    if (round % 2 == 0) {
      ASSERT_TRUE(wait_for(progress.entered));
    }
    thread.cancel();
    ASSERT_TRUE(thread.wait_until_left(ample));
    EXPECT_EQ(progress.entered, progress.unwound);
  }
}

/// Makes every further thread too big for the address space.
void exhaust_thread_memory() {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, impossible_stack), 0);
  ASSERT_EQ(pthread_setattr_default_np(&attributes), 0);
  pthread_attr_destroy(&attributes);
}

TEST(DetachedThreadTest, FailedStartGivesTheErrorAndLeavesNothingRunning) {
  Progress progress;
  DetachedThread thread;
  exhaust_thread_memory();
  EXPECT_EQ(thread.start(&return_at_once, &progress), EAGAIN);
  EXPECT_FALSE(thread.running());
  EXPECT_TRUE(thread.wait_until_left(std::chrono::milliseconds(0)));
}

}  // namespace
