// SPDX-License-Identifier: GPL-2.0-only
// Scans, properties, handles: the engine through its public calls.
#include <clamav.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vse.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::IsEmpty;

// ---- Scans --------------------------------------------------------------------------------------

TEST_F(ClamavEngine, CleanFileIsCleanByPathAndByDescriptor) {
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(scan_path(handle, clean_), VSE_SCAN_CLEAN);
  EXPECT_EQ(get_number(handle, VSE_PROP_SCAN_RESULT), unsigned{VSE_RESULT_NOTHING_FOUND});
  const int fd = open(clean_.c_str(), O_RDONLY);
  EXPECT_EQ(scan_fd(handle, clean_.c_str(), fd), VSE_SCAN_CLEAN);
  close(fd);
  EXPECT_EQ(scan_path(handle, file("empty", "")), VSE_SCAN_CLEAN);
  EXPECT_THAT(events, IsEmpty());
}

TEST_F(ClamavEngine, BundledDefinitionsFindTheTestFile) {
  start();
  const VSEHANDLE handle = make_handle(BUNDLED_DEFINITIONS);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].name, "Eicar-Test-Signature");
  EXPECT_EQ(events[0].type, 1U);
  EXPECT_EQ(scan_path(handle, clean_), VSE_SCAN_CLEAN);
}

TEST_F(ClamavEngine, EventCarriesTheDetection) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  const Event& event = events[0];
  EXPECT_EQ(event.id, unsigned{vseEvIdDetect});
  EXPECT_EQ(event.thread, std::this_thread::get_id());
  EXPECT_EQ(event.result, unsigned{VSE_RESULT_FOUND});
  EXPECT_EQ(event.type, 1U);
  EXPECT_EQ(event.accuracy, unsigned{VSE_ACCURACY_EXACT});
  EXPECT_EQ(event.name, "Test-File");
  EXPECT_EQ(event.archive, "");
  EXPECT_EQ(event.object, bad_.string());
}

TEST_F(ClamavEngine, DescriptorIsScannedWhateverThePathSaysAndStaysOpen) {
  start();
  const VSEHANDLE handle = make_handle();
  const int fd = open(bad_.c_str(), O_RDONLY | O_NONBLOCK);
  fs::remove(bad_);
  EXPECT_EQ(scan_fd(handle, "/no/such \"file\"", fd), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].object, "/no/such \"file\"");
  EXPECT_EQ(scan_fd(handle, nullptr, fd), VSE_SCAN_DETECTED);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  close(fd);
}

TEST_F(ClamavEngine, ActionDecidesCodeAndResultWord) {
  start();
  const VSEHANDLE handle = make_handle();
  struct Row {
    std::uint32_t action;
    int code;
    std::uint32_t result;
  };
  for (const Row row :
       {Row{1, VSE_SCAN_DETECTED, VSE_RESULT_DISINFECT_FAILED},
        Row{2, VSE_SCAN_REMOVE, VSE_RESULT_FOUND}, Row{0, VSE_SCAN_DETECTED, VSE_RESULT_FOUND}}) {
    events.clear();
    EXPECT_EQ(set_number(handle, VSE_PROP_SCAN_ACTION, row.action), VSE_OK);
    EXPECT_EQ(scan_path(handle, bad_), row.code) << row.action;
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].result, row.result) << row.action;
    EXPECT_TRUE(fs::exists(bad_)) << "the caller removes files, not the engine";
  }
}

TEST_F(ClamavEngine, WhatCannotBeScannedIsAnErrorAndNoDetection) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path pipe = root_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_THAT(scan_path(handle, root_ / "missing"), IsScanError());
  EXPECT_THAT(scan_path(handle, root_), IsScanError());
  EXPECT_THAT(scan_path(handle, pipe), IsScanError());
  EXPECT_THAT(scan_fd(handle, "closed", 9999), IsScanError());
  EXPECT_THAT(scan_fd(handle, "none", -1), IsScanError());
  EXPECT_THAT(vseExec(handle, VSE_EXEC_SCAN_PATH, 0, 0, 0), IsScanError());
  EXPECT_THAT(vseExec(handle, 77, 0, 0, 0), IsScanError());
  EXPECT_THAT(vseExec(nullptr, VSE_EXEC_SCAN_PATH, argument(bad_.c_str()), 0, 0), IsScanError());
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
}

TEST_F(ClamavEngine, HandleWithoutCallbackScans) {
  start();
  VSEHANDLE handle = nullptr;
  ASSERT_EQ(vseInit(0, 14, database_.c_str(), nullptr, nullptr, &handle), VSE_OK);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
}

TEST_F(ClamavEngine, ScansLeaveNoDescriptorOpen) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path archive = file("bad.tar", tar_with({{"bad", test_file_content()}}));
  (void)scan_path(handle, archive);
  const std::size_t before = open_descriptors();
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(scan_path(handle, archive), VSE_SCAN_DETECTED);
    EXPECT_EQ(scan_path(handle, clean_), VSE_SCAN_CLEAN);
  }
  EXPECT_EQ(open_descriptors(), before);
}

// ---- Types, accuracy, the ignore mask -----------------------------------------------------------

TEST_F(ClamavEngine, SignatureNameGivesTypeAndAccuracyAndTheMaskDropsTypes) {
  const std::map<std::string, std::uint32_t> types = {
      {"Eicar-Test-Signature", 1},
      {"Win.Virus.Sality-1", 1},
      {"Unix.Malware.Agent-7", 1},
      {"Osx.Adware.Pirrit-1", 2},
      {"Php.Backdoor.Shell-2", 4},
      {"Win.Ircbot.Gen", 4},
      {"Test.Bomb.Zip", 5},
      {"Dos.Boot.Stoned", 6},
      {"Unix.DDoS.Kaiten", 7},
      {"Win.Dialer.Porn-3", 8},
      {"Doc.Downloader.Emotet", 9},
      {"Win.Dropper.Agent", 9},
      {"Pdf.Exploit.CVE_2010_2883", 10},
      {"Test.CVE-2020-0601", 10},
      {"Joke.Screen", 12},
      {"Xls.Macro.Auto", 13},
      {"Email.MassMailer.X", 14},
      {"Win.Worm.Allaple-1", 16},
      {"Win.P2PWorm.Gen", 17},
      {"Win.Proxy.Small", 18},
      {"Win.Stealer.Zeus", 19},
      {"Doc.RemoteTemplate.X", 20},
      {"Email.Phishing.Bank", 21},
      {"Win.Spyware.Banker", 22},
      {"Win.Keylogger.Ardamax", 22},
      {"Unix.Tool.Mirai", 23},
      {"Win.Trojan.Agent-36", 24},
      {"Win.Ransomware.Wannacry", 24},
      {"Win.Packer.Crypt", 27},
      {"Win.Trojan.Adware-12", 24},
      {"win.TROJAN.agent", 24},
      {"PUA.Win.Packer.Upx-1", 3},
      {"PUA.Win.Trojan.Generic", 3},
      {"Pua.Win.Adware.Toolbar", 2},
      {"PUA.Unix.Tool.Scanner", 3},
      {"Win.Pua.Agent", 3},
      {"Win.Trojan.Pua", 24},
      {"Win.Toolbar.Ask", 1},
  };
  std::string text;
  for (const auto& [name, type] : types) {
    text += signature(name, "content of " + name);
  }
  write_file(database_ / "types.ndb", text);
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  for (const auto& [name, type] : types) {
    const std::uint64_t bit = std::uint64_t{1} << type;
    const std::string content = "content of " + name;
    for (const std::string& scanned : {content, zip_with({{"member", content}})}) {
      const fs::path path = file("typed", scanned);
      for (const std::uint64_t mask : {std::uint64_t{0}, ~bit}) {
        events.clear();
        EXPECT_EQ(ignore_types(handle, mask), VSE_OK);
        EXPECT_EQ(scan_path(handle, path), VSE_SCAN_DETECTED) << name;
        ASSERT_EQ(events.size(), 1U) << name;
        EXPECT_EQ(events[0].name, name);
        EXPECT_EQ(events[0].type, type) << name;
        EXPECT_EQ(events[0].accuracy, unsigned{VSE_ACCURACY_EXACT}) << name;
      }
      EXPECT_EQ(ignore_types(handle, bit), VSE_OK);
      EXPECT_EQ(scan_path(handle, path), VSE_SCAN_CLEAN) << name;
      EXPECT_EQ(get_number(handle, VSE_PROP_SCAN_RESULT), unsigned{VSE_RESULT_NOTHING_FOUND});
      EXPECT_EQ(events.size(), 1U) << name;
    }
  }
}

TEST_F(ClamavEngine, HeuristicSignatureIsReportedAsHeuristic) {
  write_file(database_ / "heuristic.ndb", signature("Heuristics.Trojan.Test", "guess me"));
  start();
  EXPECT_EQ(scan_path(make_handle(), file("guess", "guess me")), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].name, "Heuristics.Trojan.Test");
  EXPECT_EQ(events[0].accuracy, unsigned{VSE_ACCURACY_HEURISTIC});
  EXPECT_EQ(events[0].type, 24U);
}

TEST_F(ClamavEngine, UnwantedProgramsAreDetectionsUnlessTheyAreIgnored) {
  write_file(database_ / "unwanted.ndu", signature("PUA.Unix.Tool.Scanner", "looks for hosts"));
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path tool = file("tool", "looks for hosts");
  EXPECT_EQ(scan_path(handle, tool), VSE_SCAN_DETECTED);
  EXPECT_EQ(ignore_types(handle, std::uint64_t{1} << 3U), VSE_OK);
  EXPECT_EQ(scan_path(handle, tool), VSE_SCAN_CLEAN);
}

TEST_F(ClamavEngine, IgnoredMatchDoesNotHideAnotherOne) {
  write_file(database_ / "both.ndb", signature("Win.Adware.Test", "advertisement") +
                                         "Win.Trojan.Test:0:*:" + hex("and a trojan") + "\n");
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path both = file("both", "advertisement and a trojan");
  for (const unsigned int ignored : {2U, 24U}) {
    events.clear();
    EXPECT_EQ(ignore_types(handle, std::uint64_t{1} << ignored), VSE_OK);
    int passes = 0;
    at_next_read = [&] { at_next_read = [&] { ++passes; }, ++passes; };
    EXPECT_EQ(scan_path(handle, both), VSE_SCAN_DETECTED) << ignored;
    at_next_read = nullptr;
    EXPECT_EQ(passes, 1) << ignored;
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].type, ignored == 2 ? 24U : 2U);
  }
  EXPECT_EQ(ignore_types(handle, (1U << 2U) | (1U << 24U)), VSE_OK);
  EXPECT_EQ(scan_path(handle, both), VSE_SCAN_CLEAN);
}

std::string digest(const char* algorithm, const std::string& content) {
  std::array<unsigned char, 64> bytes{};
  unsigned int length = 0;
  EXPECT_NE(cl_hash_data(algorithm, content.data(), content.size(), bytes.data(), &length),
            nullptr);
  return hex(std::string(bytes.begin(), bytes.begin() + length));
}

std::string hash_signature(const char* algorithm, const std::string& name,
                           const std::string& content) {
  return digest(algorithm, content) + ":" + std::to_string(content.size()) + ":" + name + "\n";
}

TEST_F(ClamavEngine, EveryKindOfSignatureIsExactWhereItsNameSaysNothingElse) {
  write_file(database_ / "a.hdb", hash_signature("md5", "Win.Trojan.Md5", "known by its md5"));
  write_file(database_ / "b.hsb", hash_signature("sha256", "Win.Worm.Sha", "known by its sha256"));
  write_file(database_ / "c.ndb", signature("Win.Dialer.Hex", "known by its beginning"));
  write_file(database_ / "d.ldb", "Win.Proxy.Logic;Target:0;(0&1);" + hex("known by two") + ";" +
                                      hex("of its parts") + "\n");
  write_file(database_ / "e.yar",
             "rule Backdoor_Rule { strings: $a = \"known by a rule\" condition: $a }\n");
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  struct Row {
    std::string content;
    std::string name;
    std::uint32_t type;
  };
  for (const Row& row : {Row{"known by its md5", "Win.Trojan.Md5", 24},
                         Row{"known by its sha256", "Win.Worm.Sha", 16},
                         Row{"known by its beginning, whatever follows", "Win.Dialer.Hex", 8},
                         Row{"of its parts, known by two", "Win.Proxy.Logic", 18},
                         Row{"this is known by a rule", "YARA.Backdoor_Rule", 4}}) {
    for (const std::string& content : {row.content, zip_with({{"member", row.content}})}) {
      events.clear();
      EXPECT_EQ(scan_path(handle, file("known", content)), VSE_SCAN_DETECTED) << row.name;
      ASSERT_EQ(events.size(), 1U) << row.name;
      EXPECT_EQ(events[0].name, row.name);
      EXPECT_EQ(events[0].type, row.type) << row.name;
      EXPECT_EQ(events[0].accuracy, unsigned{VSE_ACCURACY_EXACT}) << row.name;
      EXPECT_EQ(events[0].archive, content == row.content ? "" : "member");
    }
  }
}

TEST_F(ClamavEngine, IgnoredMemberDoesNotHideTheNext) {
  write_file(database_ / "adware.ndb", signature("Win.Adware.Test", "advertisement"));
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(ignore_types(handle, 1U << 2U), VSE_OK);
  const Member adware{"first", "advertisement"};
  const Member bad{"second", test_file_content()};
  EXPECT_EQ(scan_path(handle, file("both.zip", zip_with({adware, bad, adware}))),
            VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0].name, "Test-File");
  EXPECT_EQ(events[0].archive, "second");
  EXPECT_EQ(scan_path(handle, file("one.zip", zip_with({adware, adware}))), VSE_SCAN_CLEAN);
}

TEST_F(ClamavEngine, ScanAfterADetectionKeepsNothingOfIt) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(scan_path(handle, file("bad.zip", zip_with({{"member", test_file_content()}}))),
            VSE_SCAN_DETECTED);
  EXPECT_EQ(scan_path(handle, clean_), VSE_SCAN_CLEAN);
  std::array<char, 64> text{};
  EXPECT_EQ(vseGet(handle, VSE_PROP_ARCHIVE_NAME, 0, text.data(), text.size(), 0), VSE_OK);
  EXPECT_STREQ(text.data(), "");
  EXPECT_EQ(get_number(handle, VSE_PROP_DETECTION_TYPE), 0U);
}

// ---- Properties ---------------------------------------------------------------------------------

TEST_F(ClamavEngine, KnownPropertiesAreAcceptedAndOthersRefused) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(set_number(handle, VSE_PROP_SESSION_OPTIONS, VSE_SESSION_OPTIONS_DEFAULT), VSE_OK);
  EXPECT_EQ(set_number(handle, VSE_PROP_SCAN_ACTION, 2), VSE_OK);
  EXPECT_EQ(set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, 5), VSE_OK);
  EXPECT_EQ(set_number(handle, VSE_PROP_DECOMPRESS, 0, VSE_DECOMPRESS_LIMIT), VSE_OK);
  EXPECT_EQ(ignore_types(handle, 0xC), VSE_OK);

  const std::uint64_t wide = 0;
  EXPECT_NE(vseSet(handle, VSE_PROP_SCAN_ACTION, 0, &wide, sizeof wide, 0), VSE_OK);
  EXPECT_NE(vseSet(handle, VSE_PROP_SCAN_ACTION, 0, nullptr, 4, 0), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_SCAN_ACTION, 3), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_SCAN_ACTION, 1, 1), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, 0xFFFFFFFF), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_DECOMPRESS, 0, 5), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_IGNORE_MASK, 1), VSE_OK);
  EXPECT_NE(set_number(handle, VSE_PROP_SCAN_RESULT, 1), VSE_OK);
  EXPECT_NE(set_number(handle, 1234, 1), VSE_OK);
  EXPECT_NE(set_number(nullptr, VSE_PROP_SCAN_ACTION, 1), VSE_OK);
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_REMOVE) << "a refused value leaves the old one";
}

TEST_F(ClamavEngine, TextsAreCutToTheBufferAndTerminated) {
  start();
  const VSEHANDLE handle = make_handle();
  EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
  std::array<char, 6> buffer;
  buffer.fill('?');
  EXPECT_EQ(vseGet(handle, VSE_PROP_DETECTION_NAME, 0, buffer.data(), 5, 0), VSE_OK);
  EXPECT_STREQ(buffer.data(), "Test");
  EXPECT_EQ(buffer[5], '?');
  EXPECT_EQ(vseGet(handle, VSE_PROP_OBJECT_NAME, 0, buffer.data(), 1, 0), VSE_OK);
  EXPECT_STREQ(buffer.data(), "");
  EXPECT_NE(vseGet(handle, VSE_PROP_OBJECT_NAME, 0, buffer.data(), 0, 0), VSE_OK);
  EXPECT_NE(vseGet(handle, VSE_PROP_OBJECT_NAME, 0, nullptr, 4, 0), VSE_OK);
  EXPECT_NE(vseGet(handle, VSE_PROP_OBJECT_NAME, 1, buffer.data(), 4, 0), VSE_OK);
  EXPECT_NE(vseGet(handle, VSE_PROP_DETECTION_TYPE, 0, buffer.data(), 2, 0), VSE_OK);
  EXPECT_NE(vseGet(handle, 1234, 0, buffer.data(), 4, 0), VSE_OK);
  EXPECT_NE(vseGet(nullptr, VSE_PROP_DETECTION_TYPE, 0, buffer.data(), 4, 0), VSE_OK);
}

// ---- Handles, engines, the process --------------------------------------------------------------

TEST_F(ClamavEngine, InitFailsWithoutUsableDefinitionsAndSaysNothing) {
  start();
  const fs::path broken = root_ / "broken";
  const fs::path folder = root_ / "folder";
  const fs::path empty = root_ / "empty";
  fs::create_directory(broken);
  fs::create_directories(folder / "sub.ndb");
  fs::create_directory(empty);
  write_file(broken / "good.ndb", signature("Test", "content"));
  write_file(broken / "junk.ndb", "this is no signature\n");
  write_file(folder / "good.ndb", signature("Test", "content"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(make_handle(root_ / "missing"), nullptr);
  EXPECT_EQ(make_handle(empty), nullptr);
  EXPECT_EQ(make_handle(broken), nullptr);
  EXPECT_EQ(make_handle(folder), nullptr);
  EXPECT_EQ(make_handle(database_ / "test.ndb"), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  VSEHANDLE handle = nullptr;
  EXPECT_NE(vseInit(0, 2, nullptr, nullptr, nullptr, &handle), VSE_OK);
  EXPECT_NE(vseInit(0, 2, database_.c_str(), nullptr, nullptr, nullptr), VSE_OK);
  fs::remove(broken / "junk.ndb");
  clock_ahead = std::chrono::seconds(6);
  EXPECT_NE(make_handle(broken), nullptr) << "a directory that was mended";
}

TEST_F(ClamavEngine, DirectoryThatDoesNotLoadIsNotTriedForEveryHandle) {
  start();
  write_file(database_ / "junk.ndb", "this is no signature\n");
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(make_handle(), nullptr);
  }
  EXPECT_EQ(engines_made, 1);
  clock_ahead = std::chrono::seconds(6);
  EXPECT_EQ(make_handle(), nullptr);
  EXPECT_EQ(make_handle(), nullptr);
  EXPECT_EQ(engines_made, 2);
  restart();
  EXPECT_EQ(make_handle(), nullptr);
  EXPECT_EQ(engines_made, 3);
}

TEST_F(ClamavEngine, CallsOutsideTheEnginesLifeFail) {
  EXPECT_NE(vseGlobalRelease(), VSE_OK);
  EXPECT_EQ(make_handle(), nullptr);
  start();
  const VSEHANDLE handle = make_handle();
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(vseRelease(handle), VSE_OK);
  EXPECT_NE(vseRelease(handle), VSE_OK);
  EXPECT_NE(vseRelease(nullptr), VSE_OK);
}

TEST_F(ClamavEngine, WhatWasPreparedIsThereForEveryHandle) {
  EXPECT_NE(vsePrepare(VSE_INIT_BASE, database_.c_str()), VSE_OK) << "before the engine's start";
  start();
  EXPECT_NE(vsePrepare(VSE_INIT_BASE, nullptr), VSE_OK);
  EXPECT_NE(vsePrepare(1, database_.c_str()), VSE_OK) << "flags of no family";
  EXPECT_NE(vsePrepare(VSE_INIT_BASE, (root_ / "missing").c_str()), VSE_OK);
  EXPECT_EQ(vsePrepare(VSE_INIT_BASE, database_.c_str()), VSE_OK);
  EXPECT_EQ(vsePrepare(VSE_INIT_BASE, database_.c_str()), VSE_OK);
  for (int i = 0; i < 2; ++i) {
    const VSEHANDLE handle = make_handle();
    EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
    EXPECT_EQ(vseRelease(handle), VSE_OK);
  }
  EXPECT_EQ(engines_compiled, 1);
}

TEST_F(ClamavEngine, HandlesOfOneDirectoryShareOneEngine) {
  start();
  std::vector<VSEHANDLE> handles;
  const fs::path link = root_ / "link";
  fs::create_symlink(database_, link);
  for (const fs::path& directory : {database_, database_ / "", link, database_}) {
    handles.push_back(make_handle(directory));
    ASSERT_NE(handles.back(), nullptr);
  }
  EXPECT_EQ(engines_compiled, 1);
  const fs::path other = root_ / "other";
  fs::copy(database_, other);
  handles.push_back(make_handle(other));
  EXPECT_EQ(engines_compiled, 2);
  for (const VSEHANDLE handle : handles) {
    EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
    EXPECT_EQ(vseRelease(handle), VSE_OK);
  }
  EXPECT_EQ(engines_freed, 0);  // kept for the next handle
}

TEST_F(ClamavEngine, GlobalReleaseFreesHandlesStillOpenAndTheEngineStartsAgain) {
  for (int round = 1; round <= 2; ++round) {
    ASSERT_EQ(vseGlobalInit("key"), VSE_OK);
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(scan_path(make_handle(), bad_), VSE_SCAN_DETECTED);
    }
    EXPECT_EQ(engines_made, round);
    EXPECT_EQ(vseGlobalRelease(), VSE_OK);
    EXPECT_EQ(engines_freed, round);
  }
  EXPECT_EQ(libclamav_starts, 1);
}

TEST_F(ClamavEngine, ManyThreadsScanAtOnce) {
  start();
  const fs::path archive = file("bad.tar", tar_with({{"bad", test_file_content()}}));
  std::atomic<int> wrong{0};
  const auto work = [&] {
    const VSEHANDLE handle = make_handle();
    for (int i = 0; i < 250 && handle != nullptr; ++i) {
      events.clear();
      wrong += scan_path(handle, clean_) != VSE_SCAN_CLEAN;
      wrong += scan_path(handle, bad_) != VSE_SCAN_DETECTED;
      wrong += scan_path(handle, archive) != VSE_SCAN_DETECTED;
      wrong += events.size() != 2 || events[0].object != bad_ || events[1].object != archive;
    }
    wrong += handle == nullptr || vseRelease(handle) != VSE_OK;
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back(work);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace engine_test
