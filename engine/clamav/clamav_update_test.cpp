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

#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::ElementsAre;

class ClamavUpdate : public ClamavEngine {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "needs root, since updates take only files of root's";
    }
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

TEST_F(ClamavUpdate, UpdateReachesNewHandlesAndOldOnesKeepWorking) {
  start();
  const fs::path fresh = file("fresh", "a new kind of malware");
  const VSEHANDLE old_handle = make_handle();
  EXPECT_EQ(scan_path(old_handle, fresh), VSE_SCAN_CLEAN);
  const fs::path first = stage("antivir.def", signature("New.One", "a new kind of malware"));
  const fs::path second = stage("aivsecon.def", signature("New.Two", "another kind"));
  EXPECT_EQ(update(old_handle, first, second), VSE_OK);

  const VSEHANDLE new_handle = make_handle();
  ASSERT_NE(new_handle, nullptr);
  EXPECT_EQ(scan_path(new_handle, fresh), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(new_handle, file("second", "another kind")), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(new_handle, bad_), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(old_handle, fresh), VSE_SCAN_CLEAN);
  EXPECT_EQ(scan_path(old_handle, bad_), VSE_SCAN_DETECTED);

  EXPECT_EQ(engines_made - engines_freed, 2);
  EXPECT_EQ(vseRelease(old_handle), VSE_OK);
  EXPECT_EQ(engines_made - engines_freed, 1) << "the old engine goes with its last handle";
  EXPECT_EQ(scan_path(make_handle(), fresh), VSE_SCAN_DETECTED);
  EXPECT_THAT(content_of(database_),
              ElementsAre(std::pair{"aivsecon.def", read_file(second)},
                          std::pair{"antivir.def", read_file(first)}, testing::_));
  EXPECT_TRUE(fs::exists(first)) << "the given files stay the caller's";
}

TEST_F(ClamavUpdate, UpdateWithOnlyTheSecondFileSucceedsAndWithNoneFails) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_NE(update(handle, {}, {}), VSE_OK);
  EXPECT_EQ(update(handle, {}, stage("aivsecon.def", signature("New", "second file"))), VSE_OK);
  EXPECT_EQ(scan_path(make_handle(), file("f", "second file")), VSE_SCAN_DETECTED);
}

TEST_F(ClamavUpdate, UpdateReplacesTheLastOneWhateverTheFormat) {
  start();
  EXPECT_EQ(update(make_handle(), stage("antivir.def", signature("Old", "old malware"))), VSE_OK);
  const VSEHANDLE again = make_handle();
  EXPECT_EQ(update(again, stage("antivir.def", yara_rule("New", "new malware"))), VSE_OK);
  restart();
  const VSEHANDLE fresh = make_handle();
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(scan_path(fresh, file("f", "new malware")), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(fresh, file("f", "old malware")), VSE_SCAN_CLEAN);
}

TEST_F(ClamavUpdate, UpdateOfOneFileLeavesTheOther) {
  start();
  EXPECT_EQ(update(make_handle(), stage("a.def", signature("One", "first malware")),
                   stage("b.def", signature("Two", "second malware"))),
            VSE_OK);
  EXPECT_EQ(update(make_handle(), {}, stage("b.def", signature("New", "third malware"))), VSE_OK);
  for (int round = 0; round < 2; ++round) {
    const VSEHANDLE handle = make_handle();
    EXPECT_EQ(scan_path(handle, file("f", "first malware")), VSE_SCAN_DETECTED);
    EXPECT_EQ(scan_path(handle, file("f", "second malware")), VSE_SCAN_CLEAN);
    EXPECT_EQ(scan_path(handle, file("f", "third malware")), VSE_SCAN_DETECTED);
    restart();
  }
}

TEST_F(ClamavUpdate, UpdateReachesItsOwnFamilyOnly) {
  start();
  const unsigned int v2 = VSE_INIT_BASE | VSE_INIT_FAMILY_V2;
  const unsigned int v2s = VSE_INIT_BASE | VSE_INIT_FAMILY_V2S;
  const fs::path fresh = file("fresh", "new malware");
  EXPECT_EQ(update(make_handle(database_, v2), stage("x.def", signature("New", "new malware"))),
            VSE_OK);
  EXPECT_TRUE(fs::exists(database_ / "antivir-v2.def"));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(scan_path(make_handle(database_, v2), fresh), VSE_SCAN_DETECTED);
    EXPECT_EQ(scan_path(make_handle(database_, VSE_INIT_BASE), fresh), VSE_SCAN_CLEAN);
    EXPECT_EQ(scan_path(make_handle(database_, v2s), fresh), VSE_SCAN_CLEAN);
    restart();
  }
}

TEST_F(ClamavUpdate, UpdateTakesInWhatElseIsNewInTheDirectory) {
  start();
  const VSEHANDLE handle = make_handle();
  write_file(database_ / "daily.ndb", signature("Daily", "of today"));
  EXPECT_EQ(scan_path(make_handle(), file("f", "of today")), VSE_SCAN_CLEAN);
  EXPECT_EQ(update(handle, stage("antivir.def", signature("New", "content"))), VSE_OK);
  EXPECT_EQ(scan_path(make_handle(), file("f", "of today")), VSE_SCAN_DETECTED);
}

TEST_F(ClamavUpdate, UpdateThatDoesNotGoWithTheOtherDatabasesIsRefused) {
  start();
  const VSEHANDLE handle = make_handle();
  write_file(database_ / "junk.ndb", "no signature\n");
  const fs::path good = stage("antivir.def", signature("New", "content"));
  EXPECT_NE(update(handle, good), VSE_OK);
  EXPECT_FALSE(fs::exists(database_ / "antivir.def"));
  fs::remove(database_ / "junk.ndb");
  EXPECT_EQ(update(handle, good), VSE_OK);
}

TEST_F(ClamavUpdate, NeverMoreThanTwoEnginesWhenHandlesAreRenewed) {
  start();
  std::vector<VSEHANDLE> handles;
  for (int round = 0; round < 3; ++round) {
    for (VSEHANDLE& handle : handles) {
      EXPECT_EQ(vseRelease(handle), VSE_OK);
      handle = make_handle();
    }
    handles.resize(5);
    for (VSEHANDLE& handle : handles) {
      handle = handle == nullptr ? make_handle() : handle;
      ASSERT_NE(handle, nullptr);
    }
    EXPECT_EQ(engines_made - engines_freed, 1);
    EXPECT_EQ(update(handles[0], stage("antivir.def", signature("N", "content"))), VSE_OK);
    EXPECT_EQ(most_engines, 2);
    EXPECT_NE(update(handles[0], stage("antivir.def", "no signature\n")), VSE_OK);
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
    EXPECT_EQ(update(make_handle(), stage("antivir.def", signature("New", one)),
                     stage("aivsecon.def", signature("New", other))),
              VSE_OK);
    EXPECT_LT(renames_before_failure, 0) << "no rename failed";
    EXPECT_TRUE(fs::exists(database_ / ".pelo-update"));
    restart();
    const VSEHANDLE handle = make_handle();
    EXPECT_EQ(scan_path(handle, file("f", one)), VSE_SCAN_DETECTED);
    EXPECT_EQ(scan_path(handle, file("f", other)), VSE_SCAN_DETECTED);
    // The next update finds what is left, also when it is refused itself.
    EXPECT_NE(update(handle, stage("antivir.def", "no signature\n")), VSE_OK);
    EXPECT_FALSE(fs::exists(database_ / ".pelo-update"));
    restart();
    EXPECT_EQ(scan_path(make_handle(), file("f", one)), VSE_SCAN_DETECTED);
    EXPECT_EQ(scan_path(make_handle(), file("f", other)), VSE_SCAN_DETECTED);
  }
}

TEST_F(ClamavUpdate, LeftoversOfAnInterruptedUpdateDoNoHarm) {
  fs::create_directories(database_ / ".pelo-update-new");
  write_file(database_ / ".pelo-update-new" / "antivir.def", "half a defin");
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(update(handle, stage("antivir.def", signature("New", "new malware"))), VSE_OK);
  EXPECT_FALSE(fs::exists(database_ / ".pelo-update-new"));
  EXPECT_FALSE(fs::exists(database_ / ".pelo-update"));
  EXPECT_EQ(scan_path(make_handle(), file("f", "new malware")), VSE_SCAN_DETECTED);
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

TEST_F(ClamavUpdate, SecondUpdateAtTheSameTimeIsRefused) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path good = stage("antivir.def", signature("New", "content"));
  ASSERT_EQ(update(handle, good), VSE_OK);
  const int other = open((database_ / ".pelo-update-lock").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  EXPECT_NE(update(handle, good), VSE_OK);
  close(other);
  EXPECT_EQ(update(handle, good), VSE_OK);
}

TEST_F(ClamavUpdate, NobodyElseCanHoldItUp) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path good = stage("antivir.def", signature("New", "content"));
  const int directory = open(database_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(directory, LOCK_EX), 0);  // which everybody may do who can read it
  EXPECT_EQ(update(handle, good), VSE_OK);
  close(directory);
  EXPECT_EQ(fs::status(database_ / ".pelo-update-lock").permissions(), fs::perms(0600));
}

TEST_F(ClamavUpdate, LockOfAnotherUserIsRefused) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path good = stage("antivir.def", signature("New", "content"));
  const fs::path lock = database_ / ".pelo-update-lock";
  write_file(lock, "");
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
