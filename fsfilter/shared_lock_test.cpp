#include "shared_lock.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "child_process.h"
#include "status_area_fixture.h"

namespace {

using std::chrono::steady_clock;

/// Many times the 100 ms that the lock may cost, so that a busy machine does not fail the tests.
constexpr std::chrono::seconds lock_cost_bound{5};

/// The lock's bytes, while others may use it.
std::vector<std::uint32_t> lock_words(fsfilter_shared_t area) {
  auto* words = reinterpret_cast<std::uint32_t*>(&area->lock);
  std::vector<std::uint32_t> copy;
  for (std::size_t i = 0; i < sizeof area->lock / sizeof *words; ++i) {
    copy.push_back(std::atomic_ref(words[i]).load(std::memory_order_relaxed));
  }
  return copy;
}

using SharedLockTest = StatusAreaTest;

TEST_F(SharedLockTest, ADeadHolderOfTheLockIsWaitedForOnceInAWhileAndNotWithoutABound) {
  const fsfilter_shared_t area = create();
  ChildProcess holder(
      [&] { return area->lock.try_lock_for(std::chrono::milliseconds(0)) ? 0 : 1; });
  ASSERT_EQ(holder.wait(), 0);
  const std::vector<std::uint32_t> held = lock_words(area);
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  EXPECT_EQ(lock_words(area), held) << "it waited for the lock, for a pid in no slot";
  area->trusted_pids[0] = 1000;
  area->slot_mask = 1;
  const auto begin = steady_clock::now();
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), -1);
  EXPECT_EQ(fsfilter_shared_rm_trusted(area, 1000), -1);
  EXPECT_LT(steady_clock::now() - begin, lock_cost_bound);
  EXPECT_EQ(area->trusted_pids[0], 1000);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  }
  EXPECT_LT(steady_clock::now() - begin, 2 * lock_cost_bound) << "what 100 waits take";
  area->lock.unlock();
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 1) << "a free lock is still taken";
}

// A mutex of the C library's says in its fourth word what kind it is.
TEST_F(SharedLockTest, WhateverStandsInItNobodyDies) {
  const fsfilter_shared_t area = create();
  ChildProcess user([&] {
    auto* words = reinterpret_cast<std::uint32_t*>(&area->lock);
    for (std::uint32_t kind = 0; kind < 256; ++kind) {
      for (const std::uint32_t state : {0U, 1U, 2U, 0x3fffffffU, 0x80000000U, 0xffffffffU}) {
        std::fill_n(words, sizeof area->lock / sizeof *words, state);
        words[3] = kind;
        if (area->lock.try_lock_for(std::chrono::milliseconds(0))) {
          area->lock.unlock();
        }
      }
    }
    return 0;
  });
  EXPECT_EQ(user.wait(), 0);
}

TEST_F(SharedLockTest, ALockThatSomebodyKeepsWritingToIsNotWaitedForWithoutABound) {
  const fsfilter_shared_t area = create();
  (void)fsfilter_shared_add_trusted(area, 1000);
  ChildProcess scribbler([&] {
    auto* word = reinterpret_cast<std::uint32_t*>(&area->lock);
    for (;;) {
      std::atomic_ref(*word).store(1, std::memory_order_relaxed);
    }
    return 0;
  });
  auto* word = reinterpret_cast<std::uint32_t*>(&area->lock);
  ASSERT_TRUE(eventually([&] { return std::atomic_ref(*word).load() != 0; }));
  const auto begin = steady_clock::now();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(fsfilter_is_trusted(area, 1000), 0);
  }
  EXPECT_LT(steady_clock::now() - begin, 2 * lock_cost_bound);
}

// For as long as it takes them to meet often, which processes on a busy machine seldom do.
TEST_F(SharedLockTest, TheLockKeepsProcessesApartAndIsTakenWhenItIsGivenBack) {
  const fsfilter_shared_t area = create();
  auto* words = reinterpret_cast<std::int32_t*>(area->statistics.jobs);
  volatile std::int32_t* counter = words;
  const auto count = [&](std::int32_t& counted) {
    for (std::atomic_ref met(words[1]); met < 200; ++counted) {
      if (!area->lock.try_lock_for(std::chrono::milliseconds(0))) {
        ++met;
        EXPECT_TRUE(area->lock.try_lock_for(generous_bound));
      }
      *counter = *counter + 1;
      area->lock.unlock();
    }
    return 0;
  };
  ChildProcess other([&] { return count(words[2]); });
  EXPECT_EQ(count(words[3]), 0);
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(*counter, words[2] + words[3]);
}

// What other programs know on a 32-bit machine: the platform's own mutex, in the lock's place.
#if !defined(__LP64__)

/// The lock as a program sees it that shares nothing with this library but the layout.
pthread_mutex_t* foreign_mutex(fsfilter_shared_t area) {
  static_assert(sizeof(pthread_mutex_t) == 24);
  return reinterpret_cast<pthread_mutex_t*>(reinterpret_cast<char*>(area) + 44);
}

TEST_F(SharedLockTest, AnotherProgramTrustsAPidUnderThePlatformsMutex) {
  const fsfilter_shared_t area = create();
  ASSERT_EQ(fsfilter_shared_add_trusted(area, 1000), 0);
  Gate held;
  Gate give_back;
  ChildProcess other([&] {
    if (pthread_mutex_lock(foreign_mutex(area)) != 0) {
      return 1;
    }
    area->trusted_pids[1] = 2000;
    area->slot_mask |= 1U << 1;
    held.open();
    give_back.wait();
    return pthread_mutex_unlock(foreign_mutex(area));
  });
  held.wait();
  EXPECT_EQ(fsfilter_is_trusted(area, 2000), 0) << "the other one holds the lock";
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), -1);
  give_back.open();
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(fsfilter_is_trusted(area, 2000), 1);
  EXPECT_EQ(fsfilter_is_trusted(area, 1000), 1);
  EXPECT_EQ(fsfilter_shared_add_trusted(area, 1001), 2);
}

TEST_F(SharedLockTest, AnotherProgramWaitsAtThePlatformsMutexForTheOwner) {
  const fsfilter_shared_t area = create();
  ASSERT_TRUE(area->lock.try_lock_for(std::chrono::milliseconds(0)));
  const std::vector<std::uint32_t> uncontended = lock_words(area);
  ChildProcess other([&] {
    const bool held = pthread_mutex_trylock(foreign_mutex(area)) == EBUSY;
    return held && pthread_mutex_lock(foreign_mutex(area)) == 0 ? 0 : 1;
  });
  EXPECT_TRUE(eventually([&] { return lock_words(area) != uncontended; }));
  area->lock.unlock();
  EXPECT_EQ(other.wait(), 0);
}

#endif

}  // namespace
