#include "lookout.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>

#include "time_limits.h"
#include "wait.h"

namespace {

std::atomic<pthread_t> taker{};
std::atomic<pthread_t> handler_ran_on{};

std::atomic<int> last_resorts{0};

class LookoutTest : public testing::Test {
 protected:
  Since& stop_ = *new Since;
  Lookout& lookout_ = *new Lookout(stop_);
};

TEST_F(LookoutTest, TakesTheSignalsThatAllOthersHold) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &signals, nullptr), 0);
  struct sigaction action {};
  action.sa_handler = [](int) { handler_ran_on = pthread_self(); };
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  ASSERT_EQ(lookout_.start(
                [] {
                  sigset_t all;
                  sigemptyset(&all);
                  (void)pthread_sigmask(SIG_SETMASK, &all, nullptr);
                  taker = pthread_self();
                },
                [] {}),
            0);
  ASSERT_EQ(kill(getpid(), SIGUSR1), 0);
  EXPECT_TRUE(eventually([] { return handler_ran_on != pthread_t{} && handler_ran_on == taker; }));
}

TEST_F(LookoutTest, EndsTheProcessWhenAStopLastsTooLong) {
  ASSERT_EQ(lookout_.start([] {}, [] { ++last_resorts; }), 0);
  const auto before = std::chrono::steady_clock::now();
  stop_.begin();
  lookout_.wake();
  EXPECT_TRUE(eventually([] { return last_resorts > 0; }));
  EXPECT_GE(std::chrono::steady_clock::now() - before, time_limits::last_resort);
}

TEST(SinceTest, KeepsTheMomentOfItsFirstBeginning) {
  Since since;
  EXPECT_FALSE(since.moment().has_value());
  const auto before = Clock::now();
  since.begin();
  const auto begun = since.moment();
  ASSERT_TRUE(begun.has_value());
  EXPECT_GE(*begun, before);
  EXPECT_TRUE(eventually([&] { return Clock::now() > *begun; }));
  since.begin();
  EXPECT_EQ(since.moment(), begun);
}

}  // namespace
