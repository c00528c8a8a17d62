#include "held_opens.h"

#include <gtest/gtest.h>
#include <sys/fanotify.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "cache.h"
#include "service_fixture.h"

namespace {

using namespace std::chrono_literals;

/// The owner of held opens; the test plays the kernel.
class HeldOpensTest : public EngineTest {
 protected:
  HeldOpensTest() {
    log_up_to(1);
    events_.set_filter(filter_.handle());
    events_.running = 1;
  }
  ~HeldOpensTest() override { EXPECT_EQ(events_.held(), 0) << "each event has been answered"; }

  fsfilter_event_struct event(std::uint32_t type = FSFILTER_OPEN, const char* path = "/a") {
    fsfilter_event_struct made{};
    made.filter_fd = filter_.context().group.get();
    made.type = type;
    made.fd = dup(0);
    std::strcpy(made.path, path);
    return made;
  }
  int post(std::uint32_t type = FSFILTER_OPEN, const char* path = "/a") {
    fsfilter_event_struct posted = event(type, path);
    return events_.post(posted);
  }
  /// Reads of the events, each of which looks after what waits.
  template <typename Condition>
  bool tend_until(Condition condition) {
    return eventually([&] {
      events_.tend();
      return condition();
    });
  }
  Held take() {
    int opens_in_a_row = 0;
    return events_.take(0, opens_in_a_row);
  }

  FedFilter filter_;
  eventsForProcessing events_;
};

TEST_F(HeldOpensTest, EachIsAnsweredOnceAndItsDescriptorClosed) {
  struct {
    const char* name;
    std::function<void(Held)> treat;
    std::uint32_t verdict;
    std::uint64_t unscanned;
  } const fates[] = {{"allowed", [](Held held) { held.allow(); }, FAN_ALLOW, 0},
                     {"denied", [](Held held) { held.deny(); }, FAN_DENY, 0},
                     {"dropped", [](Held) {}, FAN_ALLOW, 1},
                     {"answered twice",
                      [](Held held) {
                        held.deny();
                        held.allow();
                        EXPECT_STREQ(held.event().path, "/a") << "which stays";
                      },
                      FAN_DENY, 0},
                     {"moved and answered",
                      [](Held held) {
                        Held other(std::move(held));
                        EXPECT_FALSE(held);  // NOLINT: a moved Held holds nothing
                        held.allow();
                        other.deny();
                      },
                      FAN_DENY, 0},
                     {"moved after its answer",
                      [](Held held) {
                        held.deny();
                        const Held other(std::move(held));
                      },
                      FAN_DENY, 0}};
  for (const auto& [name, treat, verdict, unscanned] : fates) {
    SCOPED_TRACE(name);
    filter_.statistics() = {};
    const std::uint64_t unscanned_before = events_.unscanned();
    ASSERT_EQ(post(), 0);
    Held held = take();
    const int fd = held.event().fd;
    EXPECT_TRUE(is_open(fd));
    treat(std::move(held));
    EXPECT_EQ(filter_.verdict_for(fd), verdict);
    EXPECT_TRUE(filter_.quiet());
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(events_.unscanned() - unscanned_before, unscanned);
    EXPECT_EQ(filter_.statistics().answered, 1U);
    EXPECT_EQ(filter_.statistics().denied, verdict == FAN_DENY ? 1U : 0U);
  }
}

TEST_F(HeldOpensTest, WhatHasNoDescriptorToSpareIsAllowedAtOnce) {
  events_.set_most_held(4);
  EXPECT_EQ(post(), 0);
  EXPECT_EQ(post(), 0);
  (void)CCaching::getCacheManager()->add("/written");
  EXPECT_EQ(post(FSFILTER_CLOSE_WR, "/written"), -1);
  EXPECT_EQ(events_.unscanned(), 1U);
  EXPECT_EQ(filter_.answer()->response, static_cast<unsigned>(FAN_ALLOW));
  EXPECT_FALSE(CCaching::getCacheManager()->lookup("/written")) << "nobody knows what it holds";
  EXPECT_EQ(post(), 0) << "only closes leave half of the room";
  EXPECT_EQ(post(), 0);
  EXPECT_EQ(post(), -1);
  while (events_.held() > 0) {
    (void)take();
  }
}

TEST_F(HeldOpensTest, WhatIsStillQueuedAtTheEndIsClosed) {
  fsfilter_event_struct queued[] = {event(), event(FSFILTER_CLOSE_WR)};
  for (fsfilter_event_struct& each : queued) {
    EXPECT_EQ(events_.post(each), 0);
  }
  events_.drop();
  for (const fsfilter_event_struct& each : queued) {
    EXPECT_FALSE(is_open(each.fd));
  }
}

TEST_F(HeldOpensTest, AnOpenThatWaitsTooLongIsAllowedAndACloseStays) {
  events_.set_hold_limit(10ms);
  (void)post(FSFILTER_CLOSE_WR);
  (void)post();
  EXPECT_TRUE(tend_until([this] { return events_.unscanned() == 1; }));
  EXPECT_EQ(filter_.answer()->response, static_cast<unsigned>(FAN_ALLOW));
  EXPECT_EQ(take().event().type, static_cast<unsigned>(FSFILTER_CLOSE_WR));
}

TEST_F(HeldOpensTest, UntilAWorkerComesTheNextOnesDoNotWaitAgain) {
  events_.set_hold_limit(10ms);
  (void)post();
  EXPECT_TRUE(tend_until([this] { return events_.unscanned() == 1; }));
  events_.set_hold_limit(1h);
  (void)post();
  events_.tend();
  EXPECT_EQ(events_.unscanned(), 2U);
  (void)post(FSFILTER_CLOSE_WR);
  (void)take();
  (void)post();
  events_.tend();
  EXPECT_EQ(events_.held(), 1) << "a worker has come";
  (void)take();
}

TEST_F(HeldOpensTest, WithoutALimitAnOpenWaitsForEver) {
  for (const auto limit : {0ms, -1000ms}) {
    events_.set_hold_limit(limit);
    (void)post();
    // The oldest event's age is what the other net looks at; it must have been looked at since.
    const unsigned turn = events_.update_barrier.turn();
    EXPECT_TRUE(tend_until([&] { return events_.update_barrier.turn() != turn; }));
    EXPECT_EQ(events_.unscanned(), 0U);
    take().allow();
  }
}

TEST_F(HeldOpensTest, AfterASecondAllWorkersAreWoken) {
  std::atomic<int> taken{0};
  std::vector<std::thread> workers;
  std::atomic<bool> go_on{false};
  for (int i = 0; i < 3; ++i) {
    workers.emplace_back([&] {
      Held held = take();
      ++taken;
      EXPECT_TRUE(eventually([&] { return go_on.load(); }));
      held.allow();
    });
  }
  // The one that is woken for the first event is busy with it; nobody wakes the others by posting.
  for (int i = 0; i < 3; ++i) {
    (void)post();
  }
  EXPECT_TRUE(tend_until([&] { return taken == 3; }));
  go_on = true;
  for (std::thread& worker : workers) {
    worker.join();
  }
}

}  // namespace
