#include "event_queue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "time_limits.h"

namespace {

/// A queue whose time the test tells.
class EventQueueTest : public testing::Test {
 protected:
  void push(std::uint32_t type, const std::string& path) {
    fsfilter_event_struct event{};
    event.type = type;
    std::strcpy(event.path, path.c_str());
    queue_.push(queue_.make_place(event), now_);
  }
  void open(const std::string& path) { push(FSFILTER_OPEN, path); }
  void close(const std::string& path) { push(FSFILTER_CLOSE_WR, path); }

  /// The next event as "open /a" or "close /a".
  std::string take(int& in_a_row) {
    EventQueue::Place place = queue_.take(in_a_row, now_);
    const std::string text =
        (place->event.type == FSFILTER_OPEN ? "open " : "close ") + std::string(place->event.path);
    queue_.recycle(std::move(place));
    return text;
  }
  std::vector<std::string> take_all() {
    std::vector<std::string> taken;
    for (int in_a_row = 0; !queue_.empty();) {
      taken.push_back(take(in_a_row));
    }
    return taken;
  }

  EventQueue queue_;
  Clock::time_point now_ = Clock::now();
};

TEST_F(EventQueueTest, CopiesEveryFieldAndThePath) {
  fsfilter_event_struct event{};
  event.filter_fd = 3;
  event.mask = 0x10000;
  event.message_id = 4;
  event.type = FSFILTER_OPEN;
  event.fd = 5;
  event.pid = 6;
  event.result = 1;
  std::memset(event.path, 'p', sizeof event.path - 1);
  queue_.push(queue_.make_place(event), now_);
  int in_a_row = 0;
  const EventQueue::Place taken = queue_.take(in_a_row, now_);
  EXPECT_EQ(std::memcmp(&taken->event, &event, sizeof event), 0);
  EXPECT_TRUE(queue_.empty());
}

constexpr auto young = time_limits::arrival_order - std::chrono::milliseconds(1);
constexpr auto old = time_limits::arrival_order;

TEST_F(EventQueueTest, OneWorkerTakesEventsInThisOrder) {
  struct {
    const char* name;
    Clock::duration age;
    std::vector<std::string> arrived;
    std::vector<std::string> taken;
  } const orders[] = {{"by arrival",
                       young,
                       {"close /a", "open /b", "close /c", "open /d"},
                       {"close /a", "open /b", "close /c", "open /d"}},
                      {"opens first when the oldest is old",
                       old,
                       {"close /a", "open /b", "close /c", "open /d"},
                       {"open /b", "open /d", "close /a", "close /c"}},
                      {"an open follows the close of its path",
                       old,
                       {"close /a", "close /b", "open /b"},
                       {"close /b", "open /b", "close /a"}},
                      {"and every one of them",
                       old,
                       {"close /b", "close /a", "close /b", "open /b"},
                       {"close /b", "close /b", "open /b", "close /a"}},
                      {"but not one that came later",
                       old,
                       {"close /a", "open /b", "close /b"},
                       {"open /b", "close /a", "close /b"}},
                      {"opens alone", old, {"open /a", "open /b"}, {"open /a", "open /b"}},
                      {"closes alone", old, {"close /a", "close /b"}, {"close /a", "close /b"}}};
  for (const auto& [name, age, arrived, taken] : orders) {
    for (const std::string& event : arrived) {
      const std::size_t blank = event.find(' ');
      push(event.starts_with("open") ? FSFILTER_OPEN : FSFILTER_CLOSE_WR, event.substr(blank + 1));
    }
    now_ += age;
    EXPECT_EQ(take_all(), taken) << name;
  }
}

TEST_F(EventQueueTest, AWorkerThatHasTakenSixteenOpensItselfTakesAClose) {
  close("/first");
  close("/second");
  for (int i = 0; i < 40; ++i) {
    open("/open");
  }
  now_ += old;
  int one = 0;
  int other = 0;
  for (int i = 0; i < 16; ++i) {
    EXPECT_EQ(take(one), "open /open");
    EXPECT_EQ(take(other), "open /open");
  }
  EXPECT_EQ(take(one), "close /first");
  EXPECT_EQ(take(one), "open /open");
  EXPECT_EQ(take(other), "close /second");
}

TEST_F(EventQueueTest, TellsHowLongTheOldestHasWaited) {
  close("/a");
  now_ += std::chrono::seconds(1);
  open("/b");
  now_ += std::chrono::seconds(1);
  EXPECT_EQ(queue_.waits(now_), std::chrono::seconds(2));
  int in_a_row = 0;
  EXPECT_EQ(take(in_a_row), "open /b");
  EXPECT_EQ(queue_.waits(now_), std::chrono::seconds(2));
  EXPECT_EQ(take(in_a_row), "close /a");
}

TEST_F(EventQueueTest, GivesUpOpensThatCameBeforeAMomentAndNoCloses) {
  close("/a");
  open("/b");
  now_ += std::chrono::seconds(1);
  open("/c");
  EXPECT_STREQ(queue_.take_open_before(now_)->event.path, "/b");
  EXPECT_EQ(queue_.take_open_before(now_), nullptr);
  EXPECT_EQ(take_all(), (std::vector<std::string>{"open /c", "close /a"})) << "old";
}

TEST_F(EventQueueTest, ThousandsOfClosesLeaveInTheirOrder) {
  constexpr int many = 5000;
  for (int i = 0; i < many; ++i) {
    close("/" + std::to_string(i));
  }
  now_ += old;
  for (int i = 0; i < many; ++i) {
    int in_a_row = 0;
    ASSERT_EQ(take(in_a_row), "close /" + std::to_string(i));
  }
  EXPECT_TRUE(queue_.empty());
}

TEST_F(EventQueueTest, KeepsPlacesForLaterEventsButNotAllOfABurst) {
  open("/a");  // these two are freed with the queue
  close("/b");
  std::vector<EventQueue::Place> places;
  for (int i = 0; i < 1000; ++i) {
    places.push_back(queue_.make_place({}));
  }
  const QueuedEvent* last = places[255].get();
  for (EventQueue::Place& place : places) {
    queue_.recycle(std::move(place));
  }
  EXPECT_EQ(queue_.make_place({}).get(), last) << "the 256th was the last one kept";
}

}  // namespace
