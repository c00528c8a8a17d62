#include "event_queue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

fsfilter_event_struct numbered(std::uint64_t number) {
  fsfilter_event_struct event{};
  event.message_id = number;
  return event;
}

std::uint64_t take(EventQueue& queue) {
  std::unique_ptr<QueuedEvent> taken = queue.pop();
  const std::uint64_t number = taken->event.message_id;
  queue.recycle(std::move(taken));
  return number;
}

TEST(EventQueueTest, BeginsEmpty) {
  const EventQueue queue;
  EXPECT_TRUE(queue.empty());
}

TEST(EventQueueTest, GivesEventsInOrderOfArrival) {
  EventQueue queue;
  for (std::uint64_t number : {1U, 2U, 3U}) {
    EXPECT_TRUE(queue.push(numbered(number)));
  }
  EXPECT_EQ(queue.front().message_id, 1U);
  EXPECT_EQ(take(queue), 1U);
  EXPECT_EQ(take(queue), 2U);
  EXPECT_EQ(take(queue), 3U);
  EXPECT_TRUE(queue.empty());
}

TEST(EventQueueTest, ServesAgainAfterItWasEmpty) {
  EventQueue queue;
  (void)queue.push(numbered(1));
  (void)take(queue);
  (void)queue.push(numbered(2));
  (void)queue.push(numbered(3));
  EXPECT_EQ(take(queue), 2U);
  EXPECT_EQ(take(queue), 3U);
}

TEST(EventQueueTest, CopiesEveryFieldAndThePath) {
  EventQueue queue;
  fsfilter_event_struct event{};
  event.filter_fd = 3;
  event.mask = 0x10000;
  event.message_id = 4;
  event.type = 1;
  event.fd = 5;
  event.pid = 6;
  event.result = 1;
  const std::string longest(FSFILTER_PATH_MAX - 1, 'p');
  std::strcpy(event.path, longest.c_str());
  (void)queue.push(event);
  event.path[0] = 'x';
  EXPECT_EQ(queue.front().filter_fd, 3);
  EXPECT_EQ(queue.front().mask, 0x10000U);
  EXPECT_EQ(queue.front().message_id, 4U);
  EXPECT_EQ(queue.front().type, 1U);
  EXPECT_EQ(queue.front().fd, 5);
  EXPECT_EQ(queue.front().pid, 6);
  EXPECT_EQ(queue.front().result, 1);
  EXPECT_EQ(queue.front().path, longest);
}

TEST(EventQueueTest, APlaceUsedAgainShowsNothingOfItsFormerEvent) {
  EventQueue queue;
  fsfilter_event_struct event{};
  std::strcpy(event.path, "/a/long/path");
  (void)queue.push(event);
  (void)take(queue);
  std::strcpy(event.path, "/b");
  (void)queue.push(event);
  EXPECT_STREQ(queue.front().path, "/b");
}

TEST(EventQueueTest, PlacesOfTakenEventsAreUsedAgain) {
  EventQueue queue;
  (void)queue.push(numbered(1));
  std::unique_ptr<QueuedEvent> taken = queue.pop();
  const QueuedEvent* place = taken.get();
  queue.recycle(std::move(taken));
  (void)queue.push(numbered(2));
  EXPECT_EQ(queue.pop().get(), place);
}

TEST(EventQueueTest, ATakenEventStaysItsTakersWhileOthersCome) {
  EventQueue queue;
  (void)queue.push(numbered(1));
  const std::unique_ptr<QueuedEvent> taken = queue.pop();
  (void)queue.push(numbered(2));
  EXPECT_EQ(taken->event.message_id, 1U);
  EXPECT_EQ(taken->next, nullptr);
}

TEST(EventQueueTest, NothingCanBeGivenBack) {
  EventQueue queue;
  queue.recycle(nullptr);
  EXPECT_TRUE(queue.push(numbered(1)));
}

TEST(EventQueueTest, ALongQueueIsDestroyedWithoutRecursion) {
  constexpr int many = 100000;  // a frame for each would not fit the stack
  EventQueue queue;
  for (int i = 0; i < many; ++i) {
    ASSERT_TRUE(queue.push(numbered(1)));
  }
}

TEST(EventQueueTest, EachWaitingEventIsVisitedInOrder) {
  EventQueue queue;
  std::vector<std::uint64_t> visited;
  const auto visit = [&](const QueuedEvent& place) { visited.push_back(place.event.message_id); };
  queue.for_each(visit);
  EXPECT_TRUE(visited.empty());
  (void)queue.push(numbered(1));
  (void)queue.push(numbered(2));
  queue.for_each(visit);
  EXPECT_EQ(visited, (std::vector<std::uint64_t>{1, 2}));
}

TEST(EventQueueTest, APlaceUsedAgainIsNotLetGo) {
  EventQueue queue;
  (void)queue.push(numbered(1));
  queue.for_each([](QueuedEvent& place) { place.let_go = true; });
  (void)take(queue);
  (void)queue.push(numbered(2));
  EXPECT_FALSE(queue.first().let_go);
}

constexpr FrontWatch::Clock::time_point noon{std::chrono::hours(12)};

TEST(FrontWatchTest, CountsFromTheFirstLookAtAnEvent) {
  FrontWatch watch;
  EXPECT_EQ(watch.look(7, noon), std::chrono::seconds(0));
  EXPECT_EQ(watch.look(7, noon + std::chrono::seconds(2)), std::chrono::seconds(2));
}

TEST(FrontWatchTest, BeginsAnewWithEachEvent) {
  FrontWatch watch;
  (void)watch.look(7, noon);
  EXPECT_EQ(watch.look(8, noon + std::chrono::seconds(2)), std::chrono::seconds(0));
  EXPECT_EQ(watch.look(8, noon + std::chrono::seconds(3)), std::chrono::seconds(1));
}

TEST(FrontWatchTest, AnEmptyQueueDoesNotWait) {
  FrontWatch watch;
  EXPECT_EQ(watch.look(0, noon), std::chrono::seconds(0));
  EXPECT_EQ(watch.look(0, noon + std::chrono::hours(1)), std::chrono::seconds(0));
}

}  // namespace
