// SPDX-License-Identifier: GPL-2.0-only
// Scans, properties, handles: the engine through its public calls.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::IsEmpty;

// ---- Scans --------------------------------------------------------------------------------------

TEST_F(ClamavEngine, EventCarriesTheDetection) {
  EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED);
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(event().id, unsigned{vseEvIdDetect});
  EXPECT_EQ(event().thread, std::this_thread::get_id());
  EXPECT_EQ(event().result, VSE_RESULT_FOUND);
  EXPECT_EQ(event().type, 1U);
  EXPECT_EQ(event().accuracy, VSE_ACCURACY_EXACT);
  EXPECT_EQ(event().name, "Test-File");
  EXPECT_EQ(event().archive, "");
  EXPECT_EQ(event().object, bad_.string());
}

TEST_F(ClamavEngine, DescriptorIsScannedWhateverThePathSaysAndStaysOpen) {
  const int fd = open(bad_.c_str(), O_RDONLY | O_NONBLOCK);
  fs::remove(bad_);
  EXPECT_EQ(scan_fd(handle_, "/no/such \"file\"", fd), VSE_SCAN_DETECTED);
  EXPECT_EQ(event().object, "/no/such \"file\"");
  EXPECT_EQ(scan_fd(handle_, nullptr, fd), VSE_SCAN_DETECTED);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  close(fd);
}

TEST_F(ClamavEngine, ActionDecidesCodeAndResultWord) {
  struct Row {
    std::uint32_t action;
    int code;
    vse_scan_result result;
  };
  const std::string packed = zip_with({{"bad", standard_test_file()}});
  for (const Row row :
       {Row{1, VSE_SCAN_DETECTED, VSE_RESULT_DISINFECT_FAILED},
        Row{2, VSE_SCAN_REMOVE, VSE_RESULT_FOUND}, Row{0, VSE_SCAN_DETECTED, VSE_RESULT_FOUND}}) {
    EXPECT_EQ(set_number(handle_, VSE_PROP_SCAN_ACTION, row.action), VSE_OK);
    for (const std::string& content : {standard_test_file(), packed}) {
      EXPECT_EQ(scan(content), row.code) << row.action;
      EXPECT_EQ(event().result, row.result) << row.action;
      EXPECT_TRUE(fs::exists(root_ / "scanned")) << "the caller removes files, not the engine";
    }
  }
}

TEST_F(ClamavEngine, WhatCannotBeScannedIsAnErrorAndNoDetection) {
  const fs::path pipe = root_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_THAT(scan_path(handle_, root_ / "missing"), IsScanError());
  EXPECT_THAT(scan_path(handle_, root_), IsScanError());
  EXPECT_THAT(scan_path(handle_, pipe), IsScanError());
  EXPECT_THAT(scan_fd(handle_, "closed", 9999), IsScanError());
  EXPECT_THAT(scan_fd(handle_, "none", -1), IsScanError());
  EXPECT_THAT(vseExec(handle_, VSE_EXEC_SCAN_PATH, 0, 0, 0), IsScanError());
  EXPECT_THAT(vseExec(handle_, 77, 0, 0, 0), IsScanError());
  EXPECT_THAT(vseExec(nullptr, VSE_EXEC_SCAN_PATH, argument(bad_.c_str()), 0, 0), IsScanError());
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED);
}

// ---- Types, accuracy, the ignore mask -----------------------------------------------------------

TEST_F(ClamavEngine, SignatureNameGivesTypeAndAccuracyAndTheMaskDropsTypes) {
  const std::map<std::uint32_t, std::vector<std::string>> types = {
      {1, {"Eicar-Test-Signature", "Win.Virus.Sality-1", "Unix.Malware.Agent", "Win.Toolbar.Ask"}},
      {2, {"Osx.Adware.Pirrit-1", "Pua.Win.Adware.Toolbar"}},
      {3, {"PUA.Win.Packer.Upx-1", "PUA.Win.Trojan.Generic", "PUA.Unix.Tool.X", "Win.Pua.Agent"}},
      {4, {"Php.Backdoor.Shell-2", "Win.Ircbot.Gen"}},
      {5, {"Test.Bomb.Zip"}},
      {6, {"Dos.Boot.Stoned"}},
      {7, {"Unix.DDoS.Kaiten"}},
      {8, {"Win.Dialer.Porn-3"}},
      {9, {"Doc.Downloader.Emotet", "Win.Dropper.Agent"}},
      {10, {"Pdf.Exploit.CVE_2010_2883", "Test.CVE-2020-0601"}},
      {12, {"Joke.Screen"}},
      {13, {"Xls.Macro.Auto"}},
      {14, {"Email.MassMailer.X"}},
      {16, {"Win.Worm.Allaple-1"}},
      {17, {"Win.P2PWorm.Gen"}},
      {18, {"Win.Proxy.Small"}},
      {19, {"Win.Stealer.Zeus"}},
      {20, {"Doc.RemoteTemplate.X"}},
      {21, {"Email.Phishing.Bank"}},
      {22, {"Win.Spyware.Banker", "Win.Keylogger.Ardamax"}},
      {23, {"Unix.Tool.Mirai"}},
      {24,
       {"Win.Trojan.Agent-36", "Win.Ransomware.Wannacry", "Win.Trojan.Adware-12",
        "win.TROJAN.agent", "Win.Trojan.Pua"}},
      {27, {"Win.Packer.Crypt"}},
  };
  std::string text;
  for (const auto& [type, names] : types) {
    for (const std::string& name : names) {
      text += signature(name, "content of " + name);
    }
  }
  add_database("types.ndb", text);
  const auto expect_type = [this](std::uint32_t type, const std::string& name) {
    SCOPED_TRACE(name);
    const std::uint64_t bit = std::uint64_t{1} << type;
    const std::string plain = "content of " + name;
    for (const std::string& content : {plain, zip_with({{"member", plain}})}) {
      for (const std::uint64_t mask : {std::uint64_t{0}, ~bit}) {
        EXPECT_EQ(ignore_types(handle_, mask), VSE_OK);
        EXPECT_EQ(scan(content), VSE_SCAN_DETECTED);
        EXPECT_EQ(events.size(), 1U);
        EXPECT_EQ(event().name, name);
        EXPECT_EQ(event().type, type);
        EXPECT_EQ(event().accuracy, VSE_ACCURACY_EXACT);
      }
      EXPECT_EQ(ignore_types(handle_, bit), VSE_OK);
      EXPECT_EQ(scan(content), VSE_SCAN_CLEAN);
      EXPECT_EQ(result(), VSE_RESULT_NOTHING_FOUND);
      EXPECT_THAT(events, IsEmpty());
    }
  };
  for (const auto& [type, names] : types) {
    for (const std::string& name : names) {
      expect_type(type, name);
    }
  }
}

TEST_F(ClamavEngine, IgnoredMatchHidesNeitherAnotherOneNorThatOfAnotherMember) {
  add_database("both.ndb", signature("Win.Adware.Test", "advertisement") +
                               "Win.Trojan.Test:0:*:" + hex("and a trojan") + "\n");
  const Member adware{"adware", "advertisement"};
  const Member trojan{"trojan", "and a trojan"};
  for (const std::string& content :
       {adware.content + trojan.content, zip_with({adware, trojan, adware, trojan})}) {
    for (const unsigned int ignored : {2U, 24U}) {
      EXPECT_EQ(ignore_types(handle_, std::uint64_t{1} << ignored), VSE_OK);
      EXPECT_EQ(scan(content), VSE_SCAN_DETECTED) << ignored;
      EXPECT_EQ(passes, 1) << ignored;
      EXPECT_EQ(events.size(), 1U);
      EXPECT_EQ(event().type, ignored == 2 ? 24U : 2U);
    }
    EXPECT_EQ(ignore_types(handle_, (1U << 2U) | (1U << 24U)), VSE_OK);
    EXPECT_EQ(scan(content), VSE_SCAN_CLEAN);
  }
}

// ---- Properties ---------------------------------------------------------------------------------

TEST_F(ClamavEngine, KnownPropertiesAreAcceptedAndOthersRefused) {
  EXPECT_EQ(set_number(handle_, VSE_PROP_SESSION_OPTIONS, VSE_SESSION_OPTIONS_DEFAULT), VSE_OK);
  EXPECT_EQ(set_number(handle_, VSE_PROP_SCAN_ACTION, 2), VSE_OK);
  EXPECT_EQ(set_number(handle_, VSE_PROP_MAX_ARCHIVE_DEPTH, 5), VSE_OK);
  EXPECT_EQ(set_number(handle_, VSE_PROP_DECOMPRESS, 0, VSE_DECOMPRESS_LIMIT), VSE_OK);
  EXPECT_EQ(ignore_types(handle_, 0xC), VSE_OK);

  const std::uint64_t wide = 0;
  EXPECT_NE(vseSet(handle_, VSE_PROP_SCAN_ACTION, 0, &wide, sizeof wide, 0), VSE_OK);
  EXPECT_NE(vseSet(handle_, VSE_PROP_SCAN_ACTION, 0, nullptr, 4, 0), VSE_OK);
  EXPECT_NE(set_number(handle_, VSE_PROP_SCAN_ACTION, 3), VSE_OK);
  EXPECT_NE(set_number(handle_, VSE_PROP_SCAN_ACTION, 1, 1), VSE_OK);
  EXPECT_NE(set_number(handle_, VSE_PROP_MAX_ARCHIVE_DEPTH, 0xFFFFFFFF), VSE_OK);
  EXPECT_NE(set_number(handle_, VSE_PROP_DECOMPRESS, 0, 5), VSE_OK);
  EXPECT_NE(set_number(handle_, VSE_PROP_IGNORE_MASK, 1), VSE_OK);
  EXPECT_NE(set_number(handle_, VSE_PROP_SCAN_RESULT, 1), VSE_OK);
  EXPECT_NE(set_number(handle_, 1234, 1), VSE_OK);
  EXPECT_NE(set_number(nullptr, VSE_PROP_SCAN_ACTION, 1), VSE_OK);
  EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_REMOVE) << "a refused value leaves the old one";
}

TEST_F(ClamavEngine, ResultsAreThoseOfTheLastScanAndTextsCutToTheBufferAndTerminated) {
  EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED);
  std::array<char, 6> buffer;
  buffer.fill('?');
  EXPECT_EQ(vseGet(handle_, VSE_PROP_DETECTION_NAME, 0, buffer.data(), 5, 0), VSE_OK);
  EXPECT_STREQ(buffer.data(), "Test");
  EXPECT_EQ(buffer[5], '?');
  EXPECT_EQ(vseGet(handle_, VSE_PROP_OBJECT_NAME, 0, buffer.data(), 1, 0), VSE_OK);
  EXPECT_STREQ(buffer.data(), "");
  EXPECT_NE(vseGet(handle_, VSE_PROP_OBJECT_NAME, 0, buffer.data(), 0, 0), VSE_OK);
  EXPECT_NE(vseGet(handle_, VSE_PROP_OBJECT_NAME, 0, nullptr, 4, 0), VSE_OK);
  EXPECT_NE(vseGet(handle_, VSE_PROP_OBJECT_NAME, 1, buffer.data(), 4, 0), VSE_OK);
  EXPECT_NE(vseGet(handle_, VSE_PROP_DETECTION_TYPE, 0, buffer.data(), 2, 0), VSE_OK);
  EXPECT_NE(vseGet(handle_, 1234, 0, buffer.data(), 4, 0), VSE_OK);
  EXPECT_NE(vseGet(nullptr, VSE_PROP_DETECTION_TYPE, 0, buffer.data(), 4, 0), VSE_OK);

  EXPECT_EQ(scan_path(handle_, clean_), VSE_SCAN_CLEAN);
  EXPECT_EQ(vseGet(handle_, VSE_PROP_DETECTION_NAME, 0, buffer.data(), 5, 0), VSE_OK);
  EXPECT_STREQ(buffer.data(), "") << "nothing is kept of the scan before";
  EXPECT_EQ(get_number(handle_, VSE_PROP_DETECTION_TYPE), 0U);
}

// ---- Handles, engines, the process --------------------------------------------------------------

TEST_F(ClamavEngine, InitFailsWithoutUsableDefinitionsAndSaysNothing) {
  fs::create_directory(root_ / "empty");
  testing::internal::CaptureStderr();
  EXPECT_EQ(make_handle(root_ / "missing"), nullptr);
  EXPECT_EQ(make_handle(root_ / "empty"), nullptr);
  EXPECT_EQ(make_handle(database_ / "test.ndb"), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  VSEHANDLE handle = nullptr;
  EXPECT_NE(vseInit(0, 2, nullptr, nullptr, nullptr, &handle), VSE_OK);
  EXPECT_NE(vseInit(0, 2, database_.c_str(), nullptr, nullptr, nullptr), VSE_OK);
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
  start();
  EXPECT_EQ(make_handle(), nullptr);
  EXPECT_EQ(engines_made, 1);
  fs::remove(database_ / "junk.ndb");
  clock_ahead = std::chrono::seconds(12);
  EXPECT_NE(make_handle(), nullptr) << "a directory that was mended";
}

TEST_F(ClamavEngine, CallsOutsideTheEnginesLifeFail) {
  EXPECT_EQ(vseRelease(handle_), VSE_OK);
  EXPECT_NE(vseRelease(handle_), VSE_OK);
  EXPECT_NE(vseRelease(nullptr), VSE_OK);
  stop();
  EXPECT_NE(vseGlobalRelease(), VSE_OK);
  EXPECT_NE(vsePrepare(VSE_INIT_BASE, database_.c_str()), VSE_OK);
  EXPECT_EQ(make_handle(), nullptr);
}

TEST_F(ClamavEngine, HandlesOfOneDirectoryShareOneEngineThatCanBePrepared) {
  start();
  EXPECT_NE(vsePrepare(VSE_INIT_BASE, nullptr), VSE_OK);
  EXPECT_NE(vsePrepare(1, database_.c_str()), VSE_OK) << "flags of no family";
  EXPECT_NE(vsePrepare(VSE_INIT_BASE, (root_ / "missing").c_str()), VSE_OK);
  EXPECT_EQ(vsePrepare(VSE_INIT_BASE, database_.c_str()), VSE_OK);
  EXPECT_EQ(vsePrepare(VSE_INIT_BASE, database_.c_str()), VSE_OK);
  fs::create_symlink(database_, root_ / "link");
  fs::copy(database_, root_ / "other");
  VSEHANDLE handle = nullptr;
  ASSERT_EQ(vseInit(0, 2, database_.c_str(), nullptr, nullptr, &handle), VSE_OK);
  std::vector<VSEHANDLE> handles{handle};  // without a callback
  for (const fs::path& directory : {database_ / "", root_ / "link", root_ / "other"}) {
    EXPECT_EQ(engines_made, 1);
    handles.push_back(make_handle(directory));
  }
  EXPECT_EQ(engines_made, 2);
  for (const VSEHANDLE each : handles) {
    EXPECT_EQ(scan_path(each, bad_), VSE_SCAN_DETECTED);
    EXPECT_EQ(vseRelease(each), VSE_OK);
  }
  EXPECT_EQ(engines_freed, 0);  // kept for the next handle
}

}  // namespace
}  // namespace engine_test
