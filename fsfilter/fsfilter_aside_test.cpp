// Readers that stand aside for one that is stuck, how that one is found out, and opens allowed
// early.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "events_test.h"
#include "wait.h"

namespace {

class AsideTest : public EventsTest {};

TEST_F(AsideTest, AReaderThatStandsAsideTakesEventsByTheSameRules) {
  const int own = event_fd("own");
  const int strangers = event_fd("strangers");
  filter_.context().owner_pid = getpid();
  filter_.feed(open_mask, own, getpid());
  filter_.feed(open_mask, strangers);
  EXPECT_EQ(await_event(filter_.handle(), 0), 0);
  EXPECT_EQ(request_event_aside(filter_.handle(), &event_), -1) << "answered at once";
  EXPECT_THAT(filter_.answer(), Answer(own, FAN_ALLOW));
  EXPECT_EQ(request_event_aside(filter_.handle(), &event_), 0);
  EXPECT_EQ(event_.fd, strangers);
  EXPECT_EQ(await_event(filter_.handle(), 0), -1);
  EXPECT_EQ(request_event_aside(filter_.handle(), &event_), -1);
  EXPECT_EQ(request_event_aside(nullptr, &event_), -1);
  EXPECT_EQ(request_event_aside(filter_.handle(), nullptr), -1);
  EXPECT_EQ(await_event(nullptr, 0), -1);
  (void)close(strangers);
}

/// Runs a reader that is stuck in its answer to an unwanted event until its answers are read.
template <typename Read>
void while_stuck(FedFilter& filter, int fd, Read read, const std::function<void()>& check) {
  fanotify_response other{};
  other.fd = -1;
  int others = 0;
  while (send(filter.context().fanotify_fd, &other, sizeof other, MSG_DONTWAIT) > 0) {
    ++others;
  }
  filter.context().owner_pid = getpid();
  std::atomic<bool> returned{false};
  filter.feed(open_mask, fd, getpid());
  std::thread reader([&] {
    read();
    returned = true;
  });
  check();
  EXPECT_FALSE(returned);
  for (; others > 0; --others) {
    (void)filter.answer();
  }
  reader.join();
}

TEST_F(AsideTest, AReaderIsBusyFromItsEventOnUntilItIsDoneWithIt) {
  EXPECT_EQ(fsfilter_reader_busy(filter_.handle()), 0);
  while_stuck(
      filter_, event_fd(), [this] { (void)request(0); },
      [this] {
        EXPECT_TRUE(eventually([this] { return fsfilter_reader_busy(filter_.handle()) > 50; }));
      });
  EXPECT_EQ(fsfilter_reader_busy(filter_.handle()), 0);
}

TEST_F(AsideTest, AReaderThatWaitsForAnEventIsNotBusy) {
  std::atomic<bool> returned{false};
  std::thread reader([&] {
    (void)request(1);
    returned = true;
  });
  std::int64_t longest = 0;
  while (!returned) {
    longest = std::max(longest, fsfilter_reader_busy(filter_.handle()));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // the reader needs the processor
  }
  reader.join();
  EXPECT_EQ(longest, 0);
}

TEST_F(AsideTest, AReaderThatStandsAsideIsNotTheOneThatCountsAsBusy) {
  while_stuck(
      filter_, event_fd(),
      [this] {
        fsfilter_event_struct event;
        (void)request_event_aside(filter_.handle(), &event);
      },
      [this] {
        EXPECT_FALSE(eventually([this] { return fsfilter_reader_busy(filter_.handle()) > 0; },
                                std::chrono::milliseconds(100)));
      });
}

TEST_F(AsideTest, AHeldOpenIsAllowedWithItsDescriptorLeftOpen) {
  const int fd = event_fd();
  allow_held(filter_.handle(), fd);
  EXPECT_THAT(filter_.answer(), Answer(fd, FAN_ALLOW));
  EXPECT_TRUE(is_open(fd));
  EXPECT_EQ(filter_.statistics().answered, 0U) << "its owner counts it";
  (void)close(fd);
}

}  // namespace
