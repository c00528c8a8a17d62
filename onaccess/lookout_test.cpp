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
  Lookout& lookout_ = *new Lookout;
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
  lookout_.note_stop();
  EXPECT_TRUE(eventually([] { return last_resorts > 0; }));
  EXPECT_GE(std::chrono::steady_clock::now() - before, time_limits::last_resort);
}

}  // namespace
