#include "mount_table.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include "daemon_config.h"
#include "descriptor.h"
#include "log_records.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

/// Watches nothing, and writes down what it is told: "+/a", "-/a"; a served mount is in brackets.
class RecordingWatcher : public MountWatcher {
 public:
  int watch(const mntpoint& mount, bool served) override {
    calls.push_back(served ? "+[" + mount.name() + "]" : "+" + mount.name());
    if (refused.contains(mount.name())) {
      errno = reason;
      return -1;
    }
    return 0;
  }
  void unwatch(const mntpoint& mount, bool, bool served_now) override {
    calls.push_back(served_now ? "-[" + mount.name() + "]" : "-" + mount.name());
  }

  std::set<std::string> refused;
  int reason = EACCES;
  std::vector<std::string> calls;
};

class MountTableTest : public testing::Test {
 protected:
  MountTableTest() {
    config().LogPath = directory_.path();
    config().Loglevel = 3;
    config().configure_logger();
  }

  static GlobalConfig& config() { return *GlobalConfig::getGlobalConfig(); }

  /// Lets the table follow a mount table of these lines.
  int refresh(const std::string& lines) {
    const Descriptor file(open(directory_.put("mtab", lines).c_str(), O_RDONLY | O_CLOEXEC));
    (void)lseek(file.get(), 0, SEEK_END);  // it begins at the beginning wherever it stands
    return table_.check_mountpts(file.get());
  }

  static std::string line(const std::string& directory, const std::string& type = "ext4") {
    return "device " + directory + " " + type + " rw 0 0\n";
  }

  std::vector<std::string> logged() const { return log_records(directory_.path("pelowatchd.log")); }
  bool has_logged(const std::string& record) const { return count_record(logged(), record) > 0; }

  const TempDirectory directory_;
  RecordingWatcher watcher_;
  MountTable table_{watcher_};
};

TEST_F(MountTableTest, AnAddedMountIsMarkedKnownAndLogged) {
  EXPECT_TRUE(table_.empty());
  EXPECT_EQ(table_.addmnt({"/a", "ext4"}), 0);
  EXPECT_FALSE(table_.empty());
  EXPECT_TRUE(table_.has("/a"));
  EXPECT_FALSE(table_.has("/a/"));
  EXPECT_FALSE(table_.has("/"));
  EXPECT_THAT(watcher_.calls, ElementsAre("+/a"));
  EXPECT_THAT(logged(), ElementsAre("addmnt addmnt(): adding mount point: '/a' type: 'ext4'\n"));
}

TEST_F(MountTableTest, AMountThatTheSettingsExcludeIsLoggedAndSkippedEachTime) {
  config().ExcludeDirectory.push_back("/a");
  config().ExcludeFile.push_back("/b");
  EXPECT_EQ(table_.addmnt({"/b", "ext4"}), 0);
  EXPECT_FALSE(table_.has("/b"));
  (void)refresh(line("/a"));
  (void)refresh(line("/a"));
  EXPECT_THAT(watcher_.calls, IsEmpty());
  EXPECT_TRUE(has_logged("addmnt addmnt(): mount point '/b' excluded by config\n"));
  EXPECT_EQ(count_record(logged(), "addmnt addmnt(): mount point '/a' excluded by config\n"), 2);
}

TEST_F(MountTableTest, ANetworkFileSystemThatTheFilterRefusesIsNoFailure) {
  watcher_.refused.insert("/net");
  watcher_.reason = 0;  // it asks no kernel
  (void)refresh(line("/net", "nfs4"));
  EXPECT_FALSE(table_.has("/net"));
  EXPECT_THAT(table_.take_failures(), IsEmpty());
}

TEST_F(MountTableTest, AMountThatAServedOneCoversIsWatchedAsServedAndNotWalkedTo) {
  (void)refresh(line("/a") + line("/gone") + line("/b"));
  EXPECT_THAT(watcher_.calls, ElementsAre("+/a", "+/gone", "+/b"));
  watcher_.calls.clear();
  (void)refresh(line("/a") + line("/b") + line("/a", "fuse.x"));
  EXPECT_THAT(watcher_.calls, ElementsAre("-/gone", "-[/a]", "+/b", "+[/a]"))
      << "unwatching may take the marks of all others";
  watcher_.calls.clear();
  (void)refresh(line("/a"));
  EXPECT_THAT(watcher_.calls, ElementsAre("-/a", "-/b", "+/a"));
}

TEST_F(MountTableTest, OfSeveralMountsOnAServedDirectoryTheTopOneIsWatched) {
  (void)refresh(line("/a", "autofs") + line("/a", "cifs") + line("/b", "ext4") + line("/b", "nfs"));
  EXPECT_THAT(watcher_.calls, ElementsAre("+[/a]", "+[/b]"));
  EXPECT_TRUE(has_logged("addmnt addmnt(): adding mount point: '/a' type: 'cifs'\n"));
}

TEST_F(MountTableTest, AMountThatCannotBeMarkedAgainIsToldAndTriedAgain) {
  (void)refresh(line("/a") + line("/gone"));
  watcher_.refused.insert("/a");
  (void)refresh(line("/a"));
  EXPECT_FALSE(table_.has("/a"));
  EXPECT_THAT(table_.take_failures(), ElementsAre(testing::HasSubstr("'/a'")));
  watcher_.refused.clear();
  (void)refresh(line("/a"));
  EXPECT_TRUE(table_.has("/a"));
}

TEST_F(MountTableTest, WhatCannotBeWatchedIsToldOnceWithItsReason) {
  watcher_.refused.insert("/a");
  EXPECT_LT(table_.addmnt({"/a", "ext4"}), 0);
  EXPECT_TRUE(table_.empty());
  (void)refresh(line("/a"));
  EXPECT_THAT(table_.take_failures(),
              ElementsAre("mount point '/a' type: 'ext4' is not watched: Permission denied"));
  (void)refresh(line("/a"));
  EXPECT_THAT(table_.take_failures(), IsEmpty()) << "it is tried again and known to fail";
  (void)refresh(line("/b"));
  (void)refresh(line("/a") + line("/b"));
  EXPECT_THAT(table_.take_failures(), ElementsAre(testing::HasSubstr("'/a'"))) << "a new mount";
}

TEST_F(MountTableTest, WhatFailsLaterIsForgottenToldAndLeftAloneForAWhile) {
  table_.failed(mntpoint({"/gone", "fuse.x"}), EACCES);
  EXPECT_THAT(table_.take_failures(), IsEmpty());
  (void)refresh(line("/pool", "fuse.x"));
  table_.failed(mntpoint({"/pool", "fuse.x"}), EACCES);
  EXPECT_FALSE(table_.has("/pool"));
  EXPECT_THAT(table_.take_failures(), ElementsAre(testing::HasSubstr("'/pool' type: 'fuse.x'")));
  (void)refresh(line("/pool", "fuse.x"));
  EXPECT_THAT(watcher_.calls, ElementsAre("+[/pool]"));
  EXPECT_EQ(table_.addmnt({"/pool", "fuse.x"}), 0);
  table_.failed(mntpoint({"/pool", "fuse.x"}), EACCES);
  EXPECT_THAT(table_.take_failures(), IsEmpty()) << "it was told before it was tried again";
  EXPECT_EQ(table_.addmnt({"/pool", "fuse.x"}), 0);
  table_.failed(mntpoint({"/pool", "fuse.x"}), ENODEV);
  EXPECT_THAT(table_.take_failures(), ElementsAre(testing::HasSubstr("No such device")));
  (void)refresh(line("/a"));
  (void)refresh(line("/a") + line("/pool", "fuse.x"));
  EXPECT_TRUE(table_.has("/pool")) << "another mount in the same place";
}

TEST_F(MountTableTest, ANewMountIsDetectedOnce) {
  EXPECT_EQ(refresh(line("/a")), 0);
  EXPECT_EQ(refresh(line("/a")), 0);
  EXPECT_TRUE(table_.has("/a"));
  EXPECT_THAT(logged(), ElementsAre("check_mountpts detect new mount point /a\n",
                                    "addmnt addmnt(): adding mount point: '/a' type: 'ext4'\n"));
}

TEST_F(MountTableTest, RemovedMountsAreForgottenAndEveryOtherIsWatchedAgain) {
  (void)refresh(line("/") + line("/a") + line("/a/b") + line("/c"));
  (void)refresh(line("/") + line("/a") + line("/a/b") + line("/c"));
  EXPECT_EQ(watcher_.calls.size(), 4U) << "nothing has changed";
  watcher_.calls.clear();
  EXPECT_EQ(refresh(line("/") + line("/a")), 0);
  EXPECT_THAT(watcher_.calls, ElementsAre("-/a/b", "-/c", "+/", "+/a"));
  EXPECT_FALSE(table_.has("/c"));
  EXPECT_TRUE(table_.has("/a"));
  EXPECT_TRUE(has_logged("check_mountpts mount point has been removed /a/b\n"));
}

TEST_F(MountTableTest, AnEmptyOrUnreadableTableLeavesTheWatchedMountsAlone) {
  (void)refresh(line("/a") + line("/b"));
  watcher_.calls.clear();
  EXPECT_EQ(refresh(""), 0);
  const Descriptor folder(open(directory_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  (void)table_.check_mountpts(folder.get());  // reading it fails
  (void)table_.check_mountpts(-1);
  EXPECT_TRUE(table_.has("/a"));
  EXPECT_TRUE(table_.has("/b"));
  EXPECT_THAT(watcher_.calls, IsEmpty());
}

TEST_F(MountTableTest, AMountOfAnotherTypeIsForgottenFirstAndWatchedOnTheNextRefresh) {
  (void)refresh(line("/a", "ext4"));
  (void)refresh(line("/a", "xfs"));
  EXPECT_FALSE(table_.has("/a"));
  (void)refresh(line("/a", "xfs"));
  EXPECT_TRUE(table_.has("/a"));
  EXPECT_TRUE(has_logged("addmnt addmnt(): adding mount point: '/a' type: 'xfs'\n"));
}

TEST_F(MountTableTest, AtTheEndEveryMountIsForgotten) {
  (void)refresh(line("/a") + line("/b"));
  table_.forget_all();
  EXPECT_TRUE(table_.empty());
}

TEST_F(MountTableTest, AtStartTheSystemsMountsAreWatched) {
  std::list<mntinfo> entries;
  ASSERT_EQ(read_mountinfo(entries), 0) << "no /etc/mtab on this machine";
  EXPECT_EQ(table_.init(), 0);
  for (const mntinfo& entry : entries) {
    EXPECT_TRUE(table_.has(entry.name)) << entry.name;
  }
  EXPECT_THAT(watcher_.calls, Not(Contains(testing::StartsWith("+/proc"))));
}

}  // namespace
