#include "nearest_key.h"

#include <gtest/gtest.h>

#include <string>

#include "daemon_config.h"
#include "record_check.h"

namespace {

TEST(EditDistance, CountsWhatMakesOneWordOfTheOther) {
  EXPECT_EQ(edit_distance("", ""), 0U);
  EXPECT_EQ(edit_distance("abc", ""), 3U);
  EXPECT_EQ(edit_distance("", "abc"), 3U);
  EXPECT_EQ(edit_distance("abc", "aBC"), 0U);
  EXPECT_EQ(edit_distance("abc", "abxc"), 1U);
  EXPECT_EQ(edit_distance("abc", "ac"), 1U);
  EXPECT_EQ(edit_distance("abc", "axc"), 1U);
  EXPECT_EQ(edit_distance("abc", "acb"), 1U);
  EXPECT_EQ(edit_distance("kitten", "sitting"), 3U);
  EXPECT_EQ(edit_distance("ca", "abc"), 3U);
}

TEST(EditDistance, LooksAtABeginningOfLongWords) {
  EXPECT_EQ(edit_distance(std::string(1000000, 'a'), std::string(1000000, 'b')), 64U);
}

TEST(NearestKey, IsTheOneThatWasProbablyMeant) {
  const KeyNames keys = key_names<GlobalConfig>();
  const std::pair<const char*, const char*> cases[] = {{"maxthreads", "MaxThreads"},
                                                       {"MaxThread", "MaxThreads"},
                                                       {"LogLevel", "Loglevel"},
                                                       {"MaxLog", "Maxlog"},
                                                       {"IncludeDir", "IncludeDirectory"},
                                                       {"ExcludeFiles", "ExcludeFile"},
                                                       {"Include", "IncludeDirectory"},
                                                       {"MaxThreads:", "MaxThreads"},
                                                       {"DataBaseDir", "DatabaseDirectory"},
                                                       {"Threads", "MaxThreads"}};
  for (const auto& [word, key] : cases) {
    EXPECT_EQ(nearest_key(word, keys), key);
  }
}

TEST(NearestKey, IsNoneForOtherWords) {
  const KeyNames keys = key_names<GlobalConfig>();
  for (const std::string word : {"", "x", "Max", "Colour", "[pelowatchd]", "=", "scan"}) {
    EXPECT_EQ(nearest_key(word, keys), "") << word;
  }
  EXPECT_EQ(nearest_key("MaxThreads" + std::string(100, 'x'), keys), "");
}

}  // namespace
