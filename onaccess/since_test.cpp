#include "since.h"

#include <gtest/gtest.h>

#include "wait.h"

namespace {

using std::chrono::nanoseconds;

constexpr std::chrono::milliseconds moment{1};

TEST(SinceTest, HasNoAgeBeforeItBegins) {
  const Since since;
  EXPECT_EQ(since.age(), nanoseconds(0));
}

TEST(SinceTest, GrowsOldOnceItHasBegun) {
  Since since;
  since.begin();
  EXPECT_TRUE(eventually([&] { return since.age() > moment; }));
}

TEST(SinceTest, HasNoAgeAfterItsEnd) {
  Since since;
  since.begin();
  since.end();
  EXPECT_EQ(since.age(), nanoseconds(0));
}

TEST(SinceTest, BeginsAgainButNotIfItIsToBeginOnce) {
  Since since;
  since.begin_once();
  EXPECT_TRUE(eventually([&] { return since.age() > 50 * moment; }));
  since.begin_once();
  EXPECT_GT(since.age(), 50 * moment);
  since.begin();
  EXPECT_LT(since.age(), 50 * moment);
}

}  // namespace
