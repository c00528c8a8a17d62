// The library's own event loop, fed over a socket pair.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <optional>

#include "pool_fixture.h"

namespace {
thread_local volatile bool in_handler = false;
volatile bool allocated_in_handler = false;
}  // namespace

#if !PELO_SANITIZED  // sanitizers have an allocator of their own
extern "C" void* __libc_malloc(std::size_t size);

// Stands before the C library's in this program.
extern "C" void* malloc(std::size_t size) {
  allocated_in_handler = allocated_in_handler || in_handler;
  return __libc_malloc(size);
}
#endif

namespace {

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
    loop_.end();
    PoolTest::TearDown();
  }

  /// Feeds an event. @return its descriptor
  int feed(std::uint64_t mask = open_mask) {
    const int fd = event_fd();
    filter_.feed(mask, fd);
    return fd;
  }

  RunningLoop loop_;
};

TEST_F(LoopTest, WithoutWhatItNeedsItFailsAtOnce) {
  errno = 0;
  EXPECT_EQ(start_event_loop(nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(stop_event_loop(nullptr), -1);
  filter_.context().group.reset();
  for (const fsfilter_handle_t unfit : {fsfilter_handle_t{}, filter_.handle()}) {
    loop_.handle = unfit;
    errno = 0;
    EXPECT_EQ(start_event_loop(&loop_), -1);
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST_F(LoopTest, OpensAndClosesAfterWritingGoToTheirCallbacksWithTheirWords) {
  loop_.begin();
  expect_answer(feed(), FAN_DENY);
  expect_answer(feed(FAN_CLOSE_WRITE), FAN_ALLOW);
  const std::vector<Callbacks::Seen> seen = Callbacks::get().seen();
  EXPECT_EQ(seen[0].event.path, folder_.path("file"));
  EXPECT_EQ(seen[0].handle, filter_.handle());
  EXPECT_EQ(seen[0].word, &loop_.open_data);
  EXPECT_EQ(seen[1].word, &loop_.close_wr_data);
  EXPECT_EQ(fsfilter_callback_data(), nullptr) << "outside a callback there is no word";
}

TEST_F(LoopTest, AWordIsForgottenAfterItsCallback) {
  loop_.open_callback = Callbacks::wait_and_deny;
  loop_.begin();
  for (std::size_t i = 1; i <= 3; ++i) {
    (void)feed();
    ASSERT_TRUE(Callbacks::get().eventually_begun(i));
  }
  loop_.end();
  Callbacks::get().let_pass(3);
  (void)occupy(3);
  const std::vector<Callbacks::Seen> seen = Callbacks::get().seen();
  for (std::size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(seen[i].word, i < 3 ? &loop_.open_data : nullptr) << i;
  }
}

TEST_F(LoopTest, NothingButOneInItsFlagStopsIt) {
  loop_.begin();
  std::atomic_ref(loop_.stop).store(2);
  expect_answer(feed(), FAN_DENY);
  expect_answer(feed(), FAN_DENY);
}

TEST_F(LoopTest, WhatHasNoCallbackIsAllowedWithoutAWorker) {
  loop_.open_callback = nullptr;
  loop_.close_wr_callback = nullptr;
  loop_.begin();
  expect_answer(feed(), FAN_ALLOW);
  const int written = feed(FAN_CLOSE_WRITE);
  expect_answer(written, FAN_ALLOW);
  EXPECT_TRUE(eventually_closed(written));
  EXPECT_EQ(workers_of_process(), 0);
}

TEST_F(LoopTest, EventsNoWorkerCanTakeAreAllowedAndCounted) {
  loop_.begin();
  std::optional<NoThreads> none(std::in_place);
  const int fd = feed();
  expect_answer(fd, FAN_ALLOW);
  EXPECT_TRUE(eventually_closed(fd));
  EXPECT_EQ(std::atomic_ref(loop_.unposted).load(), 1);
  none.reset();
  loop_.end();
  loop_.begin();
  EXPECT_EQ(std::atomic_ref(loop_.unposted).load(), 0) << "counted from the start";
  expect_answer(feed(), FAN_DENY);
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
    loop_.begin();
    int last = -1;
    while (last < first_spare) {
      EXPECT_TRUE(filter_.quiet()) << last;
      last = feed();
      ASSERT_GE(last, 0);
    }
    expect_answer(last, FAN_ALLOW);
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
  loop_.begin();
  for (int i = 0; i < 6; ++i) {
    (void)feed();
  }
  ASSERT_TRUE(eventually([this] { return filter_.all_read(); }));
  loop_.end();
  EXPECT_TRUE(filter_.quiet());
  Callbacks::get().let_pass();
  EXPECT_EQ(fsfilter_thread_end(), 0);
  EXPECT_EQ(filter_.statistics().denied, 6U);
}

event_loop_data_struct* interrupted_loop = nullptr;

TEST_F(LoopTest, ASignalHandlerMayStopIt) {
  interrupted_loop = &loop_;
  struct sigaction action {};
  action.sa_handler = [](int) {
    in_handler = true;
    (void)stop_event_loop(interrupted_loop);
    in_handler = false;
  };
  (void)sigaction(SIGTERM, &action, nullptr);
  loop_.begin();
  (void)pthread_kill(loop_.thread.native_handle(), SIGTERM);
  loop_.thread.join();
  EXPECT_FALSE(allocated_in_handler) << "the interrupted thread may hold the allocator's lock";
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
    loop_.begin();
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
    expect_answer(feed(FAN_CLOSE_WRITE), FAN_ALLOW);
    return Callbacks::get().begun() == 3;
  })) << Callbacks::get().begun()
      << " begun";
}

TEST_F(LoopTest, AFilterClosedWhileItsLoopRunsHarmsNobody) {
  loop_.open_callback = Callbacks::wait_and_deny;
  loop_.begin();
  const int fd = feed();
  ASSERT_TRUE(Callbacks::get().eventually_begun(1));
  const int group = filter_.context().group.get();
  EXPECT_EQ(unregister_filter(filter_.hand_over()), 0);
  Callbacks::get().let_pass();
  EXPECT_TRUE(eventually_closed(fd));
  EXPECT_TRUE(is_open(group)) << "the loop still uses it";
  loop_.end();
  EXPECT_TRUE(eventually_closed(group));
}

}  // namespace
