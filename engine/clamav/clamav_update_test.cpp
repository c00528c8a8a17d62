// SPDX-License-Identifier: GPL-2.0-only
// Definition updates through the engine's public calls.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vse.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::ElementsAre;

class ClamavUpdate : public ClamavEngine {
 protected:
  /// An update to files of these contents, on a new handle.
  int bring(const std::string& first, const std::string& second,
            unsigned int flags = VSE_INIT_BASE) {
    return update(make_handle(database_, flags),
                  first.empty() ? fs::path() : stage("antivir.def", first),
                  second.empty() ? fs::path() : stage("aivsecon.def", second));
  }

  /// Whether a new handle finds something in a file of this content.
  bool finds(const std::string& content, unsigned int flags = VSE_INIT_BASE) {
    return scan_path(make_handle(database_, flags), file("f", content)) == VSE_SCAN_DETECTED;
  }

  /// Tries an update that must fail, and checks that it leaves no trace.
  void expect_refused(const fs::path& first, const fs::path& second = {}) {
    const auto before = content_of(database_);
    const VSEHANDLE handle = make_handle();
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(update(handle, first, second), VSE_OK) << first << second;
    EXPECT_EQ(content_of(database_), before);
    EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
    EXPECT_EQ(vseRelease(handle), VSE_OK);
    EXPECT_NE(make_handle(), nullptr);
  }
};

TEST_F(ClamavUpdate, UpdateReachesEveryHandleWithItsNextScan) {
  start();
  const fs::path fresh = file("fresh", "a new kind of malware");
  const VSEHANDLE handle = make_handle();
  const VSEHANDLE updating = make_handle();
  EXPECT_EQ(scan_path(handle, fresh), VSE_SCAN_CLEAN);
  const fs::path first = stage("antivir.def", signature("New.One", "a new kind of malware"));
  const fs::path second = stage("aivsecon.def", signature("New.Two", "another kind"));
  EXPECT_EQ(update(updating, first, second), VSE_OK);
  for (const VSEHANDLE each : {handle, updating, make_handle()}) {
    EXPECT_EQ(scan_path(each, fresh), VSE_SCAN_DETECTED);
    EXPECT_EQ(scan_path(each, file("second", "another kind")), VSE_SCAN_DETECTED);
    EXPECT_EQ(scan_path(each, bad_), VSE_SCAN_DETECTED);
  }
  EXPECT_EQ(engines_made - engines_freed, 1);
  EXPECT_THAT(content_of(database_),
              ElementsAre(std::pair{"aivsecon.def", read_file(second)},
                          std::pair{"antivir.def", read_file(first)}, testing::_));
  EXPECT_TRUE(fs::exists(first)) << "the given files stay the caller's";
}

TEST_F(ClamavUpdate, ScanKeepsTheEngineThatItBeganWithAndThatGoesWithIt) {
  start();
  const fs::path fresh = file("fresh", zip_with({{"member", "a new kind of malware"}}));
  const fs::path both =
      file("both", zip_with({{"member", "a new kind of malware"}, {"bad", test_file_content()}}));
  const VSEHANDLE scanning = make_handle();
  const VSEHANDLE updating = make_handle();
  at_next_read = [&] {
    EXPECT_EQ(update(updating, stage("antivir.def", signature("New", "a new kind of malware"))),
              VSE_OK);
    EXPECT_EQ(engines_made - engines_freed, 2);
  };
  EXPECT_EQ(scan_path(scanning, both), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].name, "Test-File");
  EXPECT_EQ(engines_made - engines_freed, 1);
  EXPECT_EQ(scan_path(scanning, fresh), VSE_SCAN_DETECTED);
}

TEST_F(ClamavUpdate, EachFileReplacesItsOwnAndLeavesTheOther) {
  start();
  EXPECT_NE(update(make_handle(), {}, {}), VSE_OK);
  EXPECT_EQ(bring("", signature("One", "second alone")), VSE_OK);
  EXPECT_TRUE(finds("second alone"));
  EXPECT_EQ(bring(signature("One", "old malware"), signature("Two", "second malware")), VSE_OK);
  EXPECT_EQ(bring(yara_rule("New", "first malware"), ""), VSE_OK) << "in another format";
  EXPECT_EQ(bring("", signature("New", "third malware")), VSE_OK);
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(finds("first malware"));
    EXPECT_TRUE(finds("third malware"));
    for (const char* replaced : {"second alone", "old malware", "second malware"}) {
      EXPECT_FALSE(finds(replaced)) << replaced;
    }
    restart();
  }
}

TEST_F(ClamavUpdate, UpdateReachesItsOwnFamilyOnly) {
  start();
  EXPECT_EQ(bring(signature("New", "new malware"), "", kV2), VSE_OK);
  EXPECT_TRUE(fs::exists(database_ / "antivir-v2.def"));
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(finds("new malware", kV2));
    EXPECT_FALSE(finds("new malware"));
    EXPECT_FALSE(finds("new malware", kV2s));
    restart();
  }
}

TEST_F(ClamavUpdate, UpdateTakesInWhatElseIsInTheDirectoryOrIsRefused) {
  start();
  const VSEHANDLE handle = make_handle();
  write_file(database_ / "daily.ndb", signature("Daily", "of today"));
  EXPECT_FALSE(finds("of today"));
  write_file(database_ / "junk.ndb", "no signature\n");
  const fs::path good = stage("antivir.def", signature("New", "content"));
  EXPECT_NE(update(handle, good), VSE_OK);
  EXPECT_FALSE(fs::exists(database_ / "antivir.def"));
  fs::remove(database_ / "junk.ndb");
  EXPECT_EQ(update(handle, good), VSE_OK);
  EXPECT_TRUE(finds("of today"));
}

TEST_F(ClamavUpdate, NeverMoreThanTwoEnginesWhetherHandlesAreRenewedOrNot) {
  start();
  const std::vector<VSEHANDLE> handles{make_handle(), make_handle(), make_handle()};
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(bring(signature("N", "content"), ""), VSE_OK);
    EXPECT_NE(bring("no signature\n", ""), VSE_OK);
    EXPECT_EQ(engines_made - engines_freed, 1);
  }
  EXPECT_EQ(most_engines, 2);
}

TEST_F(ClamavUpdate, BrokenUpdateChangesNothing) {
  start();
  const fs::path good = stage("antivir.def", signature("New", "content"));
  expect_refused(stage("aivsecon.def", "no signature\n"));
  expect_refused(good, stage("aivsecon.def", "no signature\n"));
  expect_refused(good, stage("aivsecon.def", ""));
  expect_refused(good, stage("aivsecon.def", "# nothing but a comment\n"));
  expect_refused(stage("aivsecon.def", "ClamAV-VDB:01 Jan 2024 00-00 +0000:1:1:90:x:y:z:0"));
  expect_refused(good, staging_ / "missing.def");
  EXPECT_EQ(update(make_handle(), good), VSE_OK) << "the good file alone must be fine";
}

TEST_F(ClamavUpdate, UpdateFilesThatOthersControlAreRefused) {
  start();
  const fs::path good = stage("antivir.def", signature("New", "content"));
  fs::create_symlink(good, staging_ / "link.def");
  expect_refused(staging_ / "link.def");
  expect_refused(staging_);
  const fs::path pipe = staging_ / "pipe.def";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  expect_refused(pipe);
  fs::permissions(good, fs::perms(0664));
  expect_refused(good);
  fs::permissions(good, fs::perms(0646));
  expect_refused(good);
  fs::permissions(good, fs::perms(0644));
  ASSERT_EQ(chown(good.c_str(), 1234, 0), 0);
  expect_refused(good);
}

TEST_F(ClamavUpdate, NothingIsCopiedBeforeItWasTried) {
  start();
  const VSEHANDLE handle = make_handle();
  const auto before = content_of(database_);
  auto meanwhile = before;
  at_next_compilation = [&] { meanwhile = content_of(database_); };
  EXPECT_EQ(update(handle, stage("antivir.def", signature("New", "content"))), VSE_OK);
  EXPECT_FALSE(at_next_compilation);
  EXPECT_EQ(meanwhile, before);
}

TEST_F(ClamavUpdate, FileThatChangesWhileItIsTriedIsRefused) {
  start();
  const VSEHANDLE handle = make_handle();
  const auto before = content_of(database_);
  const fs::path changing = stage("antivir.def", signature("New", "content"));
  at_next_compilation = [&] { stage("antivir.def", signature("New", "another")); };
  EXPECT_NE(update(handle, changing), VSE_OK);
  EXPECT_EQ(content_of(database_), before);
}

TEST_F(ClamavUpdate, FileThatIsExchangedWhileItIsTriedIsRefusedOrTakenAsItWas) {
  start();
  const VSEHANDLE handle = make_handle();
  const std::string content = signature("New", "content");
  const fs::path first = stage("antivir.def", content);
  at_next_compilation = [&] {
    fs::remove(first);
    stage("antivir.def", "no signature\n");
  };
  const bool taken = update(handle, first) == VSE_OK;
  const fs::path placed = database_ / "antivir.def";
  EXPECT_EQ(fs::exists(placed), taken);
  EXPECT_EQ(read_file(placed), taken ? content : "");
  EXPECT_NE(make_handle(), nullptr);
}

TEST_F(ClamavUpdate, UpdateThatThereIsNoRoomForChangesNothing) {
  start();
  const fs::path good = stage("aivsecon.def", signature("New", "content"));
  const fs::path large =
      stage("antivir.def", signature("New", "content") + std::string(5000, '#') + "\n");
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit narrow{4096, before.rlim_max};
  ASSERT_NE(signal(SIGXFSZ, SIG_IGN), SIG_ERR);  // so that the write fails
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &narrow), 0);
  expect_refused(large, good);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(update(make_handle(), large, good), VSE_OK);
}

TEST_F(ClamavUpdate, UpdateWhoseCommitFailsIsTakenBack) {
  start();
  EXPECT_EQ(update(make_handle(), stage("antivir.def", signature("Old", "old malware"))), VSE_OK);
  const fs::path first = stage("antivir.def", signature("New", "new malware"));
  const fs::path second = stage("aivsecon.def", signature("New", "more malware"));
  renames_before_failure = 0;
  expect_refused(first, second);
  EXPECT_LT(renames_before_failure, 0) << "no rename failed";
  // Both files, their folder, and after the rename the directory.
  for (int successful = 0; successful < 4; ++successful) {
    syncs_before_failure = successful;
    expect_refused(first, second);
    EXPECT_LT(syncs_before_failure, 0) << "no sync failed";
  }
  EXPECT_EQ(update(make_handle(), first, second), VSE_OK);
}

TEST_F(ClamavUpdate, CommittedUpdateIsInForceAlthoughItsFilesCannotMove) {
  start();
  for (int moved = 0; moved < 2; ++moved) {
    const std::string one = "malware one of round " + std::to_string(moved);
    const std::string other = "malware two of round " + std::to_string(moved);
    renames_before_failure = 1 + moved;
    EXPECT_EQ(bring(signature("New", one), signature("New", other)), VSE_OK);
    EXPECT_LT(renames_before_failure, 0) << "no rename failed";
    EXPECT_TRUE(fs::exists(database_ / ".pelo-update"));
    restart();
    EXPECT_TRUE(finds(one) && finds(other));
    // The next update finds what is left, also when it is refused itself.
    EXPECT_NE(bring("no signature\n", ""), VSE_OK);
    EXPECT_FALSE(fs::exists(database_ / ".pelo-update"));
    restart();
    EXPECT_TRUE(finds(one) && finds(other));
  }
}

TEST_F(ClamavUpdate, LeftoversOfAnInterruptedUpdateDoNoHarm) {
  fs::create_directories(database_ / ".pelo-update-new");
  write_file(database_ / ".pelo-update-new" / "antivir.def", "half a defin");
  start();
  EXPECT_EQ(bring(signature("New", "new malware"), ""), VSE_OK);
  EXPECT_FALSE(fs::exists(database_ / ".pelo-update-new"));
  EXPECT_FALSE(fs::exists(database_ / ".pelo-update"));
  EXPECT_TRUE(finds("new malware"));
}

TEST_F(ClamavUpdate, WhoOwnsTheDirectoryCannotLeadAnUpdateElsewhere) {
  start();
  const fs::path elsewhere = root_ / "elsewhere";
  fs::create_directory(elsewhere);
  write_file(elsewhere / "antivir.def", signature("Else", "of somebody else"));
  write_file(elsewhere / "passwords", "of somebody else");
  const auto before = content_of(elsewhere);
  const VSEHANDLE handle = make_handle();
  const fs::path good = stage("antivir.def", signature("New", "content"));
  for (const char* name : {".pelo-update", ".pelo-update-new"}) {
    fs::create_directory_symlink(elsewhere, database_ / name);
    EXPECT_NE(update(handle, good), VSE_OK) << name;
    EXPECT_EQ(content_of(elsewhere), before) << name;
    fs::remove(database_ / name);
    fs::create_directory(database_ / name);
    ASSERT_EQ(chown((database_ / name).c_str(), 1234, 1234), 0);
    fs::create_symlink(elsewhere / "passwords", database_ / name / "antivir.def");
    EXPECT_NE(update(handle, good), VSE_OK) << name;
    EXPECT_EQ(content_of(elsewhere), before) << name;
    fs::remove_all(database_ / name);
  }
  EXPECT_EQ(update(handle, good), VSE_OK);
}

TEST_F(ClamavUpdate, OneRunsAtATimeAndNobodyElseCanHoldItUp) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path good = stage("antivir.def", signature("New", "content"));
  const fs::path lock = database_ / ".pelo-update-lock";
  ASSERT_EQ(update(handle, good), VSE_OK);
  EXPECT_EQ(fs::status(lock).permissions(), fs::perms(0600));
  const int other = open(lock.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  EXPECT_NE(update(handle, good), VSE_OK) << "another one runs";
  close(other);
  const int directory = open(database_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(directory, LOCK_EX), 0);  // which everybody may do who can read it
  EXPECT_EQ(update(handle, good), VSE_OK);
  close(directory);
  fs::permissions(lock, fs::perms(0644));
  EXPECT_NE(update(handle, good), VSE_OK) << "others could open it";
  fs::permissions(lock, fs::perms(0600));
  ASSERT_EQ(chown(lock.c_str(), 1234, 1234), 0);
  EXPECT_NE(update(handle, good), VSE_OK) << "it is another's";
  ASSERT_EQ(chown(lock.c_str(), 0, 0), 0);
  EXPECT_EQ(update(handle, good), VSE_OK);
}

TEST_F(ClamavUpdate, ScansRunOnWhileDefinitionsAreRenewed) {
  start();
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::atomic<int> scans{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, handle = make_handle()] {
      while (!done) {
        wrong += scan_path(handle, bad_) != VSE_SCAN_DETECTED;
        wrong += scan_path(handle, clean_) != VSE_SCAN_CLEAN;
        ++scans;
      }
    });
  }
  for (int i = 0; i < 10; ++i) {
    const std::string content = "malware number " + std::to_string(i);
    const VSEHANDLE temporary = make_handle();
    EXPECT_EQ(update(temporary, stage("antivir.def", signature("New", content))), VSE_OK);
    EXPECT_EQ(vseRelease(temporary), VSE_OK);
    const VSEHANDLE renewed = make_handle();
    EXPECT_EQ(scan_path(renewed, file("f", content)), VSE_SCAN_DETECTED);
    EXPECT_EQ(vseRelease(renewed), VSE_OK);
  }
  done = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(scans, 0);
}

}  // namespace
}  // namespace engine_test
