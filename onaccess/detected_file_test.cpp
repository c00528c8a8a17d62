#include "detected_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "descriptor.h"
#include "emulated.h"
#include "temp_directory.h"

namespace {

namespace fs = std::filesystem;

class DetectedFileTest : public testing::Test {
 protected:
  /// The canonical path of a name in the folder, as the kernel would name it.
  std::string path(const std::string& name) const {
    return fs::canonical(folder_.path()).string() + "/" + name;
  }

  /// Makes a file and identifies it through a descriptor, as after a scan.
  FileIdentity detect(const std::string& name) {
    fs::create_directories(fs::path(folder_.path(name)).parent_path());
    detected_.reset(open(folder_.put(name, "bad").c_str(), O_RDONLY | O_CLOEXEC));
    return identify(detected_.get());
  }

  Descriptor directory(const std::string& name) const {
    return Descriptor(open(path(name).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }

  TempDirectory folder_;
  Descriptor detected_;
};

TEST_F(DetectedFileTest, IdentityIsDeviceInodeAndLinks) {
  const FileIdentity identity = detect("bad");
  struct stat status {};
  ASSERT_EQ(stat(path("bad").c_str(), &status), 0);
  EXPECT_EQ(identity.device, status.st_dev);
  EXPECT_EQ(identity.inode, status.st_ino);
  EXPECT_EQ(identity.links, 1U);
}

TEST_F(DetectedFileTest, TheDetectedFileIsRemoved) {
  for (const char* name : {"bad", "a\n\"b\" %n \xff", "a/b/c/bad"}) {
    const FileIdentity identity = detect(name);
    EXPECT_TRUE(remove_if_same(path(name).c_str(), identity)) << name;
    EXPECT_FALSE(fs::exists(path(name))) << name;
  }
  EXPECT_TRUE(fs::exists(path("a/b/c")));
}

// labels: essential
TEST_F(DetectedFileTest, AReplacedFileStaysAndSoDoesWhatTookItsPlaceOrThatOfAFolderAboveIt) {
  enum Replacement { nothing, file, folder, link_to_moved };
  struct {
    const char* name;
    const char* detected;
    const char* moved;  ///< what goes to "moved" after the detection
    Replacement by;
  } const cases[] = {{"nothing", "bad", "bad", nothing},
                     {"another file", "bad", "bad", file},
                     {"a folder", "bad", "bad", folder},
                     {"a link", "bad", "bad", link_to_moved},
                     {"no folder", "dir/bad", "dir", nothing},
                     {"a link for the folder", "dir/bad", "dir", link_to_moved},
                     {"a link above the folder", "top/dir/bad", "top", link_to_moved}};
  for (const auto& [name, detected, moved, by] : cases) {
    SCOPED_TRACE(name);
    const FileIdentity identity = detect(detected);
    const fs::path place = path(moved);
    fs::rename(place, path("moved"));
    if (by == file) {
      folder_.put(moved, "innocent");
    } else if (by == folder) {
      fs::create_directory(place);
    } else if (by == link_to_moved) {
      fs::create_symlink(path("moved"), place);
    }
    const fs::file_type before = fs::symlink_status(place).type();
    EXPECT_FALSE(remove_if_same(path(detected).c_str(), identity));
    EXPECT_EQ(fs::symlink_status(place).type(), before);
    EXPECT_EQ(identify(detected_.get()).links, 1U);
    fs::remove_all(place);
    fs::remove_all(path("moved"));
  }
}

TEST_F(DetectedFileTest, ADeletedFileCostsNoOther) {
  (void)detect("bad");
  ASSERT_TRUE(fs::remove(path("bad")));
  const FileIdentity identity = identify(detected_.get());
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
  EXPECT_EQ(identify(-1).links, 0U);
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
  const FileIdentity identity = detect("dir/bad");
  const Descriptor opened = directory("dir");
  fs::rename(path("dir"), path("moved"));
  EXPECT_TRUE(remove_if_same_at(opened.get(), "bad", identity));
  EXPECT_FALSE(fs::exists(path("moved/bad")));
}

TEST_F(DetectedFileTest, OfALinkInAnOpenDirectoryOnlyTheLinkIsRemoved) {
  const FileIdentity identity = detect("bad");
  fs::create_symlink("bad", path("link"));
  EXPECT_TRUE(remove_if_same_at(directory("").get(), "link", identity));
  EXPECT_FALSE(fs::is_symlink(path("link")));
  EXPECT_TRUE(fs::exists(path("bad")));
}

TEST_F(DetectedFileTest, AnotherFileInAnOpenDirectoryStaysAndSoDoesALinkToIt) {
  const FileIdentity identity = detect("bad");
  folder_.put("innocent", "");
  fs::create_symlink("innocent", path("link"));
  for (const char* name : {"innocent", "link"}) {
    EXPECT_FALSE(remove_if_same_at(directory("").get(), name, identity)) << name;
    EXPECT_TRUE(fs::exists(path(name))) << name;
  }
}

TEST_F(DetectedFileTest, NoDescriptorStaysOpen) {
  const FileIdentity identity = detect("bad");
  const Descriptor before(dup(detected_.get()));
  EXPECT_FALSE(remove_if_same(path("no/such/bad").c_str(), identity));
  EXPECT_TRUE(remove_if_same(path("bad").c_str(), identity));
  const Descriptor after(dup(detected_.get()));
  EXPECT_EQ(after.get(), before.get() + 1);
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
  const Descriptor home = directory("");
  for (int round = 0; round < kSwaps; ++round) {
    // Wherever the real folder stands now, put the detected file into it.
    Descriptor file;
    for (const char* name = "dir"; !file; name = name[0] == 'd' ? "link" : "dir") {
      const Descriptor real(
          openat(home.get(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      file.reset(openat(real.get(), "file", O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    }
    removed += remove_if_same(path("dir/file").c_str(), identify(file.get())) ? 1 : 0;
    ASSERT_TRUE(fs::exists(path("innocent/file"))) << "in round " << round;
  }
  stop = true;
  attacker.join();
  EXPECT_GT(removed, 0);
}

}  // namespace
