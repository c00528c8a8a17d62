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

TEST_F(PathSetTest, AddingAnExistingPathStoresItsMode) {
  const std::string file = folder_.put("file", "");
  ASSERT_EQ(chmod(file.c_str(), 0640), 0);
  EXPECT_EQ(fsfilter_path_add(&set_, file.c_str()), 0);
  ASSERT_TRUE(set_.contains(file));
  EXPECT_EQ(set_[file].mode, S_IFREG | 0640);
}

TEST_F(PathSetTest, AddingAPathThatDoesNotExistFailsAndLeavesTheSetUnchanged) {
  errno = 0;
  EXPECT_EQ(fsfilter_path_add(&set_, folder_.path("missing").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(set_.empty());
}

TEST_F(PathSetTest, AddingAPathTwiceLeavesOneEntryWithTheCurrentMode) {
  const std::string file = folder_.put("file", "");
  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  EXPECT_EQ(fsfilter_path_add(&set_, file.c_str()), 0);
  ASSERT_EQ(chmod(file.c_str(), 0400), 0);
  EXPECT_EQ(fsfilter_path_add(&set_, file.c_str()), 0);
  EXPECT_EQ(set_.size(), 1U);
  EXPECT_EQ(set_[file].mode, S_IFREG | 0400);
}

TEST_F(PathSetTest, AddingToANullSetFails) {
  EXPECT_EQ(fsfilter_path_add(nullptr, "/"), -1);
}

TEST_F(PathSetTest, AddingANullPathFails) {
  EXPECT_EQ(fsfilter_path_add(&set_, nullptr), -1);
  EXPECT_TRUE(set_.empty());
}

TEST_F(PathSetTest, RemovingErasesThePathAlone) {
  set_ = set_of({"/a", "/b"});
  EXPECT_EQ(fsfilter_path_rm(&set_, "/a"), 0);
  EXPECT_FALSE(set_.contains("/a"));
  EXPECT_TRUE(set_.contains("/b"));
}

TEST_F(PathSetTest, RemovingAPathThatIsNotThereSucceeds) {
  set_ = set_of({"/a"});
  EXPECT_EQ(fsfilter_path_rm(&set_, "/b"), 0);
  EXPECT_EQ(set_.size(), 1U);
}

TEST_F(PathSetTest, RemovingFromANullSetFails) {
  EXPECT_EQ(fsfilter_path_rm(nullptr, "/a"), -1);
}

TEST_F(PathSetTest, InfoOfAMissingPathLeavesTheRecordAlone) {
  pathinfo_t info{42};
  EXPECT_EQ(get_pathinfo(folder_.path("missing").c_str(), &info), -1);
  EXPECT_EQ(info.mode, 42);
}

TEST_F(PathSetTest, InfoFollowsALinkToWhatItNames) {
  ASSERT_EQ(symlink(folder_.path().c_str(), folder_.path("link").c_str()), 0);
  pathinfo_t info;
  EXPECT_EQ(get_pathinfo(folder_.path("link").c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(static_cast<mode_t>(info.mode)));
}

TEST(PathInTest, AnEmptySetCoversNothing) {
  const PathSet set;
  EXPECT_EQ(fsfilter_path_in(&set, "/a"), 0);
}

TEST(PathInTest, NullSetAndNullPathAreNotCovered) {
  const PathSet set = set_of({"/a"});
  EXPECT_EQ(fsfilter_path_in(nullptr, "/a"), 0);
  EXPECT_EQ(fsfilter_path_in(&set, nullptr), 0);
}

TEST(PathInTest, AKeyCoversItself) {
  const PathSet set = set_of({"/data/file.txt"});
  EXPECT_EQ(fsfilter_path_in(&set, "/data/file.txt"), 1);
}

TEST(PathInTest, AKeyCoversWhatLiesUnderItAtAnyDepth) {
  const PathSet set = set_of({"/data"});
  EXPECT_EQ(fsfilter_path_in(&set, "/data/x"), 1);
  EXPECT_EQ(fsfilter_path_in(&set, "/data/x/y/z"), 1);
}

TEST(PathInTest, EveryLeadingDirectoryIsLookedUp) {
  const char* path = "/a/b/c.txt";
  for (const char* key : {"/a", "/a/b", "/a/b/c.txt"}) {
    const PathSet set = set_of({key});
    EXPECT_EQ(fsfilter_path_in(&set, path), 1) << key;
  }
}

TEST(PathInTest, WholeDirectoryNamesAreMatched) {
  const PathSet set = set_of({"/data"});
  EXPECT_EQ(fsfilter_path_in(&set, "/database/x"), 0);
  EXPECT_EQ(fsfilter_path_in(&set, "/dat"), 0);
}

TEST(PathInTest, CaseMatters) {
  const PathSet set = set_of({"/Data"});
  EXPECT_EQ(fsfilter_path_in(&set, "/data/x"), 0);
}

TEST(PathInTest, AKeyWithATrailingSlashCoversOnlyThatText) {
  const PathSet set = set_of({"/a/"});
  EXPECT_EQ(fsfilter_path_in(&set, "/a/"), 1);
  EXPECT_EQ(fsfilter_path_in(&set, "/a/b"), 0);
  EXPECT_EQ(fsfilter_path_in(&set, "/a"), 0);
}

TEST(PathInTest, TheRootCoversOnlyItself) {
  const PathSet set = set_of({"/"});
  EXPECT_EQ(fsfilter_path_in(&set, "/"), 1);
  EXPECT_EQ(fsfilter_path_in(&set, "/a"), 0);
}

TEST(PathInTest, AnEmptyKeyCoversNoAbsolutePath) {
  const PathSet set = set_of({""});
  EXPECT_EQ(fsfilter_path_in(&set, "/a/b"), 0);
  EXPECT_EQ(fsfilter_path_in(&set, ""), 1);
}

TEST(PathInTest, NothingIsNormalised) {
  const PathSet set = set_of({"/a/b"});
  EXPECT_EQ(fsfilter_path_in(&set, "/a//b/c"), 0);
  EXPECT_EQ(fsfilter_path_in(&set, "/a/./b/c"), 0);
}

TEST(PathInTest, DoubledSlashesAreComparedAsWritten) {
  const PathSet set = set_of({"/a/"});
  EXPECT_EQ(fsfilter_path_in(&set, "/a//b"), 1);
}

TEST(PathInTest, NamesMayHoldAnyByte) {
  const PathSet set = set_of({"/a\nb\"\xff"});
  EXPECT_EQ(fsfilter_path_in(&set, "/a\nb\"\xff/c"), 1);
}

}  // namespace
