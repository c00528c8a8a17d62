// The adapter's calls into the engine, one by one. Definition updates: definition_update_test.cpp.
#include "avsdk_scanner.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <ostream>

#include "engine_test.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

string engine_set(int property, int index, int size, const string& value, int result = 0) {
  return "vseSet handle=1 property=" + std::to_string(property) +
         " index=" + std::to_string(index) + " size=" + std::to_string(size) + " value=" + value +
         " reserved=0 result=" + std::to_string(result);
}

string engine_init(unsigned flags) {
  return "vseInit reserved=0 flags=" + std::to_string(flags) +
         " database=\"/db\" callback=set context=null handle=1 value=4097 result=0";
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

  /// The same through a descriptor.
  int scan_descriptor(void* handle, const string& directive) {
    const int fd = open(directory_.put("file", directive).c_str(), O_RDONLY | O_CLOEXEC);
    const int result = scanner().scan_file(handle, fd, "/named", 2, ConfParser::REPORT, 0);
    close(fd);
    return result;
  }
};

// Global start and end

TEST_F(ScannerTest, EngineIsInitialisedOnceForTheProcess) {
  EXPECT_EQ(AVSDK_scanner::getAVSDK_scanner(), AVSDK_scanner::getAVSDK_scanner());
  EXPECT_THAT(calls(), ElementsAre("vseGlobalInit key=null result=0"));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ScannerTest, CloudKeyIsNotHandedOverWhileCloudScanningIsOff) {
  config().CloudAccessKey = "secret";
  scanner();
  EXPECT_THAT(calls(), ElementsAre("vseGlobalInit key=null result=0"));
}

TEST_F(ScannerTest, CloudKeyIsHandedOverWhenCloudScanningIsOn) {
  config().CloudAccessKey = "secret";
  config().EnableCloudScanning = true;
  scanner();
  EXPECT_THAT(calls(), ElementsAre("vseGlobalInit key=\"secret\" result=0"));
}

TEST_F(ScannerTest, EmptyCloudKeyIsHandedOverAsAnEmptyText) {
  config().EnableCloudScanning = true;
  scanner();
  EXPECT_THAT(calls(), ElementsAre("vseGlobalInit key=\"\" result=0"));
}

TEST_F(ScannerTest, EngineIsReleasedAtExit) {
  EXPECT_EXIT(
      {
        scanner();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
  EXPECT_THAT(calls(), ElementsAre("vseGlobalInit key=null result=0", "vseGlobalRelease result=0"));
}

TEST_F(ScannerTest, EngineThatFailedToInitialiseIsNotReleasedAtExit) {
  script("fail vseGlobalInit\n");
  EXPECT_EXIT(
      {
        scanner();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
  EXPECT_THAT(calls(), ElementsAre("vseGlobalInit key=null result=-1"));
}

// Without an engine

class ScannerWithoutEngine : public ScannerTest {
 protected:
  ScannerWithoutEngine() {
    script("fail vseGlobalInit\n");
    scanner();
    new_calls();
  }
  ~ScannerWithoutEngine() override { EXPECT_THAT(new_calls(), IsEmpty()); }
};

const string no_engine = "init_scan scan engine has not been properly initialized\n";

TEST_F(ScannerWithoutEngine, FailureIsLoggedAsErrorOne) {
  EXPECT_THAT(logged(), ElementsAre(error_record("-1", 1, "Unable to initialize scan engine")));
}

TEST_F(ScannerWithoutEngine, HandlesAreRefused) {
  void* handle = this;
  EXPECT_FALSE(scanner().get_thread_scan_handler(&handle, true));
  EXPECT_EQ(handle, nullptr);
  EXPECT_FALSE(scanner().get_thread_scan_handler(&handle, false));
}

TEST_F(ScannerWithoutEngine, ReleasingDoesNothing) {
  scanner().release_thread_scan_handler(nullptr);
}

TEST_F(ScannerWithoutEngine, ScanByPathFindsNothingAndSaysWhy) {
  EXPECT_EQ(scan(nullptr, "!code 1\n"), 0);
  EXPECT_THAT(logged(), ElementsAre(testing::_, no_engine));
}

TEST_F(ScannerWithoutEngine, ScanByDescriptorFindsNothingAndSaysWhy) {
  EXPECT_EQ(scan_descriptor(nullptr, "!code 1\n"), 0);
  EXPECT_THAT(logged(), ElementsAre(testing::_, no_engine));
}

TEST_F(ScannerWithoutEngine, InitScanIsFalse) {
  EXPECT_FALSE(scanner().init_scan(nullptr, ConfParser::REPORT, "/f"));
}

TEST_F(ScannerWithoutEngine, UpdatesAreRefused) {
  directory_.put("antivir.def", "");
  EXPECT_FALSE(scanner().apply_update(directory_.path()));
}

// Handles

TEST_F(ScannerTest, HandleIsMadeThenGivenTheMaskThenTheSessionOptions) {
  void* handle = nullptr;
  EXPECT_TRUE(scanner().get_thread_scan_handler(&handle, true));
  EXPECT_EQ(handle, reinterpret_cast<void*>(4097));
  EXPECT_THAT(calls(), ElementsAre("vseGlobalInit key=null result=0", engine_init(2),
                                   default_ignore_mask, session_options));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ScannerTest, HandleWithoutSettingsIsOnlyMade) {
  scanner();
  new_calls();
  void* handle = nullptr;
  EXPECT_TRUE(scanner().get_thread_scan_handler(&handle, false));
  EXPECT_EQ(handle, reinterpret_cast<void*>(4097));
  EXPECT_THAT(new_calls(), ElementsAre(engine_init(2)));
}

TEST_F(ScannerTest, EveryThreadGetsAHandleOfItsOwn) {
  void* first = handle();
  EXPECT_NE(handle(), first);
}

TEST_F(ScannerTest, ReleasedHandleGoesBackToTheEngine) {
  void* released = handle();
  new_calls();
  scanner().release_thread_scan_handler(released);
  EXPECT_THAT(new_calls(), ElementsAre("vseRelease handle=1 result=0"));
}

TEST_F(ScannerTest, HandleThatCannotBeMadeIsRefusedWithoutAWord) {
  script("fail vseInit\n");
  scanner();
  new_calls();
  void* handle = this;
  EXPECT_FALSE(scanner().get_thread_scan_handler(&handle, true));
  EXPECT_EQ(handle, nullptr);
  EXPECT_THAT(new_calls(), ElementsAre(failed_init));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ScannerTest, HandleCanBeMadeAfterOneThatCouldNot) {
  script("fail vseInit 1\n");
  void* handle = nullptr;
  EXPECT_FALSE(scanner().get_thread_scan_handler(&handle, true));
  EXPECT_TRUE(scanner().get_thread_scan_handler(&handle, true));
}

TEST_F(ScannerTest, RejectedIgnoreMaskIsLoggedAsErrorNineAndTheHandleIsUsable) {
  script("fail vseSet:40\n");
  void* handle = nullptr;
  EXPECT_TRUE(scanner().get_thread_scan_handler(&handle, true));
  EXPECT_THAT(calls(), ElementsAre("vseGlobalInit key=null result=0", engine_init(2),
                                   engine_set(40, 0, 8, "12", -1), session_options));
  EXPECT_THAT(logged(),
              ElementsAre(error_record("4097", 9, "failed to set ignore flags while avsdk init")));
}

TEST_F(ScannerTest, HandleWhoseOptionsAreRejectedIsRefusedAndGivenBack) {
  script("fail vseSet:9\n");
  void* handle = this;
  EXPECT_FALSE(scanner().get_thread_scan_handler(&handle, true));
  EXPECT_EQ(handle, nullptr);
  EXPECT_THAT(calls(),
              ElementsAre("vseGlobalInit key=null result=0", engine_init(2), default_ignore_mask,
                          engine_set(9, 0, 4, "242", -1), "vseRelease handle=1 result=0"));
  EXPECT_THAT(logged(), IsEmpty());
}

// Definition families

class ScannerFamily : public ScannerTest,
                      public testing::WithParamInterface<std::pair<int, unsigned>> {};

TEST_P(ScannerFamily, GivesTheFlagsOfItsHandles) {
  const auto [family, flags] = GetParam();
  config().DefinitionType = static_cast<ConfParser::definition_type_t>(family);
  handle();
  EXPECT_THAT(calls(), testing::Contains(engine_init(flags)));
}

INSTANTIATE_TEST_SUITE_P(EachAndWhatIsNone, ScannerFamily,
                         testing::Values(std::pair(0, 2U), std::pair(1, 14U), std::pair(2, 18U),
                                         std::pair(3, 2U)));

TEST_F(ScannerTest, FamilyFlagsWithoutTheConstantOne) {
  EXPECT_EQ(AVSDK_scanner::get_definition_type(ConfParser::LEGACY), 0U);
  EXPECT_EQ(AVSDK_scanner::get_definition_type(ConfParser::V2), 12U);
  EXPECT_EQ(AVSDK_scanner::get_definition_type(ConfParser::V2S), 16U);
  EXPECT_EQ(AVSDK_scanner::get_definition_type(static_cast<ConfParser::definition_type_t>(3)), 0U);
}

// The ignore mask

struct Ignored {
  bool GlobalConfig::*setting;
  std::uint64_t mask;
};

void PrintTo(const Ignored& ignored, std::ostream* out) {
  *out << std::showbase << std::hex << ignored.mask;
}

class ScannerMask : public ScannerTest, public testing::WithParamInterface<Ignored> {
 protected:
  static void ignore_nothing() {
    config().IgnoreAdwareDetections = false;
    config().IgnoreApplicationDetections = false;
  }
};

TEST_P(ScannerMask, HasOneBitForTheSetting) {
  ignore_nothing();
  config().*GetParam().setting = true;
  handle();
  EXPECT_EQ(calls().at(2), engine_set(40, 0, 8, std::to_string(GetParam().mask)));
}

INSTANTIATE_TEST_SUITE_P(EachSetting, ScannerMask,
                         testing::Values(Ignored{&GlobalConfig::IgnoreAdwareDetections, 0x4},
                                         Ignored{&GlobalConfig::IgnoreApplicationDetections, 0x8},
                                         Ignored{&GlobalConfig::IgnoreArchiveBombDetections, 0x20},
                                         Ignored{&GlobalConfig::IgnoreJokeDetections, 0x1000},
                                         Ignored{&GlobalConfig::IgnoreRemoteTemplateDetections,
                                                 0x100000},
                                         Ignored{&GlobalConfig::IgnoreSpywareDetections, 0x400000},
                                         Ignored{&GlobalConfig::IgnoreToolDetections, 0x800000}));

TEST_F(ScannerMask, OfNothingIsNeverSet) {
  ignore_nothing();
  handle();
  EXPECT_THAT(calls(),
              ElementsAre("vseGlobalInit key=null result=0", engine_init(2), session_options));
}

TEST_F(ScannerMask, OfEverythingHasAllSevenBits) {
  config().IgnoreArchiveBombDetections = true;
  config().IgnoreJokeDetections = true;
  config().IgnoreRemoteTemplateDetections = true;
  config().IgnoreSpywareDetections = true;
  config().IgnoreToolDetections = true;
  handle();
  EXPECT_EQ(calls().at(2), engine_set(40, 0, 8, std::to_string(0xd0102c)));
}

// One scan

TEST_F(ScannerTest, ScanByPathSetsActionDepthAndLimitThenScans) {
  void* scanning = handle();
  new_calls();
  scanner().scan_file(scanning, "/no/file", 3, ConfParser::DISINFECT, 77);
  EXPECT_THAT(
      new_calls(),
      ElementsAre(engine_set(4, 0, 4, "1"), engine_set(30, 0, 4, "3"), engine_set(7, 6, 4, "77"),
                  "vseExec handle=1 operation=1 path=\"/no/file\" fd=-1 result=0"));
}

TEST_F(ScannerTest, ScanByDescriptorSetsActionDepthAndLimitThenScans) {
  void* scanning = handle();
  new_calls();
  const int fd = open(directory_.put("file", "").c_str(), O_RDONLY | O_CLOEXEC);
  scanner().scan_file(scanning, fd, "/named", 5, ConfParser::DELETE, 0);
  EXPECT_THAT(new_calls(), ElementsAre(engine_set(4, 0, 4, "2"), engine_set(30, 0, 4, "5"),
                                       engine_set(7, 6, 4, "0"),
                                       "vseExec handle=1 operation=9 path=\"/named\" fd=" +
                                           std::to_string(fd) + " result=0"));
  close(fd);
}

TEST_F(ScannerTest, EveryScanSetsItsOwnValues) {
  void* scanning = handle();
  scanner().scan_file(scanning, "/a", 3, ConfParser::DELETE, 77);
  new_calls();
  scanner().scan_file(scanning, "/b", 2, ConfParser::REPORT, 0);
  EXPECT_THAT(new_calls(), ElementsAre(engine_set(4, 0, 4, "0"), engine_set(30, 0, 4, "2"),
                                       engine_set(7, 6, 4, "0"),
                                       "vseExec handle=1 operation=1 path=\"/b\" fd=-1 result=0"));
}

TEST_F(ScannerTest, DescriptorStaysTheCallers) {
  const int fd = open(directory_.put("file", "").c_str(), O_RDONLY | O_CLOEXEC);
  scanner().scan_file(handle(), fd, "/named", 2, ConfParser::REPORT, 0);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(ScannerTest, ActionThatIsNoneSetsTwo) {
  void* scanning = handle();
  for (const int action : {3, -1, 99}) {
    new_calls();
    scanner().scan_file(scanning, "/f", 2, static_cast<ConfParser::detect_action_t>(action), 0);
    EXPECT_EQ(new_calls().at(0), engine_set(4, 0, 4, "2")) << action;
  }
}

TEST_F(ScannerTest, ScannerTypeOfEveryAction) {
  EXPECT_EQ(scanner().get_scanner_type(ConfParser::REPORT), 0);
  EXPECT_EQ(scanner().get_scanner_type(ConfParser::DISINFECT), 1);
  EXPECT_EQ(scanner().get_scanner_type(ConfParser::DELETE), 2);
  EXPECT_EQ(scanner().get_scanner_type(static_cast<ConfParser::detect_action_t>(3)), 2);
  EXPECT_EQ(scanner().get_scanner_type(static_cast<ConfParser::detect_action_t>(-1)), 2);
}

TEST_F(ScannerTest, ScanIsLoggedWithItsSessionAndPath) {
  scanner().scan_file(handle(), "/f", 2, ConfParser::REPORT, 0);
  EXPECT_THAT(logged(), ElementsAre("File scan: Session ID: 4097\nPath: \"/f\"\n"));
}

TEST_F(ScannerTest, ScanIsNotLoggedAtLevelOne) {
  config().Loglevel = 1;
  scanner().scan_file(handle(), "/f", 2, ConfParser::REPORT, 0);
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ScannerTest, HandleAboveTheSignedRangeIsANegativeSession) {
  const std::uintptr_t top = std::numeric_limits<std::uintptr_t>::max() - 0xfff;
  script("handle-base " + std::to_string(top) + "\n");
  scanner().scan_file(handle(), "/f", 2, ConfParser::REPORT, 0);
  EXPECT_THAT(logged(), ElementsAre("File scan: Session ID: -4095\nPath: \"/f\"\n"));
}

TEST_F(ScannerTest, SessionIsTheWholeHandle) {
  constexpr auto base =
      static_cast<std::uintptr_t>(0x123456789000);  // as much as there is room for
  script("handle-base " + std::to_string(base) + "\n");
  scanner().scan_file(handle(), "/f", 2, ConfParser::REPORT, 0);
  EXPECT_THAT(logged(), ElementsAre("File scan: Session ID: " + std::to_string(base + 1) +
                                    "\nPath: \"/f\"\n"));
}

TEST_F(ScannerTest, RejectedActionIsLoggedAsErrorNineAndTheScanIsMade) {
  script("fail vseSet:4\n");
  EXPECT_EQ(scan(handle(), "!code 1\n"), 1);
  EXPECT_THAT(
      logged(),
      ElementsAre(error_record("-1", 9, "Unable to set property scan action in AVSDK engine"),
                  HasSubstr("File scan: ")));
}

TEST_F(ScannerTest, RejectedLimitsAreNotLoggedAndTheScanIsMade) {
  script("fail vseSet:30\nfail vseSet:7\n");
  EXPECT_EQ(scan(handle(), "!code 1\n"), 1);
  EXPECT_THAT(logged(), ElementsAre(HasSubstr("File scan: ")));
}

TEST_F(ScannerTest, ScanThatFailsFindsNothingAndIsNotLogged) {
  script("fail vseExec\n");
  void* scanning = handle();
  EXPECT_EQ(scan(scanning, "!code 1\n"), 0);
  EXPECT_EQ(scan_descriptor(scanning, "!code 1\n"), 0);
  EXPECT_THAT(logged(), ElementsAre(HasSubstr("File scan: "), HasSubstr("File scan: ")));
}

TEST_F(ScannerTest, InitScanSetsTheActionAndLogsTheScan) {
  void* scanning = handle();
  new_calls();
  EXPECT_TRUE(scanner().init_scan(scanning, ConfParser::DISINFECT, "/f"));
  EXPECT_THAT(new_calls(), ElementsAre(engine_set(4, 0, 4, "1")));
  EXPECT_THAT(logged(), ElementsAre("File scan: Session ID: 4097\nPath: \"/f\"\n"));
}

// The engine's codes

struct Fold {
  int code;
  int outcome;
};

void PrintTo(const Fold& fold, std::ostream* out) {
  *out << fold.code << " to " << fold.outcome;
}

class ScannerFold : public ScannerTest, public testing::WithParamInterface<Fold> {};

TEST_P(ScannerFold, OfAScanByPath) {
  EXPECT_EQ(scan(handle(), "!code " + std::to_string(GetParam().code) + "\n"), GetParam().outcome);
}

TEST_P(ScannerFold, OfAScanByDescriptor) {
  EXPECT_EQ(scan_descriptor(handle(), "!code " + std::to_string(GetParam().code) + "\n"),
            GetParam().outcome);
}

TEST_P(ScannerFold, IsInfectedAgrees) {
  EXPECT_EQ(scanner().is_infected(GetParam().code), GetParam().outcome != 0);
}

INSTANTIATE_TEST_SUITE_P(Codes, ScannerFold,
                         testing::Values(Fold{0, 0}, Fold{1, 1}, Fold{2, 1}, Fold{3, 0}, Fold{4, 0},
                                         Fold{5, 0}, Fold{6, 0}, Fold{7, 2}, Fold{8, 0},
                                         Fold{-1, 0}, Fold{257, 0}));

TEST_F(ScannerTest, CodeThreeIsNothingAlthoughSomethingWasFound) {
  EXPECT_EQ(scan(handle(), "!detect code=3\n"), 0);
  EXPECT_THAT(logged(), Not(IsEmpty()));
  EXPECT_THAT(logged().back(), HasSubstr("infection detected in: "));
}

}  // namespace
