#include "cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(CacheTest, IsOneForTheProcess) {
  EXPECT_EQ(CCaching::getCacheManager(), CCaching::getCacheManager());
}

TEST(CacheTest, BeginsEmptyWithRoomForAThousandPaths) {
  CCaching cache;
  EXPECT_EQ(cache.size(), 0);
  EXPECT_EQ(cache.max(), 1000);
  EXPECT_FALSE(cache.lookup("/a"));
}

TEST(CacheTest, FindsAnAddedPathAndNoOther) {
  CCaching cache;
  EXPECT_TRUE(cache.add("/a"));
  EXPECT_TRUE(cache.lookup("/a"));
  EXPECT_FALSE(cache.lookup("/A"));
  EXPECT_FALSE(cache.lookup("/a/b"));
}

TEST(CacheTest, TakesStringsAndTextsAlike) {
  CCaching cache;
  const std::string path = "/a\n\"b\"\xff";
  EXPECT_TRUE(cache.add(path));
  EXPECT_TRUE(cache.lookup(path.c_str()));
  cache.erase(path.c_str());
  EXPECT_FALSE(cache.lookup(path));
}

TEST(CacheTest, ErasingForgetsThePathAlone) {
  CCaching cache;
  (void)cache.add("/a");
  (void)cache.add("/b");
  cache.erase("/a");
  EXPECT_FALSE(cache.lookup("/a"));
  EXPECT_TRUE(cache.lookup("/b"));
}

TEST(CacheTest, ErasingAPathThatIsNotThereChangesNothing) {
  CCaching cache;
  (void)cache.add("/a");
  cache.erase("/b");
  EXPECT_EQ(cache.size(), 1);
}

TEST(CacheTest, AFullCacheLosesTheLowestPathBeforeTheNewOneComes) {
  CCaching cache;
  cache.set_size(2);
  (void)cache.add("/b");
  (void)cache.add("/c");
  (void)cache.add("/a");
  EXPECT_FALSE(cache.lookup("/b"));
  EXPECT_TRUE(cache.lookup("/a"));
  EXPECT_TRUE(cache.lookup("/c"));
  (void)cache.add("/d");
  EXPECT_FALSE(cache.lookup("/a"));
  EXPECT_TRUE(cache.lookup("/c"));
  EXPECT_TRUE(cache.lookup("/d"));
}

TEST(CacheTest, LowestMeansByteOrder) {
  CCaching cache;
  cache.set_size(3);
  (void)cache.add("/\xc3\xa9");
  (void)cache.add("/a");
  (void)cache.add("/Z");
  (void)cache.add("/b");
  EXPECT_FALSE(cache.lookup("/Z"));
  EXPECT_TRUE(cache.lookup("/\xc3\xa9"));
}

TEST(CacheTest, AddingAPathTwiceKeepsOneEntry) {
  CCaching cache;
  EXPECT_TRUE(cache.add("/a"));
  EXPECT_TRUE(cache.add("/a"));
  EXPECT_EQ(cache.size(), 1);
}

TEST(CacheTest, AddingAPresentPathToAFullCacheStillPushesTheLowestOut) {
  CCaching cache;
  cache.set_size(2);
  (void)cache.add("/a");
  (void)cache.add("/b");
  (void)cache.add("/b");
  EXPECT_FALSE(cache.lookup("/a"));
  EXPECT_TRUE(cache.lookup("/b"));
  EXPECT_EQ(cache.size(), 1);
}

TEST(CacheTest, AThousandPathsFitAndOneMorePushesOneOut) {
  CCaching cache;
  for (int i = 0; i < 1001; ++i) {
    (void)cache.add("/" + std::to_string(10000 + i));
  }
  EXPECT_EQ(cache.size(), 1000);
  EXPECT_FALSE(cache.lookup("/10000"));
  EXPECT_TRUE(cache.lookup("/10001"));
}

TEST(CacheTest, ClearedItFindsNothing) {
  CCaching cache;
  (void)cache.add("/a");
  (void)cache.add("/b");
  cache.clear();
  EXPECT_EQ(cache.size(), 0);
  EXPECT_FALSE(cache.lookup("/a"));
  EXPECT_EQ(cache.max(), 1000);
}

TEST(CacheTest, LoweringTheCapacityDoesNotShrinkItAtOnce) {
  CCaching cache;
  for (const char* path : {"/a", "/b", "/c"}) {
    (void)cache.add(path);
  }
  cache.set_size(1);
  EXPECT_EQ(cache.max(), 1);
  EXPECT_EQ(cache.size(), 3);
  (void)cache.add("/d");  // one out, one in
  EXPECT_EQ(cache.size(), 3);
  EXPECT_FALSE(cache.lookup("/a"));
}

TEST(CacheTest, ACapacityOfZeroOrLessKeepsOnePath) {
  for (int capacity : {0, -1, -2147483647 - 1}) {
    CCaching cache;
    cache.set_size(capacity);
    (void)cache.add("/a");
    EXPECT_EQ(cache.size(), 1) << capacity;
    (void)cache.add("/b");
    EXPECT_EQ(cache.size(), 1) << capacity;
    EXPECT_TRUE(cache.lookup("/b")) << capacity;
  }
}

TEST(CacheTest, ReadersShareTheLock) {
  CCaching cache;
  (void)cache.add("/a");
  ASSERT_TRUE(cache.rdlock());
  bool found = false;
  std::thread reader([&] { found = cache.lookup("/a"); });
  reader.join();
  cache.unlock();
  EXPECT_TRUE(found);
}

TEST(CacheTest, AWriterKeepsOthersOut) {
  CCaching cache;
  ASSERT_TRUE(cache.wrlock());
  std::atomic<bool> added{false};
  std::thread other([&] { added = cache.add("/a"); });
  EXPECT_FALSE(added);
  cache.unlock();
  other.join();
  EXPECT_TRUE(cache.lookup("/a"));
}

TEST(CacheTest, WithoutTheLockAnOperationDoesNothing) {
  CCaching cache;
  (void)cache.add("/a");
  ASSERT_TRUE(cache.wrlock());  // taking it again in the same thread is refused
  EXPECT_FALSE(cache.add("/b"));
  EXPECT_FALSE(cache.lookup("/a"));
  EXPECT_EQ(cache.size(), 0);
  cache.clear();
  cache.erase("/a");
  cache.set_size(5);
  cache.unlock();
  EXPECT_TRUE(cache.lookup("/a"));
  EXPECT_FALSE(cache.lookup("/b"));
  EXPECT_EQ(cache.max(), 1000);
}

TEST(CacheTest, ManyThreadsUseItAtOnce) {
  CCaching cache;
  cache.set_size(50);
  const auto work = [&cache](int number) {
    for (int i = 0; i < 2000; ++i) {
      const std::string path = "/" + std::to_string(number) + "/" + std::to_string(i % 40);
      (void)cache.add(path);
      (void)cache.lookup(path);
      if (i % 7 == 0) {
        cache.erase(path);
      }
      if (i % 500 == 0) {
        cache.clear();
      }
    }
  };
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back(work, number);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_GT(cache.size(), 0);
  EXPECT_LE(cache.size(), 50);
}

TEST(CacheChangesTest, ANotedChangeIsSeenAndLeavesTheEntry) {
  CCaching cache;
  (void)cache.add("/a");
  const unsigned before = cache.changes("/a");
  EXPECT_EQ(cache.changes("/a"), before);
  cache.note_change("/a");
  EXPECT_NE(cache.changes("/a"), before);
  EXPECT_TRUE(cache.lookup("/a"));
}

TEST(CacheChangesTest, AnErasureIsAChangeEvenOfAPathThatIsNotThere) {
  CCaching cache;
  const unsigned before = cache.changes("/a");
  cache.erase("/a");
  EXPECT_NE(cache.changes("/a"), before);
}

TEST(CacheChangesTest, AnAdditionIsNoChange) {
  CCaching cache;
  const unsigned before = cache.changes("/a");
  (void)cache.add("/a");
  EXPECT_EQ(cache.changes("/a"), before);
}

}  // namespace
