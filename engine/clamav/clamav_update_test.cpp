// SPDX-License-Identifier: GPL-2.0-only
// Definition updates through the engine's public calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
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
              ElementsAre(std::pair{"aivsecon.ndb", read_file(second)},
                          std::pair{"antivir.ndb", read_file(first)}, testing::_));
  EXPECT_TRUE(fs::exists(first)) << "the given files stay the caller's";
}

TEST_F(ClamavUpdate, UpdateWithOnlyTheSecondFileSucceedsAndWithNoneFails) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_NE(update(handle, {}, {}), VSE_OK);
  EXPECT_EQ(update(handle, {}, stage("aivsecon.def", signature("New", "second file"))), VSE_OK);
  EXPECT_EQ(scan_path(make_handle(), file("f", "second file")), VSE_SCAN_DETECTED);
}

TEST_F(ClamavUpdate, UpdateReplacesTheLastOne) {
  start();
  EXPECT_EQ(update(make_handle(), stage("antivir.def", signature("Old", "old malware"))), VSE_OK);
  const VSEHANDLE again = make_handle();
  write_file(database_ / "antivir.cvd", "what an update in the other format left");
  EXPECT_EQ(update(again, stage("antivir.def", signature("New", "new malware"))), VSE_OK);
  const VSEHANDLE fresh = make_handle();
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(scan_path(fresh, file("f", "new malware")), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(fresh, file("f", "old malware")), VSE_SCAN_CLEAN);
  EXPECT_FALSE(fs::exists(database_ / "antivir.cvd"));
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
  expect_refused(good, good);
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
  if (geteuid() == 0) {
    fs::permissions(good, fs::perms(0644));
    ASSERT_EQ(chown(good.c_str(), 1234, 0), 0);
    expect_refused(good);
  }
}

TEST_F(ClamavUpdate, UpdateThatFailsHalfWayIsTakenBack) {
  start();
  EXPECT_EQ(update(make_handle(), stage("antivir.def", signature("Old", "old malware"))), VSE_OK);
  const fs::path first = stage("antivir.def", signature("New", "new malware"));
  const fs::path second = stage("aivsecon.def", signature("New", "more malware"));
  const fs::path third = stage("extra.def", signature("New", "yet more malware"));
  // Two renames give the files their names for the trial, the next two put them into force.
  for (int successful = 0; successful < 4; ++successful) {
    for (const auto& [one, other] : {std::pair{first, second}, std::pair{third, first}}) {
      const auto before = content_of(database_);
      const VSEHANDLE handle = make_handle();
      renames_before_failure = successful;
      EXPECT_NE(update(handle, one, other), VSE_OK) << successful << one;
      EXPECT_LT(renames_before_failure, 0) << "no rename failed";
      EXPECT_EQ(content_of(database_), before) << successful << one;
    }
  }
  EXPECT_EQ(update(make_handle(), first, second), VSE_OK);
}

TEST_F(ClamavUpdate, LeftoversOfAnInterruptedUpdateDoNoHarm) {
  fs::create_directories(database_ / ".pelo-update" / "trial");
  write_file(database_ / ".pelo-update" / "trial" / "antivir.ndb", "half a defin");
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(update(handle, stage("antivir.def", signature("New", "new malware"))), VSE_OK);
  EXPECT_FALSE(fs::exists(database_ / ".pelo-update"));
  EXPECT_EQ(scan_path(make_handle(), file("f", "new malware")), VSE_SCAN_DETECTED);
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
