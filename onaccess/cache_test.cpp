#include "cache.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

TEST(CacheTest, FindsAndErasesAPathAloneAsAStringOrAText) {
  CCaching cache;
  const std::string path = "/a\n\"b\"\xff";
  EXPECT_FALSE(cache.lookup(path));
  EXPECT_TRUE(cache.add(path));
  EXPECT_TRUE(cache.add("/b"));
  EXPECT_TRUE(cache.lookup(path.c_str()));
  EXPECT_FALSE(cache.lookup("/A\n\"b\"\xff"));
  EXPECT_FALSE(cache.lookup(path + "/b"));
  cache.erase(path.c_str());
  cache.erase("/c");
  EXPECT_FALSE(cache.lookup(path));
  EXPECT_TRUE(cache.lookup("/b"));
}

TEST(CacheTest, AFullCacheLosesTheLowestPathBeforeTheNewOneComes) {
  struct {
    int capacity;
    std::vector<const char*> added;
    std::vector<const char*> kept;
  } const cases[] = {
      {2, {"/b", "/c", "/a"}, {"/a", "/c"}},
      {2, {"/b", "/c", "/a", "/d"}, {"/c", "/d"}},
      {3, {"/\xc3\xa9", "/a", "/Z", "/b"}, {"/\xc3\xa9", "/a", "/b"}},  // byte order
      {2, {"/a", "/a"}, {"/a"}},
      {2, {"/a", "/b", "/b"}, {"/b"}},  // even if the path is present
      {0, {"/b", "/a"}, {"/a"}},
      {-1, {"/a", "/b"}, {"/b"}},
      {-2147483647 - 1, {"/a", "/b"}, {"/b"}},
  };
  for (const auto& [capacity, added, kept] : cases) {
    SCOPED_TRACE(testing::PrintToString(capacity) + testing::PrintToString(added));
    CCaching cache;
    cache.set_size(capacity);
    for (const char* path : added) {
      EXPECT_TRUE(cache.add(path));
    }
    EXPECT_EQ(cache.size(), static_cast<int>(kept.size()));
    for (const char* path : kept) {
      EXPECT_TRUE(cache.lookup(path)) << path;
    }
  }
}

TEST(CacheTest, AThousandPathsFitAndOneMorePushesOneOut) {
  CCaching cache;
  EXPECT_EQ(cache.size(), 0);
  EXPECT_EQ(cache.max(), 1000);
  for (int i = 0; i < 1001; ++i) {
    (void)cache.add("/" + std::to_string(10000 + i));
  }
  EXPECT_EQ(cache.size(), 1000);
  EXPECT_FALSE(cache.lookup("/10000"));
  EXPECT_TRUE(cache.lookup("/10001"));
  cache.clear();
  EXPECT_EQ(cache.size(), 0);
  EXPECT_FALSE(cache.lookup("/10001"));
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

TEST(CacheTest, ReadersShareTheLock) {
  CCaching cache;
  (void)cache.add("/a");
  ASSERT_TRUE(cache.rdlock());
  bool found = false;
  std::thread([&] { found = cache.lookup("/a"); }).join();
  cache.unlock();
  EXPECT_TRUE(found);
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

TEST(CacheChangesTest, OfAPathAreCounted) {
  CCaching cache;
  const unsigned before = cache.changes("/a");
  (void)cache.add("/a");
  EXPECT_EQ(cache.changes("/a"), before) << "an addition is none";
  cache.note_change("/a");
  EXPECT_EQ(cache.changes("/a"), before + 1);
  EXPECT_TRUE(cache.lookup("/a"));
  cache.erase("/a");
  cache.erase("/a");
  EXPECT_EQ(cache.changes("/a"), before + 3) << "an erasure is one, even of what is not there";
}

}  // namespace
