#include "since.h"

#include <gtest/gtest.h>

#include "wait.h"

namespace {

TEST(SinceTest, KeepsTheMomentOfItsFirstBeginning) {
  Since since;
  EXPECT_FALSE(since.moment().has_value());
  const auto before = Since::Clock::now();
  since.begin();
  const auto begun = since.moment();
  ASSERT_TRUE(begun.has_value());
  EXPECT_GE(*begun, before);
  EXPECT_TRUE(eventually([&] { return Since::Clock::now() > *begun; }));
  since.begin();
  EXPECT_EQ(since.moment(), begun);
}

}  // namespace
