// The adapter's calls into the engine, one by one. Definition updates: definition_update_test.cpp.
#include "avsdk_scanner.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <utility>

#include "scripted_engine_fixture.h"
#include "vse.h"

namespace {

std::string prepared;  // what vsePrepare was called with

}  // namespace

// This program offers it, as an engine may.
int vsePrepare(unsigned int flags, const char* database_directory) {
  prepared += std::to_string(flags) + " " + database_directory;
  return VSE_OK;
}

namespace {

using std::string;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

string engine_set(int property, int index, int size, const string& value, int result = 0) {
  return "vseSet handle=1 property=" + std::to_string(property) +
         " index=" + std::to_string(index) + " size=" + std::to_string(size) + " value=" + value +
         " reserved=0 result=" + std::to_string(result);
}

const string failed_init =
    "vseInit reserved=0 flags=2 database=\"/db\" callback=set context=null result=-1";
const string session_options = engine_set(9, 0, 4, "242");
const string default_ignore_mask = engine_set(40, 0, 8, "12");

class ScannerTest : public EngineTest {
 protected:
  /// Scans by path a file whose first line tells the engine what to find.
  int scan(void* handle, const string& directive) {
    return scanner().scan_file(handle, directory_.put("file", directive).c_str(), 2,
                               ConfParser::REPORT, 0);
  }
};

// Global start and end

TEST_F(ScannerTest, EngineIsReleasedAtExitIfItCouldBeInitialised) {
  const auto live = [] {
    scanner();
    std::exit(0);
  };
  EXPECT_EXIT(live(), testing::ExitedWithCode(0), "");
  EXPECT_THAT(new_calls(), ElementsAre(global_init(), "vseGlobalRelease result=0"));
  script("fail vseGlobalInit\n");
  EXPECT_EXIT(live(), testing::ExitedWithCode(0), "");
  EXPECT_THAT(new_calls(), ElementsAre(global_init("null", -1)));
}

TEST_F(ScannerTest, EngineThatPreparesDefinitionsIsAskedTo) {
  config().DefinitionType = ConfParser::V2;
  scanner().prepare_definitions();
  EXPECT_EQ(prepared, "14 /db");
  EXPECT_THAT(calls(), ElementsAre(global_init()));
}

// Without an engine

TEST_F(ScannerTest, WithoutAnEngineEverythingFailsWithoutAFurtherCall) {
  script("fail vseGlobalInit\n");
  scanner().prepare_definitions();
  EXPECT_EQ(prepared, "");
  EXPECT_THAT(new_calls(), ElementsAre(global_init("null", -1)));
  directory_.put("antivir.def", "");
  void* handle = this;
  EXPECT_FALSE(scanner().get_thread_scan_handler(&handle, true));
  EXPECT_EQ(handle, nullptr);
  EXPECT_FALSE(scanner().get_thread_scan_handler(&handle, false));
  scanner().release_thread_scan_handler(nullptr);
  EXPECT_FALSE(scanner().apply_update(directory_.path()));
  EXPECT_THAT(logged(), ElementsAre(error_record("-1", 1, "Unable to initialize scan engine")));
  EXPECT_EQ(scan(nullptr, "!code 1\n"), 0);
  EXPECT_EQ(find(nullptr, "!code 1\n"), 0);
  EXPECT_FALSE(scanner().init_scan(nullptr, ConfParser::REPORT, "/f"));
  const string no_engine = "init_scan scan engine has not been properly initialized\n";
  EXPECT_THAT(logged(), ElementsAre(testing::_, no_engine, no_engine, no_engine));
  EXPECT_THAT(new_calls(), IsEmpty());
}

// Handles

struct HandleCase {
  const char* script;
  bool made;
  std::vector<string> calls;
  string logged;
};

class Handle : public ScannerTest, public testing::WithParamInterface<HandleCase> {};

TEST_P(Handle, IsMadeThenGivenTheMaskThenTheSessionOptions) {
  const HandleCase& one = GetParam();
  script(one.script);
  scanner();
  EXPECT_THAT(new_calls(), ElementsAre(global_init()));
  void* handle = this;
  EXPECT_EQ(scanner().get_thread_scan_handler(&handle, true), one.made);
  EXPECT_EQ(handle, one.made ? reinterpret_cast<void*>(4097) : nullptr);
  EXPECT_EQ(new_calls(), one.calls);
  EXPECT_EQ(logged(), one.logged.empty() ? std::vector<string>{} : std::vector{one.logged});
}

INSTANTIATE_TEST_SUITE_P(
    OfTheEngine, Handle,
    testing::Values(
        HandleCase{"", true, {engine_init(2), default_ignore_mask, session_options}, ""},
        HandleCase{"fail vseInit\n", false, {failed_init}, ""},
        HandleCase{"fail vseSet:40\n",
                   true,
                   {engine_init(2), engine_set(40, 0, 8, "12", -1), session_options},
                   error_record("4097", 9, "failed to set ignore flags while avsdk init")},
        HandleCase{"fail vseSet:9\n",
                   false,
                   {engine_init(2), default_ignore_mask, engine_set(9, 0, 4, "242", -1),
                    "vseRelease handle=1 result=0"},
                   ""}));

TEST_F(ScannerTest, HandleWithoutSettingsIsOnlyMadeAndGivenBack) {
  void* handle = nullptr;
  EXPECT_TRUE(scanner().get_thread_scan_handler(&handle, false));
  EXPECT_EQ(handle, reinterpret_cast<void*>(4097));
  EXPECT_NE(ScannerTest::handle(), handle) << "every thread has one of its own";
  new_calls();
  scanner().release_thread_scan_handler(handle);
  EXPECT_THAT(new_calls(), ElementsAre("vseRelease handle=1 result=0"));
}

// The ignore mask

TEST_F(ScannerTest, IgnoreMaskHasOneBitForEachSettingAndIsNotSetWithoutAny) {
  const std::pair<bool GlobalConfig::*, std::uint64_t> settings[] = {
      {&GlobalConfig::IgnoreAdwareDetections, 0x4},
      {&GlobalConfig::IgnoreApplicationDetections, 0x8},
      {&GlobalConfig::IgnoreArchiveBombDetections, 0x20},
      {&GlobalConfig::IgnoreJokeDetections, 0x1000},
      {&GlobalConfig::IgnoreRemoteTemplateDetections, 0x100000},
      {&GlobalConfig::IgnoreSpywareDetections, 0x400000},
      {&GlobalConfig::IgnoreToolDetections, 0x800000}};
  for (std::uint64_t chosen = 0; chosen < 1U << std::size(settings); ++chosen) {
    std::uint64_t mask = 0;
    for (std::size_t i = 0; i < std::size(settings); ++i) {
      config().*settings[i].first = (chosen >> i & 1U) != 0;
      mask |= config().*settings[i].first ? settings[i].second : 0;
    }
    scanner();
    new_calls();
    scanner().release_thread_scan_handler(handle());
    const std::vector<string> made = new_calls();
    ASSERT_EQ(made.size(), mask == 0 ? 3U : 4U);
    if (mask != 0) {
      EXPECT_THAT(made[1], HasSubstr(" property=40 index=0 size=8 value=" + std::to_string(mask) +
                                     " reserved=0 "));
    }
  }
}

// One scan

TEST_F(ScannerTest, EveryScanSetsItsActionDepthAndLimitThenScans) {
  void* scanning = handle();
  new_calls();
  scanner().scan_file(scanning, "/no/file", 3, ConfParser::DISINFECT, 77);
  EXPECT_THAT(
      new_calls(),
      ElementsAre(engine_set(4, 0, 4, "1"), engine_set(30, 0, 4, "3"), engine_set(7, 6, 4, "77"),
                  "vseExec handle=1 operation=1 path=\"/no/file\" fd=-1 result=0"));
  const int fd = open(directory_.put("file", "").c_str(), O_RDONLY | O_CLOEXEC);
  scanner().scan_file(scanning, fd, "/named", 5, ConfParser::DELETE, 0);
  EXPECT_THAT(new_calls(), ElementsAre(engine_set(4, 0, 4, "2"), engine_set(30, 0, 4, "5"),
                                       engine_set(7, 6, 4, "0"),
                                       "vseExec handle=1 operation=9 path=\"/named\" fd=" +
                                           std::to_string(fd) + " result=0"));
  EXPECT_EQ(close(fd), 0) << "it stays the caller's";
}

TEST_F(ScannerTest, ActionThatIsNoneSetsTwo) {
  void* scanning = handle();
  for (const int action : {-1, 0, 1, 2, 3, 99}) {
    const int type = action == 0 || action == 1 ? action : 2;
    const auto typed = static_cast<ConfParser::detect_action_t>(action);
    EXPECT_EQ(scanner().get_scanner_type(typed), type);
    new_calls();
    scanner().scan_file(scanning, "/f", 2, typed, 0);
    EXPECT_EQ(new_calls().at(0), engine_set(4, 0, 4, std::to_string(type)));
  }
}

// The handle is above the signed range; a smaller one is used everywhere else.
TEST_F(ScannerTest, ScanRecordNamesTheWholeHandleAndThePathFromLevelTwo) {
  script("handle-base " + std::to_string(std::numeric_limits<std::uintptr_t>::max() - 0xfff) +
         "\n");
  void* scanning = handle();
  log_up_to(1);
  scanner().scan_file(scanning, "/f", 2, ConfParser::REPORT, 0);
  EXPECT_THAT(logged(), IsEmpty());
  log_up_to(2);
  EXPECT_TRUE(scanner().init_scan(scanning, ConfParser::REPORT, "/f"));
  EXPECT_THAT(logged(), ElementsAre("File scan: Session ID: -4095\nPath: \"/f\"\n"));
}

TEST_F(ScannerTest, CallsThatFailDoNotKeepAScanFromBeingMade) {
  const string action_failed =
      error_record("-1", 9, "Unable to set property scan action in AVSDK engine");
  for (const auto& [failing, outcome] : {std::pair("fail vseSet:4\n", 1),
                                         {"fail vseSet:30\nfail vseSet:7\n", 1},
                                         {"fail vseExec\n", 0}}) {
    script(failing);
    void* scanning = handle();
    EXPECT_EQ(scan(scanning, "!code 1\n"), outcome) << failing;
    EXPECT_EQ(find(scanning, "!code 1\n"), outcome) << failing;
  }
  EXPECT_EQ(logged().size(), 8U) << "of each scan its record, and no other errors";
  EXPECT_EQ(count_record(logged(), action_failed), 2);
}

TEST_F(ScannerTest, CodesFoldIntoThreeOutcomes) {
  void* scanning = handle();
  for (const int code : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 257}) {
    const int outcome = code == 7 ? 2 : code == 1 || code == 2 ? 1 : 0;
    const string directive = "!code " + std::to_string(code) + "\n";
    EXPECT_EQ(scan(scanning, directive), outcome) << code;
    EXPECT_EQ(find(scanning, directive), outcome) << code;
    EXPECT_EQ(scanner().is_infected(code), outcome != 0) << code;
  }
  EXPECT_EQ(scan(scanning, "!detect code=3\n"), 0);
  EXPECT_THAT(logged().back(), HasSubstr("infection detected in: ")) << "although there was one";
}

}  // namespace
