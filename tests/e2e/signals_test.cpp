// What signals ask for, and that no number of them does harm.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "emulated.h"
#include "fixture.h"
#include "openers.h"

namespace e2e {
namespace {

class Signals : public E2eTest {
 protected:
  size_t updates_begun() const { return engine_calls("vseExec-begin", {"operation=14 "}).size(); }
  size_t passes() const { return count_of(log(), "scanner_func(): done\n"); }

  /// Whether a signal is in a set of signals that the status of a thread shows.
  static bool is_set(int signal, const char* set, const std::string& thread) {
    const std::string bits = status_value(thread, set);
    return !bits.empty() && (std::stoull(bits, nullptr, 16) >> (signal - 1) & 1) != 0;
  }

  /// The thread that takes the signals. A new thread holds them all back until it runs.
  std::filesystem::path taker() {
    const std::filesystem::path threads = "/proc/" + std::to_string(daemon().pid()) + "/task";
    std::filesystem::path found;
    EXPECT_TRUE(eventually([&] {
      for (const auto& thread : std::filesystem::directory_iterator(threads)) {
        if (!is_set(SIGTERM, "SigBlk", thread.path())) {
          found = thread;
        }
      }
      return !found.empty();
    }));
    return found;
  }

  /// Waits until every signal sent so far has been handled: none is pending, and the one thread
  /// that takes them sleeps with none held back, as it does outside of a handler.
  bool handlers_have_run() {
    const std::filesystem::path thread = taker();
    return eventually([&] {
      bool any = false;
      for (const int signal : {SIGHUP, SIGUSR2}) {
        any = any || is_set(signal, "ShdPnd", thread) || is_set(signal, "SigBlk", thread);
      }
      return !any && status_value(thread, "State").starts_with("S");
    });
  }
};

/// One of the senders: @return 0 when every signal could be sent
int send_signals(pid_t daemon, int count) {
  constexpr int requests[] = {SIGHUP, SIGUSR2, SIGALRM};
  for (int i = 0; i < count; ++i) {
    if (kill(daemon, requests[i % 3]) != 0) {
      return errno;
    }
    if (i % 64 == 0) {
      // Otherwise most of them would meet one of their kind that is still pending, and vanish.
      usleep(50);
    }
  }
  return 0;
}

// labels: alone essential
TEST_F(Signals, HundredThousandInAStormWhileFilesAreOpened) {
  const std::string clean = put_clean("clean");
  const std::string infected = put_infected("bad");
  stage_definitions();
  set("Loglevel", "1");
  start();
  OpenersUntilToldToEnd openers(2, {clean}, {infected}, work("end"));
  const pid_t pid = daemon().pid();
  std::vector<Process> senders;
  for (int i = 0; i < 2; ++i) {
    senders.emplace_back([&] { return send_signals(pid, PELO_EMULATED ? 2500 : 50000); });
  }
  for (Process& sender : senders) {
    EXPECT_EQ(sender.status(std::chrono::seconds(120)), 0);
  }
  EXPECT_TRUE(daemon().running());
  EXPECT_TRUE(openers.all_running());
  touch(work("end"));
  EXPECT_TRUE(openers.all_released());
  EXPECT_EQ(open_status(clean), 0);
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_GT(updates_begun(), 1U);
  // The service thread still takes requests.
  const size_t before = updates_begun();
  EXPECT_TRUE(eventually([&] {
    daemon().signal(SIGHUP);
    return updates_begun() > before;
  }));
  stop(stop_bound);
}

// labels: essential one-processor
TEST_F(Signals, RequestsWhileTheEngineStartsAreServed) {
  stage_definitions();
  set("Loglevel", "3");
  script("wait vseGlobalInit " + work("go") + "\n");
  launch();
  wait_for_begin("vseGlobalInit");
  daemon().signal(SIGHUP);
  daemon().signal(SIGUSR2);
  ASSERT_TRUE(handlers_have_run());
  EXPECT_FALSE(is_registered(watched()));
  EXPECT_EQ(open_status(put_infected("bad")), 0) << "nothing is watched yet";
  release();
  EXPECT_TRUE(eventually([&] { return passes() == 1; }));
  EXPECT_EQ(updates_begun(), 1U);
  // The mount table is looked at before the alarm that brings the first pass without a request.
  EXPECT_FALSE(logged("check_mountpts check_mountpts\n"));
}

// labels: long
TEST_F(Signals, FirstPassRunsTenSecondsAfterTheStart) {
  // The alarm is set between these two. What comes late on a busy machine has ten seconds.
  const auto before = std::chrono::steady_clock::now();
  start();
  const auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(eventually([&] { return passes() == 1; }));
  const auto passed = std::chrono::steady_clock::now();
  EXPECT_GE(passed - before, std::chrono::seconds(10));
  EXPECT_LT(passed - started, std::chrono::seconds(PELO_SLOW ? 40 : 20));
}

TEST_F(Signals, RequestsDuringACycleAreDroppedWithIt) {
  stage_definitions();
  script("wait vseExec:14 1 " + work("go") + "\n");
  start();
  // Workers that have no handle yet would give one back after the update.
  wait_for_handles(5);
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return updates_begun() == 1; }));
  for (int i = 0; i < 3; ++i) {
    daemon().signal(SIGHUP);
    daemon().signal(SIGUSR2);
  }
  ASSERT_TRUE(handlers_have_run());
  release();
  EXPECT_TRUE(eventually([&] { return !engine_calls("vseRelease").empty(); }));
  // A cycle of its own, whose pass ends after anything that was still to be done.
  EXPECT_TRUE(eventually([&] {
    daemon().signal(SIGUSR2);
    return passes() >= 1;
  }));
  EXPECT_EQ(updates_begun(), 1U);
}

}  // namespace
}  // namespace e2e
