// SPDX-License-Identifier: GPL-2.0-only
// Definition updates through the engine's public calls.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

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
    EXPECT_NE(update(handle_, first, second), VSE_OK) << first << second;
    EXPECT_EQ(content_of(database_), before);
    EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED);
    EXPECT_NE(make_handle(), nullptr);
  }

  /// Good definitions, which find "content", in the staging directory.
  fs::path good() { return stage("antivir.def", signature("New", "content")); }
};

TEST_F(ClamavUpdate, UpdateReachesEveryHandleWithItsNextScan) {
  const VSEHANDLE updating = make_handle();
  const fs::path first = stage("antivir.def", signature("New.One", "a new kind of malware"));
  const fs::path second = stage("aivsecon.def", signature("New.Two", "another kind"));
  EXPECT_EQ(update(updating, first, second), VSE_OK);
  for (const VSEHANDLE each : {handle_, updating, make_handle()}) {
    for (const std::string& content : {std::string("a new kind of malware"),
                                       std::string("another kind"), standard_test_file()}) {
      EXPECT_EQ(scan_path(each, file("f", content)), VSE_SCAN_DETECTED) << content;
    }
  }
  EXPECT_EQ(engines_made - engines_freed, 1);
  EXPECT_THAT(content_of(database_),
              ElementsAre(std::pair{"aivsecon.def", read_file(second)},
                          std::pair{"antivir.def", read_file(first)}, testing::_));
  EXPECT_TRUE(fs::exists(first)) << "the given files stay the caller's";
}

TEST_F(ClamavUpdate, ScanKeepsTheEngineThatItBeganWithAndThatGoesWithIt) {
  const std::string both = zip_with({{"member", "content"}, {"bad", standard_test_file()}});
  const VSEHANDLE updating = make_handle();
  at_next_read = [&] {
    EXPECT_EQ(update(updating, good()), VSE_OK);
    EXPECT_EQ(engines_made - engines_freed, 2);
  };
  EXPECT_EQ(scan(both), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().name, "Test-File");
  EXPECT_EQ(engines_made - engines_freed, 1);
  EXPECT_EQ(scan(both), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().name, "New");
}

TEST_F(ClamavUpdate, EachFileReplacesItsOwnAndLeavesTheOtherAndOtherFamilies) {
  EXPECT_NE(update(handle_, {}, {}), VSE_OK);
  EXPECT_EQ(bring("", signature("One", "second alone")), VSE_OK);
  EXPECT_TRUE(finds("second alone"));
  EXPECT_EQ(bring(signature("One", "old malware"), signature("Two", "second malware")), VSE_OK);
  EXPECT_EQ(bring(yara_rule("New", "first malware"), ""), VSE_OK) << "in another format";
  EXPECT_EQ(bring("", signature("New", "third malware")), VSE_OK);
  EXPECT_EQ(bring(signature("New", "of a family"), "", v2), VSE_OK);
  for (int round = 0; round < 2; ++round) {
    EXPECT_TRUE(finds("first malware"));
    EXPECT_TRUE(finds("third malware"));
    EXPECT_TRUE(finds("of a family", v2));
    EXPECT_FALSE(finds("of a family") || finds("of a family", v2s) || finds("first malware", v2));
    for (const char* replaced : {"second alone", "old malware", "second malware"}) {
      EXPECT_FALSE(finds(replaced)) << replaced;
    }
    start();
  }
}

TEST_F(ClamavUpdate, UpdateTakesInWhatElseIsInTheDirectoryOrIsRefused) {
  write_file(database_ / "daily.ndb", signature("Daily", "of today"));
  EXPECT_FALSE(finds("of today"));
  write_file(database_ / "junk.ndb", "no signature\n");
  EXPECT_NE(update(handle_, good()), VSE_OK);
  EXPECT_FALSE(fs::exists(database_ / "antivir.def"));
  fs::remove(database_ / "junk.ndb");
  EXPECT_EQ(update(handle_, good()), VSE_OK);
  EXPECT_TRUE(finds("of today"));
}

TEST_F(ClamavUpdate, IsTriedInASecondEngineBeforeAnythingIsCopied) {
  const std::vector<VSEHANDLE> handles{make_handle(), make_handle(), make_handle()};
  for (const char* content : {"first malware", "second malware", "third malware"}) {
    at_next_compilation = [this, before = content_of(database_)] {
      EXPECT_EQ(engines_made - engines_freed, 2);
      EXPECT_EQ(content_of(database_), before);
    };
    EXPECT_EQ(bring(signature("New", content), ""), VSE_OK);
    EXPECT_FALSE(at_next_compilation);
    EXPECT_NE(bring("no signature\n", ""), VSE_OK);
    EXPECT_EQ(engines_made - engines_freed, 1);
  }
}

TEST_F(ClamavUpdate, BrokenUpdateChangesNothing) {
  const fs::path first = good();
  for (const char* broken : {"no signature\n", "", "# nothing but a comment\n",
                             "ClamAV-VDB:01 Jan 2024 00-00 +0000:1:1:90:x:y:z:0"}) {
    expect_refused(first, stage("aivsecon.def", broken));
    expect_refused({}, stage("aivsecon.def", broken));
  }
  expect_refused(first, staging_ / "missing.def");
  EXPECT_EQ(update(handle_, first), VSE_OK) << "the good file alone must be fine";
}

TEST_F(ClamavUpdate, UpdateFilesThatOthersControlAreRefused) {
  const fs::path first = good();
  fs::create_symlink(first, staging_ / "link.def");
  expect_refused(staging_ / "link.def");
  expect_refused(staging_);
  const fs::path pipe = staging_ / "pipe.def";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  expect_refused(pipe);
  for (const unsigned mode : {0664U, 0646U}) {
    fs::permissions(first, fs::perms(mode));
    expect_refused(first);
  }
  fs::permissions(first, fs::perms(0644));
  ASSERT_EQ(chown(first.c_str(), 1234, 0), 0);
  expect_refused(first);
}

TEST_F(ClamavUpdate, FileThatChangesOrIsExchangedWhileItIsTriedIsRefused) {
  for (const bool exchanged : {false, true}) {
    const fs::path first = good();
    at_next_compilation = [&] {
      if (exchanged) {
        fs::remove(first);
      }
      write_file(first, signature("New", "another"));
    };
    expect_refused(first);
    EXPECT_FALSE(at_next_compilation);
  }
}

TEST_F(ClamavUpdate, UpdateThatThereIsNoRoomForChangesNothing) {
  const fs::path small = stage("aivsecon.def", signature("New", "content"));
  const fs::path large = stage("antivir.def", read_file(small) + std::string(5000, '#') + "\n");
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit narrow{4096, before.rlim_max};
  ASSERT_NE(signal(SIGXFSZ, SIG_IGN), SIG_ERR);  // so that the write fails
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &narrow), 0);
  expect_refused(large, small);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(update(handle_, large, small), VSE_OK);
}

TEST_F(ClamavUpdate, UpdateWhoseCommitFailsIsTakenBack) {
  EXPECT_EQ(bring(signature("Old", "old malware"), ""), VSE_OK);
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
  EXPECT_EQ(update(handle_, first, second), VSE_OK);
}

TEST_F(ClamavUpdate, CommittedUpdateIsInForceAlthoughItsFilesCannotMove) {
  for (int moved = 0; moved < 2; ++moved) {
    const std::string one = "malware one of round " + std::to_string(moved);
    const std::string other = "malware two of round " + std::to_string(moved);
    renames_before_failure = 1 + moved;
    EXPECT_EQ(bring(signature("New", one), signature("New", other)), VSE_OK);
    EXPECT_LT(renames_before_failure, 0) << "no rename failed";
    EXPECT_TRUE(fs::exists(database_ / ".pelo-update"));
    start();
    EXPECT_TRUE(finds(one) && finds(other));
    // The next update finds what is left, also when it is refused itself.
    EXPECT_NE(bring("no signature\n", ""), VSE_OK);
    EXPECT_FALSE(fs::exists(database_ / ".pelo-update"));
    start();
    EXPECT_TRUE(finds(one) && finds(other));
  }
}

TEST_F(ClamavUpdate, WhoOwnsTheDirectoryCannotLeadAnUpdateElsewhere) {
  const fs::path elsewhere = root_ / "elsewhere";
  fs::create_directory(elsewhere);
  write_file(elsewhere / "antivir.def", signature("Else", "of somebody else"));
  const auto before = content_of(elsewhere);
  for (const char* name : {".pelo-update", ".pelo-update-new"}) {
    const fs::path folder = database_ / name;
    fs::create_directory_symlink(elsewhere, folder);
    EXPECT_NE(update(handle_, good()), VSE_OK) << name;
    EXPECT_EQ(content_of(elsewhere), before) << name;
    fs::remove(folder);
    fs::create_directory(folder);
    ASSERT_EQ(chown(folder.c_str(), 1234, 1234), 0);
    fs::create_symlink(elsewhere / "antivir.def", folder / "antivir.def");
    EXPECT_NE(update(handle_, good()), VSE_OK) << name;
    EXPECT_EQ(content_of(elsewhere), before) << name;
    fs::remove_all(folder);
  }
  EXPECT_EQ(update(handle_, good()), VSE_OK);
}

TEST_F(ClamavUpdate, OneRunsAtATimeAndNobodyElseCanHoldItUp) {
  const auto succeeds = [this] { return update(handle_, good()) == VSE_OK; };
  const fs::path lock = database_ / ".pelo-update-lock";
  EXPECT_TRUE(succeeds());
  EXPECT_EQ(fs::status(lock).permissions(), fs::perms(0600));
  const int other = open(lock.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  EXPECT_FALSE(succeeds()) << "another one runs";
  close(other);
  const int directory = open(database_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(directory, LOCK_EX), 0);  // which everybody may do who can read it
  EXPECT_TRUE(succeeds());
  close(directory);
  fs::permissions(lock, fs::perms(0644));
  EXPECT_FALSE(succeeds()) << "others could open it";
  fs::permissions(lock, fs::perms(0600));
  ASSERT_EQ(chown(lock.c_str(), 1234, 1234), 0);
  EXPECT_FALSE(succeeds()) << "it is another's";
}

TEST_F(ClamavUpdate, ScansRunOnWhileDefinitionsAreRenewed) {
  std::atomic<int> wrong{0};
  std::atomic<int> scans{0};
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, handle = make_handle()](const std::stop_token& done) {
      while (!done.stop_requested()) {
        wrong += scan_path(handle, bad_) != VSE_SCAN_DETECTED;
        wrong += scan_path(handle, clean_) != VSE_SCAN_CLEAN;
        ++scans;
      }
    });
  }
  for (int i = 0; i < 10; ++i) {
    const std::string content = "malware number " + std::to_string(i);
    EXPECT_EQ(bring(signature("New", content), ""), VSE_OK);
    EXPECT_TRUE(finds(content));
  }
  threads.clear();
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(scans, 0);
}

}  // namespace
}  // namespace engine_test
