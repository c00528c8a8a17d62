#include "fsfilter_path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "temp_directory.h"

namespace {

PathSet set_of(std::initializer_list<const char*> paths) {
  PathSet set;
  for (const char* path : paths) {
    set[path] = pathinfo_t{};
  }
  return set;
}

class PathSetTest : public testing::Test {
 protected:
  TempDirectory folder_;
  PathSet set_{10};
};

TEST_F(PathSetTest, APathThatExistsIsAddedOnceWithItsCurrentMode) {
  const std::string file = folder_.put("file", "");
  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  EXPECT_EQ(fsfilter_path_add(&set_, file.c_str()), 0);
  ASSERT_EQ(chmod(file.c_str(), 0400), 0);
  EXPECT_EQ(fsfilter_path_add(&set_, file.c_str()), 0);
  EXPECT_EQ(set_.size(), 1U);
  EXPECT_EQ(set_[file].mode, S_IFREG | 0400);
  errno = 0;
  EXPECT_EQ(fsfilter_path_add(&set_, folder_.path("missing").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(set_.size(), 1U);
}

TEST_F(PathSetTest, InfoIsThatOfWhatALinkNames) {
  pathinfo_t info{42};
  ASSERT_EQ(symlink(folder_.path().c_str(), folder_.path("link").c_str()), 0);
  EXPECT_EQ(get_pathinfo(folder_.path("missing").c_str(), &info), -1);
  EXPECT_EQ(info.mode, 42);
  EXPECT_EQ(get_pathinfo(folder_.path("link").c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(static_cast<mode_t>(info.mode)));
}

TEST_F(PathSetTest, NullsAreRefused) {
  EXPECT_EQ(fsfilter_path_add(nullptr, "/"), -1);
  EXPECT_EQ(fsfilter_path_add(&set_, nullptr), -1);
  EXPECT_TRUE(set_.empty());
  EXPECT_EQ(fsfilter_path_rm(nullptr, "/a"), -1);
  EXPECT_EQ(fsfilter_path_in(nullptr, "/a"), 0);
  EXPECT_EQ(fsfilter_path_in(&set_, nullptr), 0);
}

TEST_F(PathSetTest, RemovingErasesThePathAlone) {
  set_ = set_of({"/a", "/b"});
  EXPECT_EQ(fsfilter_path_rm(&set_, "/a"), 0);
  EXPECT_FALSE(set_.contains("/a"));
  EXPECT_TRUE(set_.contains("/b"));
  EXPECT_EQ(fsfilter_path_rm(&set_, "/a"), 0) << "it is not there";
  EXPECT_EQ(set_.size(), 1U);
}

TEST(PathInTest, AKeyCoversItselfAndWhatLiesUnderItAsWritten) {
  struct {
    std::initializer_list<const char*> keys;
    const char* path;
    int covered;
  } const rows[] = {
      {{}, "/a", 0},
      {{"/data/file.txt"}, "/data/file.txt", 1},
      {{"/data"}, "/data/x", 1},
      {{"/data"}, "/data/x/y/z", 1},
      {{"/a"}, "/a/b/c.txt", 1},  // every leading directory is looked up
      {{"/a/b"}, "/a/b/c.txt", 1},
      {{"/a/b/c.txt"}, "/a/b/c.txt", 1},
      {{"/data"}, "/database/x", 0},  // whole names alone
      {{"/data"}, "/dat", 0},
      {{"/Data"}, "/data/x", 0},
      {{"/a/"}, "/a/", 1},  // a trailing slash stands for itself
      {{"/a/"}, "/a/b", 0},
      {{"/a/"}, "/a", 0},
      {{"/a/"}, "/a//b", 1},
      {{"/"}, "/", 1},
      {{"/"}, "/a", 0},
      {{""}, "/a/b", 0},
      {{""}, "", 1},
      {{"/a/b"}, "/a//b/c", 0},  // nothing is normalised
      {{"/a/b"}, "/a/./b/c", 0},
      {{"/a\nb\"\xff"}, "/a\nb\"\xff/c", 1},
  };
  for (const auto& [keys, path, covered] : rows) {
    const PathSet set = set_of(keys);
    EXPECT_EQ(fsfilter_path_in(&set, path), covered) << path;
  }
}

}  // namespace
