// The filter against the real kernel, with the test as its reader.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include "kernel_fixture.h"

namespace {

TEST_F(KernelTest, AnOpenSaysWhoOpensWhatAndWaitsForItsAnswer) {
  Opener opener(file());
  ASSERT_NO_FATAL_FAILURE(hold(opener));
  EXPECT_EQ(event_.pid, opener.pid());
  EXPECT_EQ(event_.path, file());
  EXPECT_EQ(event_.type, FSFILTER_OPEN);
  EXPECT_EQ(event_.mask, std::uint64_t{FAN_OPEN_PERM});
  char content[8] = {};
  EXPECT_EQ(read(event_.fd, content, sizeof content), 7);
  EXPECT_STREQ(content, "content");
  EXPECT_EQ(request_event(filter_, &event_, 1), -1);
  EXPECT_FALSE(opener.ended());
  EXPECT_EQ(answer(0), 0);
  EXPECT_EQ(opener.result(), 0);
}

TEST_F(KernelTest, ACloseAfterWritingIsReportedAndItsAnswerHarmless) {
  Opener opener(file(), O_WRONLY);
  ASSERT_NO_FATAL_FAILURE(hold(opener));
  ASSERT_EQ(answer(0), 0);
  ASSERT_TRUE(next_event());
  EXPECT_EQ(event_.type, FSFILTER_CLOSE_WR);
  EXPECT_EQ(opener.result(), 0) << "nobody waits for a close";
  EXPECT_EQ(answer(0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(fcntl(event_.fd, F_GETFD), -1);
  EXPECT_EQ(fsfilter_stat(filter_)->answered, 2U);
}

TEST_F(KernelTest, TheFiltersOwnAccessIsAllowedUnseen) {
  watch();
  std::thread own([this] { EXPECT_FALSE(read_file(file()).empty()); });
  bool handed_out = false;
  (void)eventually([&] {
    handed_out |= request_event(filter_, &event_, 0) == 0;
    return fsfilter_stat(filter_)->answered > 0 || handed_out;
  });
  EXPECT_FALSE(handed_out);
  (void)(handed_out && answer(0) == 0);
  own.join();
}

TEST_F(KernelTest, APathOf4096BytesCannotBeNamedAndIsAllowedAndCounted) {
  const std::string component(250, 'd');
  int directory = open(watched_.c_str(), O_PATH | O_DIRECTORY);
  for (int depth = 0; depth < 17; ++depth) {
    ASSERT_EQ(mkdirat(directory, component.c_str(), 0755), 0);
    const int next = openat(directory, component.c_str(), O_PATH | O_DIRECTORY);
    (void)close(directory);
    directory = next;
  }
  Opener opener("deep", O_WRONLY | O_CREAT, directory);
  watch();
  opener.go();
  EXPECT_FALSE(handed_out_until_ended(opener));
  EXPECT_EQ(opener.result(), 0);
  // The close after writing may still wait to be read.
  EXPECT_EQ(request_event(filter_, &event_, 0), -1);
  EXPECT_EQ(fsfilter_unnamed_events(filter_), 2U);
  (void)close(directory);
}

TEST_F(KernelTest, AnOpenerKilledBeforeItsEventIsReadLeavesTheReaderFree) {
  Opener opener(file());
  watch();
  opener.go();
  pollfd readable{group(), POLLIN, 0};
  ASSERT_EQ(poll(&readable, 1, 30000), 1);
  opener.kill_and_reap();
  if (request_event(filter_, &event_, 0) == 0) {
    (void)answer(0);
  }
  EXPECT_EQ(request_event(filter_, &event_, 0), -1);
}

TEST_F(KernelTest, AMountMarkedTwiceIsListedOnceAndNotHeldAfterItIsUnregistered) {
  Opener opener(file());
  watch();
  EXPECT_EQ(register_mounting_point(filter_, watched_.c_str(), "tmpfs"), 0);
  EXPECT_EQ(register_mounting_point(filter_, "/run/missing", "tmpfs"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_STREQ(cast(filter_)->state->shared->mounts, (watched_ + "\n").c_str());
  EXPECT_EQ(unregister_mounting_point(filter_, watched_.c_str(), "tmpfs"), 0);
  EXPECT_EQ(opener.go().result(), 0);
  EXPECT_EQ(request_event(filter_, &event_, 0), -1);
}

TEST_F(KernelTest, ClosingTheFilterLetsGoAndRemovesTheAreaWhoeverItSaysOwnsIt) {
  for (auto* close_it : {unregister_filter, close_filter}) {
    Opener opener(file());
    ASSERT_NO_FATAL_FAILURE(hold(opener));
    cast(filter_)->state->shared->owner_pid = 1;
    EXPECT_EQ(close_it(std::exchange(filter_, nullptr)), 0);
    EXPECT_EQ(opener.result(), 0);
    EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 0);
    (void)close(event_.fd);
  }
}

std::ptrdiff_t groups_of_process() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return std::count_if(begin(descriptors), end(descriptors), [](const auto& descriptor) {
    std::error_code gone;
    return std::filesystem::read_symlink(descriptor, gone) == "anon_inode:[fanotify]";
  });
}

TEST_F(KernelTest, ASecondFilterIsRefusedWithEexistAndItsGroupStaysOpen) {
  watch();
  fsfilter_handle_t second = nullptr;
  EXPECT_EQ(register_filter(&second), EEXIST);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 1);
  EXPECT_EQ(groups_of_process(), 2);
}

TEST_F(KernelTest, AFullFileSystemIsTheCauseThatIsGiven) {
  for (const char* full : {"size=4k", "size=16k", "nr_inodes=1"}) {
    ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, full), 0);
    fsfilter_handle_t filter = nullptr;
    EXPECT_EQ(register_filter(&filter), ENOSPC) << full;
    EXPECT_EQ(filter, nullptr) << full;
    EXPECT_TRUE(std::filesystem::is_empty("/dev/shm")) << full;
  }
}

TEST_F(KernelTest, AFileSystemThatAUserMountedInTheAreasPlaceIsTakenAway) {
  ASSERT_EQ(mkdir("/dev/shm/fsfilter", 0755), 0);
  ASSERT_EQ(mount("tmpfs", "/dev/shm/fsfilter", "tmpfs", 0, nullptr), 0);
  watch();
  EXPECT_TRUE(std::filesystem::is_regular_file("/dev/shm/fsfilter"));
}

// labels: essential
TEST_F(KernelTest, AnotherProcessReadsTheAreaAndAnswersNothing) {
  watch();
  fsfilter_stat(filter_)->answered = 5;
  ASSERT_EQ(register_trusted(filter_, 1000), 0);
  ASSERT_EQ(add_inclusion(filter_, "/run"), 0);
  ChildProcess reader([owner = getpid()] {
    fsfilter_status_struct status{};
    fsfilter_handle_t handle = nullptr;
    EXPECT_EQ(fsfilter_read_status(&status), 0);
    EXPECT_EQ(status.owner_pid, owner);
    EXPECT_EQ(status.trusted_pids[0], 1000);
    EXPECT_STREQ(status.inclusions, "/run\n");
    EXPECT_EQ(open_filter(&handle), 0);
    EXPECT_EQ(fsfilter_stat(handle)->answered, 5U);
    EXPECT_EQ(is_trusted_pid(handle, 1000), 1);
    EXPECT_EQ(is_trusted_pid(handle, getpid()), 0);
    EXPECT_EQ(register_trusted(handle, 5), -1);
    fsfilter_event_struct event{};
    event.fd = dup(0);
    EXPECT_EQ(set_result(handle, &event), 0);
    EXPECT_NE(fcntl(event.fd, F_GETFD), -1) << "it is left alone";
    EXPECT_EQ(close_filter(handle), 0);
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(reader.wait(), 0);
  EXPECT_EQ(fsfilter_stat(filter_)->answered, 6U);
  EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 1);
}

TEST_F(KernelTest, AnAreaCutOffByAnotherProcessIsRestoredWhereItFaults) {
  watch();
  ASSERT_EQ(register_trusted(filter_, 1000), 0);
  ASSERT_EQ(truncate("/dev/shm/fsfilter", 0), 0);
  restore_area_when_it_faults();
  EXPECT_EQ(fsfilter_stat(filter_)->answered, 0U);
  EXPECT_EQ(register_trusted(filter_, 1001), 0) << "it is usable";
  EXPECT_EQ(is_trusted_pid(filter_, 1000), 0) << "it is empty";
  EXPECT_EQ(is_trusted_pid(filter_, getpid()), 1) << "it still knows its own accesses";
}

TEST_F(KernelTest, OnlyAddressesOfTheAreaAreRestored) {
  int elsewhere = 7;
  EXPECT_EQ(fsfilter_restore_area(&elsewhere), 0) << "before there is an area";
  watch();
  const char* begin = reinterpret_cast<const char*>(cast(filter_)->state->shared);
  EXPECT_EQ(fsfilter_restore_area(&elsewhere), 0);
  EXPECT_EQ(fsfilter_restore_area(begin - 1), 0);
  EXPECT_EQ(fsfilter_restore_area(begin + sizeof(fsfilter_shared_area)), 0);
  EXPECT_EQ(cast(filter_)->state->shared->owner_pid, getpid());
  EXPECT_EQ(elsewhere, 7);
  EXPECT_EQ(fsfilter_restore_area(begin + sizeof(fsfilter_shared_area) - 1), 1);
  ASSERT_EQ(unregister_filter(std::exchange(filter_, nullptr)), 0);
  EXPECT_EQ(fsfilter_restore_area(begin), 0) << "after the area has gone";
  EXPECT_EQ(open_filter(&filter_), -1) << "there is nothing to open";
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(filter_, nullptr);
}

}  // namespace
