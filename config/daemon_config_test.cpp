#include "daemon_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "log_records.h"

namespace {

using std::string;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

GlobalConfig& settings() {
  return *GlobalConfig::getGlobalConfig();
}

class DaemonConfigTest : public testing::Test {
 protected:
  /// For the tests that read a file: what that logs stays in the test's own folder.
  int parse(const string& text) {
    log_here();
    return settings().parseFile(directory_.put("settings", text).c_str());
  }

  void log_here() {
    settings().LogPath = directory_.path();
    settings().Loglevel = 1;
    settings().configure_logger();
  }

  std::vector<string> logged() const { return log_records(directory_.path("pelowatchd.log")); }

  TempDirectory directory_;
};

// Defaults

TEST_F(DaemonConfigTest, Defaults) {
  EXPECT_EQ(settings().MaxThreads, 5);
  EXPECT_EQ(settings().MaxRecursion, 5);
  EXPECT_EQ(settings().MaxArchiveDepth, 2);
  EXPECT_EQ(settings().MaxCacheEntries, 1000);
  EXPECT_EQ(settings().ScheduledMaxArchiveDepth, 5);
  EXPECT_EQ(settings().DecompressLimit, 0);
  EXPECT_EQ(settings().DatabaseDirectory, "/opt/pelo/share");
  EXPECT_EQ(settings().StagingDirectory, "/tmp");
  EXPECT_EQ(settings().ScanEngineDirectory, "/opt/pelo/lib64/");
  EXPECT_EQ(settings().LogPath, "/var/log");
  EXPECT_EQ(settings().ConfPath, "/opt/pelo/etc");
  EXPECT_THAT(settings().IncludeList, IsEmpty());
  EXPECT_THAT(settings().ExcludeDirectory, IsEmpty());
  EXPECT_THAT(settings().ExcludeFile, IsEmpty());
  EXPECT_EQ(settings().CloudAccessKey, "");
  EXPECT_TRUE(settings().IgnoreAdwareDetections);
  EXPECT_TRUE(settings().IgnoreApplicationDetections);
  EXPECT_FALSE(settings().IgnoreArchiveBombDetections);
  EXPECT_FALSE(settings().IgnoreJokeDetections);
  EXPECT_FALSE(settings().IgnoreRemoteTemplateDetections);
  EXPECT_FALSE(settings().IgnoreSpywareDetections);
  EXPECT_FALSE(settings().IgnoreToolDetections);
  EXPECT_TRUE(settings().ScanArchive);
  EXPECT_FALSE(settings().EnableCloudScanning);
  EXPECT_FALSE(settings().AsyncLogging);
  EXPECT_EQ(settings().HoldLimit, 30);
  EXPECT_TRUE(settings().mount_tracking);
  EXPECT_EQ(settings().DefaultAction, ConfParser::REPORT);
  EXPECT_EQ(settings().DefinitionType, ConfParser::LEGACY);
  EXPECT_EQ(settings().Loglevel, 2);
  EXPECT_EQ(settings().Maxlog, 16777216U);
}

TEST_F(DaemonConfigTest, IsOneRecordForTheProcess) {
  EXPECT_EQ(GlobalConfig::getGlobalConfig(), GlobalConfig::getGlobalConfig());
}

// Keys

struct Key {
  const char* line;
  std::function<bool()> applied;  ///< whether the setting holds what the line says
};

void PrintTo(const Key& key, std::ostream* out) {
  *out << key.line;
}

class DaemonConfigKey : public DaemonConfigTest, public testing::WithParamInterface<Key> {};

TEST_P(DaemonConfigKey, SetsItsField) {
  EXPECT_FALSE(GetParam().applied());
  EXPECT_EQ(parse(string(GetParam().line) + "\n"), 0);
  EXPECT_TRUE(GetParam().applied());
}

using Texts = std::list<string>;

INSTANTIATE_TEST_SUITE_P(
    Each, DaemonConfigKey,
    testing::Values(
        Key{"MaxThreads 8", [] { return settings().MaxThreads == 8; }},
        Key{"MaxRecursion 9", [] { return settings().MaxRecursion == 9; }},
        Key{"MaxArchiveDepth 7", [] { return settings().MaxArchiveDepth == 7; }},
        Key{"MaxCacheEntries 20", [] { return settings().MaxCacheEntries == 20; }},
        Key{"ScheduledMaxArchiveDepth 6", [] { return settings().ScheduledMaxArchiveDepth == 6; }},
        Key{"DecompressLimit 77", [] { return settings().DecompressLimit == 77; }},
        Key{"ScanArchive no", [] { return !settings().ScanArchive; }},
        Key{"DatabaseDirectory /d", [] { return settings().DatabaseDirectory == "/d"; }},
        Key{"StagingDirectory /s", [] { return settings().StagingDirectory == "/s"; }},
        Key{"ScanEngineDirectory /e", [] { return settings().ScanEngineDirectory == "/e"; }},
        Key{"IncludeDirectory /i", [] { return settings().IncludeList == Texts{"/i"}; }},
        Key{"IncludeFile /f", [] { return settings().IncludeList == Texts{"/f"}; }},
        Key{"ExcludeDirectory /x", [] { return settings().ExcludeDirectory == Texts{"/x"}; }},
        Key{"ExcludeFile /y", [] { return settings().ExcludeFile == Texts{"/y"}; }},
        Key{"CloudAccessKey ab cd", [] { return settings().CloudAccessKey == "ab cd"; }},
        Key{"IgnoreAdwareDetections no", [] { return !settings().IgnoreAdwareDetections; }},
        Key{"IgnoreApplicationDetections 0",
            [] { return !settings().IgnoreApplicationDetections; }},
        Key{"IgnoreArchiveBombDetections yes",
            [] { return settings().IgnoreArchiveBombDetections; }},
        Key{"IgnoreJokeDetections 1", [] { return settings().IgnoreJokeDetections; }},
        Key{"IgnoreRemoteTemplateDetections YES",
            [] { return settings().IgnoreRemoteTemplateDetections; }},
        Key{"IgnoreSpywareDetections Yes", [] { return settings().IgnoreSpywareDetections; }},
        Key{"IgnoreToolDetections yes", [] { return settings().IgnoreToolDetections; }},
        Key{"EnableCloudScanning yes", [] { return settings().EnableCloudScanning; }},
        Key{"DefaultAction delete", [] { return settings().DefaultAction == ConfParser::DELETE; }},
        Key{"DefinitionType V2S", [] { return settings().DefinitionType == ConfParser::V2S; }},
        Key{"Loglevel 3", [] { return settings().Loglevel == 3; }},
        Key{"Maxlog 4", [] { return settings().Maxlog == 4194304; }},
        Key{"ConfPath /c", [] { return settings().ConfPath == "/c"; }},
        Key{"AsyncLogging yes", [] { return settings().AsyncLogging; }},
        Key{"HoldLimit 7", [] { return settings().HoldLimit == 7; }}));

TEST_F(DaemonConfigTest, LogPathKeySetsItsField) {
  EXPECT_EQ(parse("LogPath " + directory_.path("logs") + "\n"), 0);
  EXPECT_EQ(settings().LogPath, directory_.path("logs"));
}

TEST_F(DaemonConfigTest, KeysAreCaseSensitive) {
  parse("maxthreads 9\nMAXTHREADS 9\n");
  EXPECT_EQ(settings().MaxThreads, 5);
}

TEST_F(DaemonConfigTest, NoKeySwitchesMountTrackingOff) {
  parse("mount_tracking no\nMountTracking no\n");
  EXPECT_TRUE(settings().mount_tracking);
}

TEST_F(DaemonConfigTest, UnknownKeysAreAcceptedWithoutAWord) {
  EXPECT_EQ(parse(""), 0);
  const std::vector<string> empty_file = logged();
  directory_.put("pelowatchd.log", "");
  EXPECT_EQ(parse("NoSuchKey 1\n= = =\n\x01\xff\n"), 0);
  EXPECT_EQ(logged(), empty_file);
}

// Values

TEST_F(DaemonConfigTest, MaxlogIsOfMebibytesAndOtherwiseTheDefault) {
  for (const auto& [value, bytes] : {std::pair("0", 0ULL), std::pair("8192", 8589934592ULL)}) {
    parse(string("Maxlog ") + value + "\n");
    EXPECT_EQ(settings().Maxlog, bytes);
  }
  settings().Maxlog = GlobalConfig().Maxlog;
  parse("Maxlog lots\n");
  EXPECT_EQ(settings().Maxlog, 16777216U);
}

TEST_F(DaemonConfigTest, WordWhereANumberBelongsIsLoggedAndLeavesTheDefault) {
  parse("MaxThreads many\n");
  EXPECT_EQ(settings().MaxThreads, 5);
  EXPECT_EQ(count_record(logged(), "get ConfParser::get(): Exception: \n"), 1);
}

TEST_F(DaemonConfigTest, BadActionAndFamilyWordsAreLoggedAndLeaveTheDefaults) {
  settings().DefaultAction = ConfParser::DISINFECT;
  settings().DefinitionType = ConfParser::V2;
  parse("DefaultAction quarantine\nDefinitionType V9\n");
  EXPECT_EQ(settings().DefaultAction, ConfParser::DISINFECT);
  EXPECT_EQ(settings().DefinitionType, ConfParser::V2);
  EXPECT_EQ(count_record(logged(), "get ConfParser::get(): Exception: \n"), 2);
}

TEST_F(DaemonConfigTest, BadBoolWordReadsAsFalse) {
  parse("ScanArchive perhaps\n");
  EXPECT_FALSE(settings().ScanArchive);
  EXPECT_EQ(count_record(logged(), "get ConfParser::get(): Exception: \n"), 0);
}

TEST_F(DaemonConfigTest, IncludeListHoldsDirectoriesThenFilesWhateverTheirLines) {
  parse("IncludeFile /b1\nIncludeDirectory /a1\nIncludeFile /b2\nIncludeDirectory /a2\n");
  EXPECT_THAT(settings().IncludeList, ElementsAre("/a1", "/a2", "/b1", "/b2"));
}

TEST_F(DaemonConfigTest, ExclusionsKeepDirectoriesAndFilesApart) {
  parse("ExcludeFile /f1\nExcludeDirectory /d1\nExcludeFile /f2\nExcludeDirectory /d2\n");
  EXPECT_THAT(settings().ExcludeDirectory, ElementsAre("/d1", "/d2"));
  EXPECT_THAT(settings().ExcludeFile, ElementsAre("/f1", "/f2"));
}

TEST_F(DaemonConfigTest, ValueSetBeforeStaysUntilAFileHasItsKey) {
  settings().CloudAccessKey = "from the command line";
  parse("MaxThreads 1\n");
  EXPECT_EQ(settings().CloudAccessKey, "from the command line");
  parse("CloudAccessKey from the file\n");
  EXPECT_EQ(settings().CloudAccessKey, "from the file");
}

TEST_F(DaemonConfigTest, SecondFileDoesNotRepeatWhatTheFirstSaid) {
  parse("MaxThreads 8\nIncludeFile /a\n");
  settings().MaxThreads = 3;
  parse("IncludeFile /b\n");
  EXPECT_EQ(settings().MaxThreads, 3);
  EXPECT_THAT(settings().IncludeList, ElementsAre("/a", "/b"));
}

// What reading logs

// In the order in which the keys are read: twice for a converted value, once for a text, and a
// bare "get" for a list.
std::vector<string> complaints_of_an_empty_file() {
  std::vector<string> expected;
  const auto add = [&expected](const string& key, int times) {
    const string line = "get ConfParser::get(): " + key + " does not exist in the config\n";
    expected.insert(expected.end(), static_cast<std::size_t>(times), line);
  };
  for (const char* key : {"MaxThreads", "MaxRecursion", "MaxArchiveDepth", "MaxCacheEntries",
                          "ScheduledMaxArchiveDepth", "DecompressLimit", "ScanArchive"}) {
    add(key, 2);
  }
  for (const char* key : {"DatabaseDirectory", "StagingDirectory", "ScanEngineDirectory"}) {
    add(key, 1);
  }
  expected.insert(expected.end(), 4, "get \n");
  add("CloudAccessKey", 1);
  for (const char* key :
       {"IgnoreAdwareDetections", "IgnoreApplicationDetections", "IgnoreArchiveBombDetections",
        "IgnoreJokeDetections", "IgnoreRemoteTemplateDetections", "IgnoreSpywareDetections",
        "IgnoreToolDetections", "EnableCloudScanning", "DefaultAction", "DefinitionType",
        "Loglevel"}) {
    add(key, 2);
  }
  add("LogPath", 1);
  add("Maxlog", 2);
  add("ConfPath", 1);
  add("AsyncLogging", 2);
  return expected;
}

TEST_F(DaemonConfigTest, EveryMissingKeyIsLoggedInTheOrderOfTheKeys) {
  parse("");
  EXPECT_THAT(logged(), ElementsAreArray(complaints_of_an_empty_file()));
}

TEST_F(DaemonConfigTest, FileThatCannotBeReadIsAcceptedLikeAnEmptyOne) {
  for (const char* name : {"no-such-file", "."}) {
    directory_.put("pelowatchd.log", "");
    log_here();
    EXPECT_EQ(settings().parseFile(directory_.path(name).c_str()), 0);
    EXPECT_EQ(settings().MaxThreads, 5);
    EXPECT_THAT(logged(), ElementsAreArray(complaints_of_an_empty_file()));
  }
}

TEST_F(DaemonConfigTest, WhatReadingLogsLandsWhereTheFileSaysWhateverItsOrder) {
  parse("MaxThreads many\nLogPath " + directory_.path("logs") + "\n");
  EXPECT_THAT(log_records(directory_.path("logs/pelowatchd.log")),
              Contains("get ConfParser::get(): Exception: \n"));
  EXPECT_FALSE(std::filesystem::exists(directory_.path("pelowatchd.log")));
}

TEST_F(DaemonConfigTest, LogPathGivenTwiceIsTheFirst) {
  parse("LogPath " + directory_.path("one") + "\nLogPath " + directory_.path("two") + "\n");
  EXPECT_EQ(settings().LogPath, directory_.path("one"));
}

// Derived names

TEST_F(DaemonConfigTest, FilesAreTheSameWithAndWithoutTrailingSlash) {
  EXPECT_EQ(settings().getCommandsFileName(), "/opt/pelo/etc/sdcommands.conf");
  for (const auto& [folder, log] : {std::pair("/var/log", "/var/log/pelowatchd.log"),
                                    std::pair("/var/log/", "/var/log/pelowatchd.log"),
                                    std::pair("/var/log//", "/var/log//pelowatchd.log")}) {
    settings().LogPath = folder;
    EXPECT_EQ(settings().GetLogFilePath(), log);
  }
  settings().ConfPath = "/etc/pelo/";
  EXPECT_EQ(settings().getCommandsFileName(), "/etc/pelo/sdcommands.conf");
}

TEST_F(DaemonConfigTest, IsExcludedComparesBothExcludeListsCharacterForCharacter) {
  settings().ExcludeDirectory = {"/a", "/b"};
  settings().ExcludeFile = {"/c"};
  settings().IncludeList = {"/d"};
  for (const char* path : {"/a", "/b", "/c"}) {
    EXPECT_TRUE(settings().isExcluded(path)) << path;
  }
  for (const char* path : {"/a/", "/A", "/a/b", "", "/d"}) {
    EXPECT_FALSE(settings().isExcluded(path)) << path;
  }
}

TEST(TrimmedInclude, IsCutAndThenLosesOneSlash) {
  EXPECT_EQ(trimmed_include("/a/b"), "/a/b");
  EXPECT_EQ(trimmed_include("/a/b//"), "/a/b/");
  EXPECT_EQ(trimmed_include("/"), "");
  EXPECT_EQ(trimmed_include(""), "");
  EXPECT_EQ(trimmed_include(string(4094, 'x') + "/y"), string(4094, 'x'));
}

}  // namespace
