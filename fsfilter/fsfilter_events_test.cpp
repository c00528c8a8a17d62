// The reader's road and the answers, fed over a socket pair.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "events_fixture.h"
#include "fsfilter_group.h"
#include "wait.h"

namespace {

TEST(MetadataTypeTest, PermissionComesBeforeCloseAndTheRestIsOther) {
  EXPECT_EQ(get_metadata_type(0x10000), 0U);
  EXPECT_EQ(get_metadata_type(0x10008), 0U);
  EXPECT_EQ(get_metadata_type(0x8), 1U);
  EXPECT_EQ(get_metadata_type(0x20), 2U);
  EXPECT_EQ(get_metadata_type(0), 2U);
}

/// Reads by one of the two calls.
using Request = int (*)(fsfilter_handle_t, fsfilter_event_struct*, int);
constexpr Request requests[] = {request_event, request_one_event};

TEST_F(EventsTest, AnEventIsReadWithAllThatIsKnownOfItAndItsPathUnlessOneIsAskedFor) {
  for (const Request read : requests) {
    const int fd = event_fd();
    filter_.feed(open_mask, fd, 4711);
    ASSERT_EQ(read(filter_.handle(), &event_, 0), 0);
    EXPECT_EQ(event_.filter_fd, filter_.context().group.get());
    EXPECT_EQ(event_.mask, open_mask);
    EXPECT_EQ(event_.type, 0U);
    EXPECT_EQ(event_.fd, fd);
    EXPECT_EQ(event_.pid, 4711);
    EXPECT_EQ(event_.result, 0);
    EXPECT_EQ(event_.path, read == request_event ? folder_.path("file") : "");
    EXPECT_TRUE(filter_.quiet());
    (void)close(fd);
  }
}

TEST_F(EventsTest, NamesMayHoldNewlinesQuotesAndAnyByteAndClosesAreHandedOutToo) {
  const std::string name = "a\n\"b\" %s \xff";
  expect_handed_out(FAN_CLOSE_WRITE, event_fd(name));
  EXPECT_EQ(event_.path, folder_.path(name));
  EXPECT_EQ(event_.type, 1U);
}

// Runs in a process that has read nothing yet.
TEST(MessageIdTest, TheFirstEventOfAProcessHasNumberOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        FedFilter filter;
        fsfilter_event_struct event{};
        filter.feed(open_mask, dup(0));
        const int result = request_one_event(&filter.context(), &event, 0);
        _exit(result == 0 && event.message_id == 1 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(EventsTest, MessageIdsCountEveryEventRead) {
  expect_handed_out(open_mask, event_fd());
  const std::uint64_t first = event_.message_id;
  expect_allowed_here(FAN_OPEN, event_fd());
  expect_handed_out(open_mask, event_fd());
  EXPECT_EQ(event_.message_id, first + 2);
}

TEST_F(EventsTest, ARecordThatIsNotAsLongAsItSaysFailsWithoutAnAnswer) {
  struct {
    std::size_t read;
    std::uint32_t said;
  } const records[] = {{23, FAN_EVENT_METADATA_LEN},
                       {24, FAN_EVENT_METADATA_LEN + 1},
                       {24, FAN_EVENT_METADATA_LEN - 1}};
  for (const auto& [size, said] : records) {
    for (const Request read : requests) {
      fanotify_event_metadata record{};
      record.event_len = said;
      record.mask = open_mask;
      MarkedEvent event;
      filter_.feed_raw(&record, size);
      EXPECT_EQ(read(filter_.handle(), event.get(), 0), -1);
      EXPECT_TRUE(event.untouched());
    }
  }
  EXPECT_TRUE(filter_.quiet());
  EXPECT_EQ(filter_.statistics().answered, 0U);
  EXPECT_EQ(fsfilter_failed_reads(filter_.handle()), 0U);
}

TEST_F(EventsTest, TheMetadataVersionIsNotLookedAt) {
  fanotify_event_metadata record{};
  record.event_len = FAN_EVENT_METADATA_LEN;
  record.vers = 99;
  record.mask = open_mask;
  record.fd = event_fd();
  record.pid = stranger_pid;
  filter_.feed_raw(&record, sizeof record);
  EXPECT_EQ(request(), 0);
  (void)close(record.fd);
}

TEST_F(EventsTest, AnEndedGroupAndAContextWithoutADescriptorFailAtOnce) {
  filter_.close_kernel_side();
  EXPECT_EQ(request(1000), -1);
  filter_.context().group.reset();
  EXPECT_EQ(request(1000), -1);
}

TEST_F(EventsTest, WhatIsNoRegularFileNoOpenAndNoCloseAfterWritingIsAllowedHere) {
  expect_allowed_here(FAN_OPEN, event_fd());
  expect_allowed_here(FAN_ACCESS_PERM, event_fd());
  expect_allowed_here(open_mask, open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY));
  expect_allowed_here(open_mask, socket(AF_UNIX, SOCK_STREAM, 0));
  expect_allowed_here(open_mask, open("/dev/null", O_RDONLY));
  const int closed = event_fd();
  (void)close(closed);
  expect_allowed_here(open_mask, closed);
}

TEST_F(EventsTest, AccessesOfTheOwnerAndOfTrustedProcessesAreAllowedHere) {
  filter_.area().owner_pid = 4711;
  ASSERT_EQ(fsfilter_shared_add_trusted(&filter_.area(), 4712), 0);
  expect_allowed_here(open_mask, event_fd(), 4711);
  expect_allowed_here(open_mask, event_fd(), 4712);
  expect_handed_out(open_mask, event_fd(), 4713);
  filter_.area().slot_mask = 0x3FF;
  expect_handed_out(open_mask, event_fd(), 0);  // of another pid namespace
}

TEST_F(EventsTest, WhatIsIncludedAndNotExcludedIsHandedOut) {
  PathSet& inclusions = filter_.context().state->inclusions;
  inclusions["/elsewhere"] = {};
  expect_allowed_here(open_mask, event_fd());
  inclusions[folder_.path()] = {};
  expect_handed_out(open_mask, event_fd());
  filter_.context().state->exclusions[folder_.path("file")] = {};
  expect_allowed_here(open_mask, event_fd());
  expect_handed_out(open_mask, event_fd("filename"));
}

TEST_F(EventsTest, UnwantedEventsAreReadUntilAWantedOneComes) {
  filter_.feed(FAN_Q_OVERFLOW, FAN_NOFD);
  const int unwanted = open("/dev/null", O_RDONLY);
  const int wanted = event_fd();
  filter_.feed(open_mask, unwanted);
  filter_.feed(open_mask, wanted);
  ASSERT_EQ(request(30), 0);
  EXPECT_EQ(event_.fd, wanted);
  expect_answer(unwanted, FAN_ALLOW);
  EXPECT_TRUE(filter_.quiet()) << "nobody waits for the answer to an overflow";
  EXPECT_EQ(fsfilter_unnamed_events(filter_.handle()), 1U);
  EXPECT_EQ(filter_.statistics().answered, 1U);
  (void)close(wanted);
}

TEST_F(EventsTest, ATimeOutThatHasPassedEndsTheCallAlthoughUnwantedEventsWait) {
  for (int i = 0; i < 50; ++i) {
    filter_.feed(open_mask, open("/dev/null", O_RDONLY | O_CLOEXEC));
  }
  EXPECT_EQ(request(0), -1);
  EXPECT_LT(filter_.statistics().answered, 50U);
  while (filter_.statistics().answered < 50) {
    EXPECT_EQ(request(0), -1);  // closes the others
  }
}

TEST_F(EventsTest, AnUnwantedEventDoesNotBeginTheTimeOutAnew) {
  std::atomic<bool> returned{false};
  std::thread kernel([&] {
    EXPECT_TRUE(eventually([&] {
      filter_.feed(open_mask, open("/dev/null", O_RDONLY | O_CLOEXEC));
      (void)filter_.answer(100);
      return returned.load();
    })) << "it goes on for as long as events come";
  });
  EXPECT_EQ(request(1), -1);
  returned = true;
  kernel.join();
}

std::atomic<int> signals_handled{0};

TEST_F(EventsTest, ASignalDoesNotEndTheWait) {
  struct sigaction action {};
  action.sa_handler = [](int) { ++signals_handled; };
  (void)sigaction(SIGUSR1, &action, nullptr);
  const int fd = event_fd();
  const std::string state_file = "/proc/self/task/" + std::to_string(gettid()) + "/stat";
  const pthread_t reader = pthread_self();
  std::thread kernel([&] {
    EXPECT_TRUE(eventually([&] {
      if (read_file(state_file).find(") S ") != std::string::npos) {
        (void)pthread_kill(reader, SIGUSR1);
      }
      return signals_handled >= 3;
    }));
    filter_.feed(open_mask, fd);
  });
  EXPECT_EQ(request(60), 0);
  kernel.join();
  (void)close(fd);
}

TEST_F(EventsTest, OneDeniesAndAllElseAllowsAndEachAnswerClosesItsDescriptor) {
  std::uint64_t answered = 0;
  for (const int verdict : {0, 1, 7, 2, -1}) {
    const int fd = event_fd();
    filter_.feed(open_mask, fd);
    EXPECT_EQ(request(), 0);
    event_.result = verdict;
    EXPECT_EQ(set_result(filter_.handle(), &event_), 0);
    EXPECT_THAT(filter_.answer(), Answer(fd, verdict == 1 ? 2 : 1)) << verdict;
    EXPECT_FALSE(is_open(fd)) << verdict;
    EXPECT_EQ(filter_.statistics().answered, ++answered);
    EXPECT_EQ(filter_.statistics().denied, answered > 1 ? 1U : 0U);
  }
}

TEST_F(EventsTest, AFailedWriteIsReturnedAndTheDescriptorClosedAllTheSame) {
  (void)signal(SIGPIPE, SIG_IGN);
  const int fd = event_fd();
  filter_.feed(open_mask, fd);
  ASSERT_EQ(request(), 0);
  filter_.close_kernel_side();
  EXPECT_EQ(set_result(filter_.handle(), &event_), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_FALSE(is_open(fd));
  EXPECT_EQ(filter_.statistics().answered, 1U);
}

TEST_F(EventsTest, AnotherFiltersEventIsCountedAndLeftAlone) {
  event_.filter_fd = filter_.context().group.get() + 1;
  event_.fd = event_fd();
  event_.result = 1;
  EXPECT_EQ(set_result(filter_.handle(), &event_), 0);
  EXPECT_TRUE(filter_.quiet());
  EXPECT_TRUE(is_open(event_.fd));
  EXPECT_EQ(filter_.statistics().answered, 1U);
  EXPECT_EQ(filter_.statistics().denied, 1U);
  (void)close(event_.fd);
}

// Again and again, since threads that follow each other on a busy machine lose nothing.
// labels: essential
TEST_F(EventsTest, NoAnswerIsLostWhenManyThreadsAnswer) {
  constexpr std::uint64_t answers = 20000;
  constexpr std::uint64_t before = UINT32_MAX - 1000;  // they get their thirty-third bit
  for (int round = 0; round < 50 && !HasFailure(); ++round) {
    filter_.statistics().answered = before;
    filter_.statistics().denied = before;
    std::barrier together(3);
    const auto answer = [&](int verdict) {
      fsfilter_event_struct event{};
      event.filter_fd = -7;  // counted, not written
      event.result = verdict;
      together.arrive_and_wait();
      for (std::uint64_t i = 0; i < answers; ++i) {
        (void)set_result(filter_.handle(), &event);
      }
    };
    std::thread first(answer, 1);
    std::thread second(answer, 1);
    answer(0);
    first.join();
    second.join();
    EXPECT_EQ(filter_.statistics().answered, before + 3 * answers);
    EXPECT_EQ(filter_.statistics().denied, before + 2 * answers);
  }
}

TEST_F(EventsTest, AFileIsNamedThroughItsDescriptorAsFarAsTheBufferGoes) {
  event_.fd = event_fd("named");
  char buffer[FSFILTER_PATH_MAX];
  std::memset(buffer, 'x', sizeof buffer);
  const std::string path = folder_.path("named");
  EXPECT_EQ(get_file_name(&event_, buffer, sizeof buffer), static_cast<int>(path.size()));
  EXPECT_EQ(buffer, path);
  EXPECT_EQ(get_file_name(&event_, buffer, 5), 4);
  EXPECT_EQ(buffer, path.substr(0, 4));
  EXPECT_EQ(buffer[5], path[5]);
  (void)close(event_.fd);
  EXPECT_EQ(get_file_name(&event_, buffer, sizeof buffer), -1);
  EXPECT_EQ(buffer, path.substr(0, 4));
}

std::string printed(const fsfilter_event_struct* event) {
  testing::internal::CaptureStdout();
  print_event_info(event);
  (void)std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST_F(EventsTest, PrintsMessageTypeDescriptorAndPid) {
  std::strcpy(event_.path, "/a/%s");
  event_.fd = 12;
  event_.pid = 345;
  for (const char* type : {"OPEN", "CLOSE_WR", "OTHER"}) {
    EXPECT_EQ(printed(&event_),
              std::string("message: /a/%s\n\t type:") + type + "\t fd:12\t pid:345\n");
    ++event_.type;
  }
  EXPECT_EQ(printed(nullptr), "message: (null)\n");
}

}  // namespace
