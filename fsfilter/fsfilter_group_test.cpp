// Several groups on one filter, against the real kernel.
#include "fsfilter_group.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "kernel_fixture.h"
#include "wait.h"

namespace {

class GroupTest : public KernelTest {
 protected:
  void prepare() override {
    KernelTest::prepare();
    served_ = mount_tmpfs("served");
    std::ofstream(served_file()) << "content";
  }
  void TearDown() override {
    if (lane_ != nullptr) {
      EXPECT_EQ(unregister_filter(lane_), 0);
    }
    KernelTest::TearDown();
  }

  std::string served_file() const { return served_ + "/file"; }

  /// The filter watches one mount, a further group the other.
  void watch_both() {
    watch();
    ASSERT_EQ(fsfilter_open_group(filter_, &lane_), 0) << std::strerror(errno);
    ASSERT_EQ(register_mounting_point(lane_, served_.c_str(), "fuse"), 0);
  }

  void hold_in_lane(Opener& opener) {
    watch_both();
    opener.go();
    ASSERT_EQ(request_event(lane_, &event_, 30), 0);
  }

  std::string mounts() const { return cast(filter_)->state->shared->mounts; }

  static void limit_descriptors(rlim_t limit) {
    rlimit descriptors{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &descriptors), 0);
    descriptors.rlim_cur = limit;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors), 0);
  }

  static void deny_next(fsfilter_handle_t group, const std::string& path) {
    fsfilter_event_struct event{};
    ASSERT_EQ(request_event(group, &event, 30), 0);
    EXPECT_EQ(event.path, path);
    EXPECT_EQ(event.filter_fd, fsfilter_descriptor(group));
    event.result = FSFILTER_DENY;
    EXPECT_EQ(set_result(group, &event), 0);
  }

  std::string served_;
  fsfilter_handle_t lane_ = nullptr;
};

TEST_F(GroupTest, EachReadsTheEventsOfItsOwnMarksAndAllCountTogether) {
  Opener main(file());
  Opener lane(served_file());
  watch_both();
  main.go();
  lane.go();
  deny_next(lane_, served_file());
  deny_next(filter_, file());
  EXPECT_EQ(main.result(), EPERM);
  EXPECT_EQ(lane.result(), EPERM);
  EXPECT_EQ(fsfilter_stat(lane_), fsfilter_stat(filter_));
  EXPECT_EQ(fsfilter_stat(filter_)->denied, 2U);
  EXPECT_NE(mounts().find(served_ + "\n"), std::string::npos);
  EXPECT_NE(mounts().find(watched_ + "\n"), std::string::npos);
}

TEST_F(GroupTest, ClosingOneLeavesTheOthersAndTheArea) {
  Opener main(file());
  Opener lane(served_file());
  ASSERT_NO_FATAL_FAILURE(hold_in_lane(lane));
  (void)close(event_.fd);
  EXPECT_EQ(unregister_filter(std::exchange(lane_, nullptr)), 0);
  EXPECT_EQ(lane.result(), 0) << "the kernel allows what the group held";
  EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 1);
  main.go();
  deny_next(filter_, file());
  EXPECT_EQ(main.result(), EPERM);
}

TEST_F(GroupTest, OneThatOutlivesTheFilterStillHasItsArea) {
  Opener lane(served_file());
  watch_both();
  EXPECT_EQ(unregister_filter(std::exchange(filter_, nullptr)), 0);
  EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 0);
  lane.go();
  deny_next(lane_, served_file());
  EXPECT_EQ(lane.result(), EPERM);
  EXPECT_EQ(fsfilter_stat(lane_)->denied, 1U);
}

TEST_F(GroupTest, WithoutMarksNothingIsHeldAndTheListStays) {
  Opener lane(served_file());
  watch_both();
  EXPECT_EQ(fsfilter_unmark_all(lane_), 0);
  EXPECT_EQ(lane.go().result(), 0);
  EXPECT_NE(mounts().find(served_ + "\n"), std::string::npos);
  EXPECT_EQ(fsfilter_forget_mount(filter_, served_.c_str()), 0);
  EXPECT_EQ(mounts(), watched_ + "\n");
}

TEST_F(GroupTest, RegisteringAMountAgainDoesNotLookItUp) {
  watch_both();
  fsfilter_state_t& state = *cast(filter_)->state;
  ScopedLock lock(state.mounts_mutex);
  state.mounts[served_].mode = 0;  // what a look would fill in
  lock.unlock();
  EXPECT_EQ(register_mounting_point(lane_, served_.c_str(), "fuse"), 0);
  lock.lock();
  EXPECT_EQ(state.mounts[served_].mode, 0);
}

TEST_F(GroupTest, ReleasedAtTheLimitOfDescriptorsItLetsGoAndKeepsItsNumber) {
  Opener lane(served_file());
  ASSERT_NO_FATAL_FAILURE(hold_in_lane(lane));
  const int number = fsfilter_descriptor(lane_);
  limit_descriptors(100);
  std::deque<Descriptor> all;
  while (all.empty() || all.back()) {
    all.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  }
  EXPECT_EQ(fsfilter_release_group(lane_), 0);
  all.clear();
  EXPECT_EQ(lane.result(), 0);
  EXPECT_EQ(fcntl(number, F_GETFD), FD_CLOEXEC);
  event_.result = FSFILTER_DENY;
  EXPECT_EQ(set_result(lane_, &event_), -1) << "the late answer goes nowhere";
  EXPECT_EQ(fcntl(event_.fd, F_GETFD), -1) << "its descriptor is closed all the same";
  EXPECT_EQ(fsfilter_stat(filter_)->denied, 0U);
}

TEST_F(GroupTest, AReadThatFailsIsCountedAndTheKernelHasDenied) {
  Opener lane(served_file());
  watch_both();
  limit_descriptors(3);
  lane.go();
  EXPECT_EQ(request_event(lane_, &event_, 30), -1);
  EXPECT_EQ(lane.result(), EPERM);
  EXPECT_EQ(fsfilter_failed_reads(filter_), 1U);
  EXPECT_EQ(request_event(lane_, &event_, 0), -1);
  EXPECT_EQ(fsfilter_failed_reads(filter_), 1U) << "having found nothing to read is no failure";
  limit_descriptors(1024);  // sanitizers need some to look at memory
}

TEST_F(GroupTest, SeveralThreadsReadOneGroupEachEventOnce) {
  constexpr int files = 40;
  std::deque<Opener> openers;
  for (int i = 0; i < files; ++i) {
    openers.emplace_back(served_file());
  }
  watch_both();
  std::atomic<int> taken{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      fsfilter_event_struct event{};
      while (taken < files) {
        if (request_event(lane_, &event, 1) == 0) {
          ++taken;
          event.result = FSFILTER_DENY;
          EXPECT_EQ(set_result(lane_, &event), 0);
        }
      }
    });
  }
  for (Opener& opener : openers) {
    opener.go();
  }
  for (Opener& opener : openers) {
    EXPECT_EQ(opener.result(), EPERM);
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(taken, files);
  EXPECT_EQ(fsfilter_failed_reads(lane_), 0U);
}

}  // namespace
