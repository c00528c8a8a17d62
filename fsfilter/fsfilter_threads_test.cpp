// The worker pool, on filters that are fed over socket pairs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <optional>
#include <set>
#include <tuple>

#include "pool_fixture.h"

namespace {

TEST_F(PoolTest, TheVerdictIsWhatTheCallbackReturnsAndOneAloneDenies) {
  struct {
    fsfilter_callback_t callback;
    std::uint32_t verdict;
  } const rows[] = {{nullptr, FAN_ALLOW},
                    {Callbacks::deny, FAN_DENY},
                    {[](fsfilter_handle_t, fsfilter_event_struct*) { return 7; }, FAN_ALLOW},
                    {[](fsfilter_handle_t, fsfilter_event_struct* event) -> int {
                       event->result = FSFILTER_DENY;  // which is not what counts
                       return FSFILTER_ALLOW;
                     },
                     FAN_ALLOW}};
  for (const auto& [callback, verdict] : rows) {
    const int fd = post(callback);
    expect_answer(fd, verdict);
    EXPECT_TRUE(eventually_closed(fd));
  }
  EXPECT_EQ(filter_.statistics().denied, 1U);
  EXPECT_EQ(filter_.statistics().answered, 4U);
}

TEST_F(PoolTest, TheCallbackGetsTheHandleAndACopyOfTheEventWhosePathEnds) {
  fsfilter_event_struct event = taken();
  std::memset(event.path, 'x', sizeof event.path);
  const fsfilter_event_struct original = event;
  (void)occupy(3);
  ASSERT_EQ(fsfilter_thread_post_job(filter_.handle(), &event, Callbacks::allow), 0);
  std::memset(static_cast<void*>(&event), 0xA5, sizeof event);
  Callbacks::get().let_pass();
  ASSERT_TRUE(Callbacks::get().eventually_begun(4));
  const Callbacks::Seen seen = Callbacks::get().seen()[3];
  const auto fields = [](const fsfilter_event_struct& e) {
    return std::tuple(e.filter_fd, e.mask, e.message_id, e.type, e.fd, e.pid);
  };
  EXPECT_EQ(fields(seen.event), fields(original));
  EXPECT_EQ(seen.event.path, std::string(FSFILTER_PATH_MAX - 1, 'x'));
  EXPECT_EQ(seen.handle, filter_.handle());
}

TEST_F(PoolTest, ABurstIsDrainedInOrderOfArrival) {
  (void)occupy(3);
  constexpr std::size_t burst = 100;
  for (std::size_t i = 0; i < burst; ++i) {
    (void)post(Callbacks::allow);
  }
  // By one worker, which notes in the order of taking.
  Callbacks::get().let_pass(1);
  ASSERT_TRUE(Callbacks::get().eventually_begun(3 + burst));
  std::uint64_t last = 0;
  for (const Callbacks::Seen& seen : Callbacks::get().seen()) {
    EXPECT_GT(seen.event.message_id, last);
    last = seen.event.message_id;
  }
}

/// How often each worker has gone to sleep.
std::vector<std::string> sleeps() {
  std::vector<std::string> all;
  for (const std::filesystem::path& worker : workers()) {
    const std::string status = read_file(worker / "status");
    const std::size_t at = status.find("\nvoluntary_ctxt_switches:");
    all.push_back(status.substr(at, status.find('\n', at + 1) - at));
  }
  return all;
}

TEST_F(PoolTest, AJobWakesOneOfThoseThatSleep) {
  ASSERT_EQ(fsfilter_thread_init(), 0);
  ASSERT_TRUE(eventually(all_workers_sleep));
  const std::vector<std::string> before = sleeps();
  const int fd = post(nullptr);
  expect_answer(fd, FAN_ALLOW);
  ASSERT_TRUE(eventually_closed(fd));
  ASSERT_TRUE(eventually(all_workers_sleep));
  const std::vector<std::string> after = sleeps();
  int woken = 0;
  for (std::size_t i = 0; i < 3; ++i) {
    woken += before.at(i) == after.at(i) ? 0 : 1;
  }
  EXPECT_EQ(woken, 1);
}

TEST_F(PoolTest, ALaterJobWakesThoseThatSleepWhenTheFirstHasWaitedForASecond) {
  ASSERT_EQ(fsfilter_thread_init(), 0);
  ASSERT_TRUE(eventually(all_workers_sleep));
  run_first();
  (void)post(Callbacks::wait_and_deny);
  (void)post(Callbacks::wait_and_deny);
  // As long as the woken one is stuck, and no other wakes them, the two others sleep.
  EXPECT_TRUE(eventually([this] {
    (void)post(Callbacks::wait_and_deny);
    return eventually([] { return Callbacks::get().begun() == 3; }, std::chrono::milliseconds(200));
  }));
}

std::ptrdiff_t threads_of_process() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

// Counts all threads: what a second pool has started may not have its name yet.
TEST_F(PoolTest, ThreadsThatStartItAtTheSameTimeStartOnePool) {
  std::barrier together(9);
  std::deque<std::thread> starters;
  for (int i = 0; i < 8; ++i) {
    starters.emplace_back([&] {
      together.arrive_and_wait();
      EXPECT_EQ(fsfilter_thread_init(), 0);
    });
  }
  // With its first thread, a sanitizer makes its own.
  const std::ptrdiff_t threads = threads_of_process();
  together.arrive_and_wait();
  for (std::thread& starter : starters) {
    starter.join();
  }
  EXPECT_TRUE(eventually([=] { return threads_of_process() == threads - 8 + 3; }))
      << threads_of_process();
  EXPECT_TRUE(eventually_workers(3));
}

TEST_F(PoolTest, WithoutAWorkerAJobIsRefusedAndTheEventStaysTheCallers) {
  const fsfilter_event_struct event = taken();
  std::optional<NoThreads> none(std::in_place);
  errno = 0;
  EXPECT_EQ(fsfilter_thread_init(), -1);
  EXPECT_EQ(errno, EAGAIN);
  errno = 0;
  EXPECT_EQ(fsfilter_thread_post_job(filter_.handle(), &event, Callbacks::deny), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_TRUE(is_open(event.fd));
  EXPECT_TRUE(filter_.quiet());
  none.reset();
  EXPECT_EQ(fsfilter_thread_post_job(filter_.handle(), &event, Callbacks::deny), 0);
  EXPECT_THAT(filter_.answer(), Answer(event.fd, FAN_DENY));
  EXPECT_EQ(fsfilter_thread_end(), 0);
  const int group = filter_.context().group.get();
  EXPECT_EQ(unregister_filter(filter_.hand_over()), 0);
  EXPECT_FALSE(is_open(group)) << "a refused job still uses the filter";
}

int look_at_own_thread(fsfilter_handle_t, fsfilter_event_struct*) {
  pthread_attr_t attributes;
  int state = -1;
  (void)pthread_getattr_np(pthread_self(), &attributes);
  (void)pthread_attr_getdetachstate(&attributes, &state);
  (void)pthread_attr_destroy(&attributes);
  EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
  sigset_t blocked;
  (void)pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGUSR1, SIGCHLD, SIGRTMAX}) {
    EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
  }
  for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
    EXPECT_EQ(sigismember(&blocked, fault), 0) << "the handler that restores the area";
  }
  return FSFILTER_DENY;
}

TEST_F(PoolTest, WorkersAreDetachedAndLeaveSignalsToOthers) {
  expect_answer(post(look_at_own_thread), FAN_DENY);
}

class EndTest : public PoolTest {
 protected:
  static bool eventually_ending() {
    return eventually([] { return fsfilter_thread_init() == -1 && errno == EBUSY; });
  }
};

TEST_F(EndTest, WhatWaitsIsAnsweredByItsCallbacksFirstAndMoreIsRefused) {
  std::vector<int> fds = occupy(3);
  for (int i = 0; i < 20; ++i) {
    fds.push_back(post(Callbacks::deny));
  }
  std::atomic<bool> ended{false};
  std::thread ender([&] {
    EXPECT_EQ(fsfilter_thread_end(), 0);
    ended = true;
  });
  EXPECT_TRUE(eventually_ending());
  EXPECT_FALSE(ended);
  const fsfilter_event_struct late = taken();
  EXPECT_EQ(fsfilter_thread_post_job(filter_.handle(), &late, nullptr), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_TRUE(is_open(late.fd));
  Callbacks::get().let_pass();
  ender.join();
  EXPECT_EQ(filter_.statistics().answered, 23U);
  EXPECT_EQ(filter_.statistics().denied, 23U);
  for (const int fd : fds) {
    EXPECT_FALSE(is_open(fd));
  }
  EXPECT_TRUE(eventually_workers(0));
}

TEST_F(EndTest, TwoThatEndItAtTheSameTimeBothReturnAndItStartsAnew) {
  (void)occupy(1);
  std::thread first([] { EXPECT_EQ(fsfilter_thread_end(), 0); });
  std::thread second([] { EXPECT_EQ(fsfilter_thread_end(), 0); });
  EXPECT_TRUE(eventually_ending());
  Callbacks::get().let_pass();
  first.join();
  second.join();
  EXPECT_EQ(filter_.statistics().answered, 1U);
  EXPECT_TRUE(filter_.answer().has_value());
  expect_answer(post(Callbacks::deny), FAN_DENY);
}

TEST_F(EndTest, ACallbackCannotEndIt) {
  const int fd = post([](fsfilter_handle_t, fsfilter_event_struct*) -> int {
    EXPECT_EQ(fsfilter_thread_end(), -1);
    EXPECT_EQ(errno, EDEADLK);
    return FSFILTER_DENY;
  });
  expect_answer(fd, FAN_DENY);
}

using UnregisterTest = PoolTest;

TEST_F(UnregisterTest, AllowsWhatWaitsAtOnceAndLeavesWhatRuns) {
  const std::vector<int> running = occupy(3);
  std::vector<int> waiting(20);
  for (int& fd : waiting) {
    fd = post(Callbacks::deny);
  }
  const int group = filter_.context().group.get();
  void* area = &filter_.area();
  EXPECT_EQ(unregister_filter(filter_.hand_over()), 0);
  for (const int fd : waiting) {
    expect_answer(fd, FAN_ALLOW);
    EXPECT_FALSE(is_open(fd));
  }
  EXPECT_FALSE(filter_.answer().has_value()) << "the group is closed";
  EXPECT_TRUE(is_open(group)) << "late answers would go to whoever gets the number";
  for (const int fd : running) {
    EXPECT_TRUE(is_open(fd));
  }
  Callbacks::get().let_pass();
  for (const int fd : running) {
    EXPECT_TRUE(eventually_closed(fd));
  }
  EXPECT_TRUE(eventually_closed(group));
  EXPECT_EQ(fsfilter_thread_end(), 0);
  EXPECT_EQ(msync(area, 1, MS_ASYNC), -1) << "the area is still mapped";
  EXPECT_EQ(Callbacks::get().begun(), 3U) << "no callback after the end of its filter";
}

TEST_F(UnregisterTest, ALoopThatPostsAfterwardsCallsNobodyBack) {
  const fsfilter_event_struct event = taken();
  const fsfilter_handle_t handle = filter_.hand_over();
  fsfilter_enter_context(cast(handle));  // as a loop does
  EXPECT_EQ(unregister_filter(handle), 0);
  EXPECT_EQ(fsfilter_thread_post_job(handle, &event, Callbacks::deny), 0);
  EXPECT_EQ(fsfilter_thread_end(), 0);
  EXPECT_EQ(Callbacks::get().begun(), 0U);
  EXPECT_FALSE(is_open(event.fd));
  fsfilter_leave_context(cast(handle));
}

TEST_F(UnregisterTest, LeavesTheJobsOfOtherFilters) {
  FedFilter other;
  (void)occupy(3);
  std::set<int> fds;
  for (int i = 0; i < 5; ++i) {
    (void)post(Callbacks::allow);
    fds.insert(post(other, Callbacks::deny));
    (void)post(Callbacks::allow);
  }
  EXPECT_EQ(unregister_filter(filter_.hand_over()), 0);
  fds.insert(post(other, Callbacks::deny));
  Callbacks::get().let_pass();
  std::set<int> denied;
  for (std::size_t i = 0; i < fds.size(); ++i) {
    const std::optional<fanotify_response> response = other.answer();
    ASSERT_TRUE(response.has_value());
    EXPECT_EQ(response->response, std::uint32_t{FAN_DENY});
    denied.insert(response->fd);
  }
  EXPECT_EQ(denied, fds);
  EXPECT_EQ(fsfilter_thread_end(), 0);  // before the other filter goes
}

TEST_F(UnregisterTest, ACallbackMayCloseItsOwnFilter) {
  const int group = filter_.context().group.get();
  const fsfilter_event_struct event = taken();
  const auto close_it = [](fsfilter_handle_t handle, fsfilter_event_struct*) {
    EXPECT_EQ(unregister_filter(handle), 0);
    return 0;
  };
  EXPECT_EQ(fsfilter_thread_post_job(filter_.hand_over(), &event, close_it), 0);
  EXPECT_TRUE(eventually_closed(event.fd));
  EXPECT_TRUE(eventually_closed(group));
}

}  // namespace
