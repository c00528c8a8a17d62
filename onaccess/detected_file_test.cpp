#include "detected_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "emulated.h"
#include "temp_directory.h"

namespace {

namespace fs = std::filesystem;

class DetectedFileTest : public testing::Test {
 protected:
  ~DetectedFileTest() override {
    for (int fd : {detected_, directory_}) {
      if (fd >= 0) {
        (void)close(fd);
      }
    }
  }

  /// The canonical path of a name in the folder, as the kernel would name it.
  std::string path(const std::string& name) const {
    return fs::canonical(folder_.path()).string() + "/" + name;
  }

  /// Makes a file and identifies it through a descriptor, as after a scan.
  FileIdentity detect(const std::string& name) {
    detected_ = open(folder_.put(name, "bad").c_str(), O_RDONLY | O_CLOEXEC);
    return identify(detected_);
  }

  int directory() {
    if (directory_ >= 0) {
      return directory_;
    }
    directory_ = open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return directory_;
  }

  TempDirectory folder_;
  int detected_ = -1;
  int directory_ = -1;
};

TEST_F(DetectedFileTest, IdentityIsDeviceInodeAndLinks) {
  const FileIdentity identity = detect("bad");
  struct stat status {};
  ASSERT_EQ(stat(path("bad").c_str(), &status), 0);
  EXPECT_EQ(identity.device, status.st_dev);
  EXPECT_EQ(identity.inode, status.st_ino);
  EXPECT_EQ(identity.links, 1U);
}

TEST_F(DetectedFileTest, AClosedDescriptorIdentifiesNothing) {
  EXPECT_EQ(identify(-1).links, 0U);
  EXPECT_FALSE(remove_if_same("/", identify(-1)));
}

TEST_F(DetectedFileTest, TheDetectedFileIsRemoved) {
  const FileIdentity identity = detect("bad");
  EXPECT_TRUE(remove_if_same(path("bad").c_str(), identity));
  EXPECT_FALSE(fs::exists(path("bad")));
}

TEST_F(DetectedFileTest, NamesMayHoldAnyByte) {
  const std::string name = "a\n\"b\" %n \xff";
  const FileIdentity identity = detect(name);
  EXPECT_TRUE(remove_if_same(path(name).c_str(), identity));
}

TEST_F(DetectedFileTest, AFileInDeepFoldersIsRemoved) {
  fs::create_directories(folder_.path("a/b/c"));
  const FileIdentity identity = detect("a/b/c/bad");
  EXPECT_TRUE(remove_if_same(path("a/b/c/bad").c_str(), identity));
  EXPECT_TRUE(fs::exists(path("a/b/c")));
}

TEST_F(DetectedFileTest, AnotherFileThatTookTheNameStays) {
  const FileIdentity identity = detect("bad");
  fs::rename(path("bad"), path("moved"));
  folder_.put("bad", "innocent");
  EXPECT_FALSE(remove_if_same(path("bad").c_str(), identity));
  EXPECT_EQ(folder_.read("bad"), "innocent");
  EXPECT_EQ(folder_.read("moved"), "bad");
}

TEST_F(DetectedFileTest, ALinkThatTookTheNameStaysAndSoDoesItsTarget) {
  const FileIdentity identity = detect("bad");
  fs::rename(path("bad"), path("moved"));
  fs::create_symlink(path("moved"), path("bad"));
  EXPECT_FALSE(remove_if_same(path("bad").c_str(), identity));
  EXPECT_TRUE(fs::is_symlink(path("bad")));
  EXPECT_EQ(folder_.read("moved"), "bad");
}

TEST_F(DetectedFileTest, AParentThatBecameALinkIsNotFollowed) {
  fs::create_directory(folder_.path("dir"));
  const FileIdentity identity = detect("dir/bad");
  fs::rename(path("dir"), path("moved"));
  fs::create_symlink(path("moved"), path("dir"));
  EXPECT_FALSE(remove_if_same(path("dir/bad").c_str(), identity));
  EXPECT_TRUE(fs::exists(path("moved/bad")));
}

TEST_F(DetectedFileTest, AnAncestorThatBecameALinkIsNotFollowed) {
  fs::create_directories(folder_.path("top/dir"));
  const FileIdentity identity = detect("top/dir/bad");
  fs::rename(path("top"), path("moved"));
  fs::create_symlink(path("moved"), path("top"));
  EXPECT_FALSE(remove_if_same(path("top/dir/bad").c_str(), identity));
  EXPECT_TRUE(fs::exists(path("moved/dir/bad")));
}

TEST_F(DetectedFileTest, AFolderThatTookTheNameStays) {
  const FileIdentity identity = detect("bad");
  fs::rename(path("bad"), path("moved"));
  fs::create_directory(path("bad"));
  EXPECT_FALSE(remove_if_same(path("bad").c_str(), identity));
  EXPECT_TRUE(fs::is_directory(path("bad")));
}

TEST_F(DetectedFileTest, ADeletedFileCostsNoOther) {
  detected_ = open(folder_.put("bad", "").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_TRUE(fs::remove(path("bad")));
  const FileIdentity identity = identify(detected_);
  EXPECT_EQ(identity.links, 0U);
  folder_.put("bad (deleted)", "innocent");
  EXPECT_FALSE(remove_if_same(path("bad (deleted)").c_str(), identity));
  EXPECT_EQ(folder_.read("bad (deleted)"), "innocent");
}

TEST_F(DetectedFileTest, AnIdentityWithoutLinksRemovesNothingEvenIfTheInodeMatches) {
  FileIdentity identity = detect("bad");
  identity.links = 0;
  EXPECT_FALSE(remove_if_same(path("bad").c_str(), identity));
  EXPECT_TRUE(fs::exists(path("bad")));
}

TEST_F(DetectedFileTest, APathThatHasGoneRemovesNothing) {
  const FileIdentity identity = detect("bad");
  fs::rename(path("bad"), path("moved"));
  EXPECT_FALSE(remove_if_same(path("bad").c_str(), identity));
  EXPECT_FALSE(remove_if_same(path("no/such/bad").c_str(), identity));
  EXPECT_TRUE(fs::exists(path("moved")));
}

TEST_F(DetectedFileTest, APathThatIsNotAbsoluteRemovesNothing) {
  const FileIdentity identity = detect("bad");
  const fs::path before = fs::current_path();
  fs::current_path(folder_.path());
  EXPECT_FALSE(remove_if_same("bad", identity));
  EXPECT_FALSE(remove_if_same("./bad", identity));
  EXPECT_FALSE(remove_if_same("", identity));
  fs::current_path(before);
  EXPECT_TRUE(fs::exists(path("bad")));
}

TEST_F(DetectedFileTest, AFileWithTwoNamesLosesTheOneGiven) {
  const FileIdentity identity = detect("bad");
  fs::create_hard_link(path("bad"), path("other"));
  EXPECT_TRUE(remove_if_same(path("bad").c_str(), identity));
  EXPECT_TRUE(fs::exists(path("other")));
}

TEST_F(DetectedFileTest, ANameInAnOpenDirectoryIsRemovedWhereverThatStandsNow) {
  fs::create_directory(folder_.path("dir"));
  const FileIdentity identity = detect("dir/bad");
  directory_ = open(path("dir").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  fs::rename(path("dir"), path("moved"));
  EXPECT_TRUE(remove_if_same_at(directory_, "bad", identity));
  EXPECT_FALSE(fs::exists(path("moved/bad")));
}

TEST_F(DetectedFileTest, OfALinkInAnOpenDirectoryOnlyTheLinkIsRemoved) {
  const FileIdentity identity = detect("bad");
  fs::create_symlink("bad", path("link"));
  EXPECT_TRUE(remove_if_same_at(directory(), "link", identity));
  EXPECT_FALSE(fs::is_symlink(path("link")));
  EXPECT_TRUE(fs::exists(path("bad")));
}

TEST_F(DetectedFileTest, AnotherFileInAnOpenDirectoryStaysAndSoDoesALinkToIt) {
  const FileIdentity identity = detect("bad");
  folder_.put("innocent", "");
  fs::create_symlink("innocent", path("link"));
  for (const char* name : {"innocent", "link"}) {
    EXPECT_FALSE(remove_if_same_at(directory(), name, identity)) << name;
    EXPECT_TRUE(fs::exists(path(name))) << name;
  }
}

TEST_F(DetectedFileTest, NoDescriptorStaysOpen) {
  const FileIdentity identity = detect("bad");
  const int before = dup(detected_);
  EXPECT_FALSE(remove_if_same(path("no/such/bad").c_str(), identity));
  EXPECT_TRUE(remove_if_same(path("bad").c_str(), identity));
  const int after = dup(detected_);
  EXPECT_EQ(after, before + 1);
  (void)close(before);
  (void)close(after);
}

constexpr int kSwaps = PELO_EMULATED ? 100 : 3000;

// An attacker keeps exchanging the folder that holds the detected file with a link to one that
// holds an innocent file of the same name.
TEST_F(DetectedFileTest, ThousandsOfSwapsOfTheParentCostNoInnocentFile) {
  fs::create_directory(folder_.path("dir"));
  fs::create_directory(folder_.path("innocent"));
  folder_.put("innocent/file", "innocent");
  fs::create_symlink(path("innocent"), path("link"));
  std::atomic<bool> stop{false};
  std::thread attacker([&] {
    while (!stop) {
      (void)renameat2(AT_FDCWD, path("dir").c_str(), AT_FDCWD, path("link").c_str(),
                      RENAME_EXCHANGE);
    }
  });
  int removed = 0;
  const int home = open(path("").c_str(), O_PATH | O_CLOEXEC);
  for (int round = 0; round < kSwaps; ++round) {
    // Wherever the real folder stands now, put the detected file into it.
    int fd = -1;
    while (fd < 0) {
      for (const char* name : {"dir", "link"}) {
        const int real = openat(home, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (real >= 0) {
          fd = openat(real, "file", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
          (void)close(real);
          break;
        }
      }
    }
    removed += remove_if_same(path("dir/file").c_str(), identify(fd)) ? 1 : 0;
    (void)close(fd);
    ASSERT_TRUE(fs::exists(path("innocent/file"))) << "in round " << round;
  }
  stop = true;
  attacker.join();
  (void)close(home);
  EXPECT_GT(removed, 0);
}

// The same with the file itself: the name is exchanged with an innocent file.
// labels: essential
TEST_F(DetectedFileTest, ThousandsOfSwapsOfTheNameBeforeTheComparisonCostNoInnocentFile) {
  folder_.put("innocent", "innocent");
  const FileIdentity innocent = [&] {
    const int fd = open(path("innocent").c_str(), O_RDONLY | O_CLOEXEC);
    const FileIdentity identity = identify(fd);
    (void)close(fd);
    return identity;
  }();
  for (int round = 0; round < kSwaps; ++round) {
    const FileIdentity identity = detect("bad");
    ASSERT_NE(identity.inode, innocent.inode);
    ASSERT_EQ(renameat2(AT_FDCWD, path("bad").c_str(), AT_FDCWD, path("innocent").c_str(),
                        RENAME_EXCHANGE),
              0);
    EXPECT_FALSE(remove_if_same(path("bad").c_str(), identity));
    EXPECT_TRUE(remove_if_same(path("innocent").c_str(), identity));
    ASSERT_EQ(folder_.read("bad"), "innocent");
    fs::rename(path("bad"), path("innocent"));
    (void)close(detected_);
    detected_ = -1;
  }
}

}  // namespace
