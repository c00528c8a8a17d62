// The library's own event loop, fed over a socket pair.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <optional>

#include "fsfilter_threads.h"
#include "pool_test.h"

namespace {

using testing::SizeIs;

class LoopTest : public PoolTest {
 protected:
  LoopTest() {
    loop_.handle = filter_.handle();
    loop_.open_callback = Callbacks::deny;
    loop_.open_data = &loop_.open_data;
    loop_.close_wr_callback = Callbacks::allow;
    loop_.close_wr_data = &loop_.close_wr_data;
  }

  void TearDown() override {
    Callbacks::get().let_pass();
    stop();
    PoolTest::TearDown();
  }

  /// Runs the loop in a thread of its own.
  void start() {
    loop_.stop = 1;
    thread_ = std::thread([this] { result_ = start_event_loop(&loop_); });
    // A stop is forgotten that comes before the loop has begun.
    ASSERT_TRUE(eventually([this] { return std::atomic_ref(loop_.stop).load() == 0; }));
  }

  void stop() {
    if (thread_.joinable()) {
      EXPECT_EQ(stop_event_loop(&loop_), 0);
      thread_.join();
      EXPECT_EQ(result_, 0);
    }
  }

  /// Feeds an event. @return its descriptor
  int feed(std::uint64_t mask = open_mask) {
    const int fd = event_fd();
    filter_.feed(mask, fd);
    return fd;
  }

  event_loop_data_struct loop_{};
  std::thread thread_;
  std::atomic<int> result_{-2};
};

TEST_F(LoopTest, WithoutWhatItNeedsItFailsAtOnce) {
  errno = 0;
  EXPECT_EQ(start_event_loop(nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(stop_event_loop(nullptr), -1);
  loop_.handle = nullptr;
  EXPECT_EQ(start_event_loop(&loop_), -1);
}

TEST_F(LoopTest, AHandleThatReadsNoEventsIsRefused) {
  FedFilter reader_of_area;
  const int fd = std::exchange(reader_of_area.context().fanotify_fd, -1);
  loop_.handle = reader_of_area.handle();
  EXPECT_EQ(start_event_loop(&loop_), -1);
  EXPECT_EQ(errno, EINVAL);
  reader_of_area.context().fanotify_fd = fd;
}

TEST_F(LoopTest, AnOpenIsDecidedByItsCallbackWithItsWord) {
  start();
  const int fd = feed();
  EXPECT_THAT(filter_.answer(), Answer(fd, FAN_DENY));
  EXPECT_EQ(Callbacks::get().words(), std::vector<void*>{&loop_.open_data});
  EXPECT_EQ(Callbacks::get().events()[0].path, folder_.path("file"));
  EXPECT_EQ(Callbacks::get().handles(), std::set{filter_.handle()});
}

TEST_F(LoopTest, ACloseAfterWritingGoesToItsCallbackWithItsWord) {
  start();
  const int fd = feed(FAN_CLOSE_WRITE);
  EXPECT_THAT(filter_.answer(), Answer(fd, FAN_ALLOW));
  EXPECT_EQ(Callbacks::get().words(), std::vector<void*>{&loop_.close_wr_data});
}

TEST_F(LoopTest, AWordIsForgottenAfterItsCallback) {
  loop_.open_callback = Callbacks::wait_and_deny;
  start();
  for (std::size_t i = 1; i <= 3; ++i) {
    (void)feed();
    ASSERT_TRUE(Callbacks::get().eventually_begun(i));
  }
  stop();
  Callbacks::get().let_pass(3);
  (void)occupy(3);
  const std::vector<void*> words = Callbacks::get().words();
  EXPECT_EQ(words[2], &loop_.open_data);
  EXPECT_EQ(std::vector(words.begin() + 3, words.end()), std::vector<void*>(3, nullptr));
}

TEST_F(LoopTest, NothingButOneInItsFlagStopsIt) {
  start();
  std::atomic_ref(loop_.stop).store(2);
  const int fd = feed();
  EXPECT_THAT(filter_.answer(), Answer(fd, FAN_DENY));
  const int next = feed();
  EXPECT_THAT(filter_.answer(), Answer(next, FAN_DENY));
}

TEST_F(LoopTest, OutsideACallbackThereIsNoWord) {
  start();
  (void)feed();
  EXPECT_TRUE(filter_.answer().has_value());
  EXPECT_EQ(fsfilter_callback_data(), nullptr);
}

TEST_F(LoopTest, WhatHasNoCallbackIsAllowedWithoutAWorker) {
  loop_.open_callback = nullptr;
  loop_.close_wr_callback = nullptr;
  start();
  const int opened = feed();
  EXPECT_THAT(filter_.answer(), Answer(opened, FAN_ALLOW));
  const int written = feed(FAN_CLOSE_WRITE);
  EXPECT_THAT(filter_.answer(), Answer(written, FAN_ALLOW));
  EXPECT_TRUE(eventually_closed(written));
  EXPECT_EQ(workers_of_process(), 0);
}

TEST_F(LoopTest, WhatNobodyWantsToDecideReachesNoCallback) {
  start();
  const int device = open("/dev/null", O_RDONLY | O_CLOEXEC);
  filter_.feed(open_mask, device);
  EXPECT_THAT(filter_.answer(), Answer(device, FAN_ALLOW));
  const int read = feed(FAN_ACCESS_PERM);
  EXPECT_THAT(filter_.answer(), Answer(read, FAN_ALLOW));
  EXPECT_EQ(Callbacks::get().begun(), 0U);
}

TEST_F(LoopTest, EventsNoWorkerCanTakeAreAllowedAndCounted) {
  start();
  std::optional<NoThreads> none(std::in_place);
  const int fd = feed();
  EXPECT_THAT(filter_.answer(), Answer(fd, FAN_ALLOW));
  EXPECT_TRUE(eventually_closed(fd));
  EXPECT_EQ(std::atomic_ref(loop_.unposted).load(), 1);
  none.reset();
  stop();
  start();
  EXPECT_EQ(std::atomic_ref(loop_.unposted).load(), 0) << "counted from the start";
  const int next = feed();
  EXPECT_THAT(filter_.answer(), Answer(next, FAN_DENY));
}

class SpareDescriptorsTest : public LoopTest {
 protected:
  /// Whether the first event that is allowed at once is that of the given descriptor.
  void expect_spare_from(int first_spare, rlim_t descriptors) {
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = descriptors;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    loop_.open_callback = Callbacks::wait_and_deny;
    start();
    int last = -1;
    while (last < first_spare) {
      EXPECT_TRUE(filter_.quiet()) << last;
      last = feed();
      ASSERT_GE(last, 0);
    }
    EXPECT_THAT(filter_.answer(), Answer(last, FAN_ALLOW));
    EXPECT_EQ(std::atomic_ref(loop_.unposted).load(), 1);
  }
};

TEST_F(SpareDescriptorsTest, AreTheLastSixtyFour) {
  expect_spare_from(200 - 64, 200);
}

TEST_F(SpareDescriptorsTest, AreTheUpperHalfWhereThereAreFew) {
  expect_spare_from(30, 60);
}

TEST_F(LoopTest, StoppingLeavesPostedEventsToTheWorkers) {
  loop_.open_callback = Callbacks::wait_and_deny;
  start();
  std::set<int> fds;
  for (int i = 0; i < 6; ++i) {
    fds.insert(feed());
  }
  ASSERT_TRUE(eventually([this] { return await_event(filter_.handle(), 0) == -1; }));
  stop();
  EXPECT_TRUE(filter_.quiet());
  Callbacks::get().let_pass();
  for (int i = 0; i < 6; ++i) {
    const std::optional<fanotify_response> response = filter_.answer();
    ASSERT_TRUE(response.has_value());
    EXPECT_EQ(response->response, std::uint32_t{FAN_DENY});
    fds.erase(response->fd);
  }
  EXPECT_TRUE(fds.empty());
}

TEST_F(LoopTest, StartingForgetsAnEarlierStop) {
  EXPECT_EQ(stop_event_loop(&loop_), 0);
  start();
  const int fd = feed();
  EXPECT_THAT(filter_.answer(), Answer(fd, FAN_DENY));
}

TEST_F(LoopTest, AStopIsSeenAlthoughUnwantedEventsKeepComing) {
  start();
  std::atomic<bool> ended{false};
  std::thread flood([&] {
    while (!ended) {
      filter_.feed(open_mask, open("/dev/null", O_RDONLY | O_CLOEXEC));
      (void)filter_.answer(100);
    }
  });
  ASSERT_TRUE(
      eventually([this] { return std::atomic_ref(filter_.statistics().answered).load() > 100; }));
  std::thread stopper([&] {
    stop();
    ended = true;
  });
  EXPECT_TRUE(eventually([&] { return ended.load(); })) << "it goes on for as long as events come";
  ended = true;
  flood.join();
  stopper.join();
}

event_loop_data_struct* interrupted_loop = nullptr;

TEST_F(LoopTest, ASignalHandlerMayStopIt) {
  interrupted_loop = &loop_;
  struct sigaction action {};
  action.sa_handler = [](int) { (void)stop_event_loop(interrupted_loop); };
  (void)sigaction(SIGTERM, &action, nullptr);
  start();
  (void)pthread_kill(thread_.native_handle(), SIGTERM);
  thread_.join();
  EXPECT_EQ(result_, 0);
}

class StuckCallbackTest : public LoopTest {
 protected:
  /// Three events, posted so fast that only the first finds the queue empty and wakes a worker. Its
  /// callback then does not end.
  void start_with_a_burst() {
    loop_.open_callback = Callbacks::wait_and_deny;
    ASSERT_EQ(fsfilter_thread_init(), 0);
    ASSERT_TRUE(eventually(all_workers_sleep));
    run_first();
    for (int i = 0; i < 3; ++i) {
      (void)feed();
    }
    start();
  }
};

TEST_F(StuckCallbackTest, WorkersThatSleepTakeTheEventsBehindIt) {
  ASSERT_NO_FATAL_FAILURE(start_with_a_burst());
  EXPECT_TRUE(Callbacks::get().eventually_begun(3)) << Callbacks::get().begun() << " begun";
}

TEST_F(StuckCallbackTest, TheyDoSoAlthoughEventsThatAreNotPostedKeepComing) {
  loop_.close_wr_callback = nullptr;
  ASSERT_NO_FATAL_FAILURE(start_with_a_burst());
  EXPECT_TRUE(eventually([this] {
    const int fd = feed(FAN_CLOSE_WRITE);
    EXPECT_THAT(filter_.answer(), Answer(fd, FAN_ALLOW));
    return Callbacks::get().begun() == 3;
  })) << Callbacks::get().begun()
      << " begun";
}

TEST_F(LoopTest, AFilterClosedWhileItsLoopRunsHarmsNobody) {
  loop_.open_callback = Callbacks::wait_and_deny;
  start();
  const int fd = feed();
  ASSERT_TRUE(Callbacks::get().eventually_begun(1));
  const int group = filter_.context().fanotify_fd;
  EXPECT_EQ(unregister_filter(filter_.hand_over()), 0);
  Callbacks::get().let_pass();
  EXPECT_TRUE(eventually_closed(fd));
  EXPECT_TRUE(is_open(group)) << "the loop still uses it";
  stop();
  EXPECT_TRUE(eventually_closed(group));
}

TEST_F(LoopTest, TwoLoopsShareOnePool) {
  FedFilter other;
  event_loop_data_struct other_loop = loop_;
  other_loop.handle = other.handle();
  start();
  std::thread other_thread([&] { EXPECT_EQ(start_event_loop(&other_loop), 0); });
  const int fd = event_fd();
  other.feed(open_mask, fd);
  EXPECT_THAT(other.answer(), Answer(fd, FAN_DENY));
  const int mine = feed();
  EXPECT_THAT(filter_.answer(), Answer(mine, FAN_DENY));
  EXPECT_TRUE(eventually_workers(3));
  EXPECT_EQ(stop_event_loop(&other_loop), 0);
  other_thread.join();
  EXPECT_EQ(fsfilter_thread_end(), 0);  // before the other filter goes
}

/// Feeds events and keeps a few hundred of them unanswered at most, for which there are
/// descriptors.
class Flood {
 public:
  Flood(FedFilter& filter, std::string path) : filter_(filter), path_(std::move(path)) {}

  void feed(int count) {
    for (int i = 0; i < count; ++i) {
      filter_.feed(open_mask, open(path_.c_str(), O_RDONLY | O_CLOEXEC));
      if (++unanswered_ > 200) {
        take_answer();
      }
    }
  }
  void take_all() {
    while (unanswered_ > 0) {
      take_answer();
    }
  }
  int allowed() const { return allowed_; }

 private:
  void take_answer() {
    const std::optional<fanotify_response> response = filter_.answer();
    allowed_ += response.has_value() && response->response == FAN_ALLOW ? 1 : 0;
    --unanswered_;
  }

  FedFilter& filter_;
  std::string path_;
  int unanswered_ = 0;
  int allowed_ = 0;
};

TEST_F(LoopTest, TenThousandEventsAreAnsweredEachWorkerInOrderOfArrival) {
  constexpr int events = 10000;
  // The first three wait for one another, so that every worker takes part.
  loop_.open_callback = [](fsfilter_handle_t handle, fsfilter_event_struct* event) {
    const int verdict = Callbacks::allow(handle, event);
    (void)Callbacks::get().eventually_begun(3);
    return verdict;
  };
  start();
  Flood flood(filter_, folder_.put("file", "content"));
  for (std::size_t i = 1; i <= 3; ++i) {
    flood.feed(1);
    ASSERT_TRUE(Callbacks::get().eventually_begun(i));
  }
  flood.feed(events - 3);
  flood.take_all();
  EXPECT_EQ(flood.allowed(), events);
  EXPECT_EQ(filter_.statistics().answered, std::uint64_t{events});
  std::set<std::uint64_t> all;
  const auto ids_by_thread = Callbacks::get().ids_by_thread();
  for (const auto& [thread, ids] : ids_by_thread) {
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end())) << "by worker " << thread;
    all.insert(ids.begin(), ids.end());
  }
  EXPECT_THAT(ids_by_thread, SizeIs(3));
  EXPECT_THAT(all, SizeIs(events));
  EXPECT_EQ(*all.rbegin() - *all.begin() + 1, std::uint64_t{events}) << "none was lost";
}

}  // namespace
