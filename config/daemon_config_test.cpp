#include "daemon_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log_records.h"

namespace {

using std::string;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

class DaemonConfigTest : public testing::Test {
 protected:
  /// Has a configuration read a file. What that logs stays in the test's own folder.
  void parse(GlobalConfig& config, const string& text) const {
    config.LogPath = directory_.path();
    config.Loglevel = 1;
    EXPECT_EQ(config.parseFile(directory_.put("settings", text).c_str()), 0);
  }
  void parse(const string& text) { parse(config_, text); }

  std::vector<string> logged() const { return log_records(directory_.path("pelowatchd.log")); }

  TempDirectory directory_;
  GlobalConfig config_;
};

TEST_F(DaemonConfigTest, Defaults) {
  EXPECT_EQ(config_.MaxThreads, 5);
  EXPECT_EQ(config_.MaxRecursion, 5);
  EXPECT_EQ(config_.MaxArchiveDepth, 2);
  EXPECT_EQ(config_.MaxCacheEntries, 1000);
  EXPECT_EQ(config_.ScheduledMaxArchiveDepth, 5);
  EXPECT_EQ(config_.DecompressLimit, 0);
  EXPECT_EQ(config_.DatabaseDirectory, "/opt/pelo/share");
  EXPECT_EQ(config_.StagingDirectory, "/tmp");
  EXPECT_EQ(config_.ScanEngineDirectory, "/opt/pelo/lib64/");
  EXPECT_EQ(config_.LogPath, "/var/log");
  EXPECT_EQ(config_.ConfPath, "/opt/pelo/etc");
  EXPECT_THAT(config_.IncludeList, IsEmpty());
  EXPECT_THAT(config_.ExcludeDirectory, IsEmpty());
  EXPECT_THAT(config_.ExcludeFile, IsEmpty());
  EXPECT_EQ(config_.CloudAccessKey, "");
  EXPECT_TRUE(config_.IgnoreAdwareDetections);
  EXPECT_TRUE(config_.IgnoreApplicationDetections);
  EXPECT_FALSE(config_.IgnoreArchiveBombDetections);
  EXPECT_FALSE(config_.IgnoreJokeDetections);
  EXPECT_FALSE(config_.IgnoreRemoteTemplateDetections);
  EXPECT_FALSE(config_.IgnoreSpywareDetections);
  EXPECT_FALSE(config_.IgnoreToolDetections);
  EXPECT_TRUE(config_.ScanArchive);
  EXPECT_FALSE(config_.EnableCloudScanning);
  EXPECT_FALSE(config_.AsyncLogging);
  EXPECT_EQ(config_.HoldLimit, 30);
  EXPECT_TRUE(config_.mount_tracking);
  EXPECT_EQ(config_.DefaultAction, ConfParser::REPORT);
  EXPECT_EQ(config_.DefinitionType, ConfParser::LEGACY);
  EXPECT_EQ(config_.Loglevel, 2);
  EXPECT_EQ(config_.Maxlog, 16777216U);
}

// Keys and values

using C = const GlobalConfig&;
using Texts = std::list<string>;

constexpr int bare = -1;

struct Key {
  const char* line;
  bool (*applied)(C);  ///< whether the setting holds what the line says
  int missed = 2;      ///< how often it is logged that the key is missing; bare: without its name
};

const Key keys[] = {
    {"MaxThreads 8", [](C c) { return c.MaxThreads == 8; }},
    {"MaxRecursion 9", [](C c) { return c.MaxRecursion == 9; }},
    {"MaxArchiveDepth 7", [](C c) { return c.MaxArchiveDepth == 7; }},
    {"MaxCacheEntries 20", [](C c) { return c.MaxCacheEntries == 20; }},
    {"ScheduledMaxArchiveDepth 6", [](C c) { return c.ScheduledMaxArchiveDepth == 6; }},
    {"DecompressLimit 77", [](C c) { return c.DecompressLimit == 77; }},
    {"ScanArchive no", [](C c) { return !c.ScanArchive; }},
    {"DatabaseDirectory /d", [](C c) { return c.DatabaseDirectory == "/d"; }, 1},
    {"StagingDirectory /s", [](C c) { return c.StagingDirectory == "/s"; }, 1},
    {"ScanEngineDirectory /e", [](C c) { return c.ScanEngineDirectory == "/e"; }, 1},
    {"IncludeDirectory /i", [](C c) { return c.IncludeList == Texts{"/i"}; }, bare},
    {"IncludeFile /f", [](C c) { return c.IncludeList == Texts{"/f"}; }, bare},
    {"ExcludeDirectory /x", [](C c) { return c.ExcludeDirectory == Texts{"/x"}; }, bare},
    {"ExcludeFile /y", [](C c) { return c.ExcludeFile == Texts{"/y"}; }, bare},
    {"CloudAccessKey ab cd", [](C c) { return c.CloudAccessKey == "ab cd"; }, 1},
    {"IgnoreAdwareDetections no", [](C c) { return !c.IgnoreAdwareDetections; }},
    {"IgnoreApplicationDetections 0", [](C c) { return !c.IgnoreApplicationDetections; }},
    {"IgnoreArchiveBombDetections yes", [](C c) { return c.IgnoreArchiveBombDetections; }},
    {"IgnoreJokeDetections 1", [](C c) { return c.IgnoreJokeDetections; }},
    {"IgnoreRemoteTemplateDetections YES", [](C c) { return c.IgnoreRemoteTemplateDetections; }},
    {"IgnoreSpywareDetections Yes", [](C c) { return c.IgnoreSpywareDetections; }},
    {"IgnoreToolDetections yes", [](C c) { return c.IgnoreToolDetections; }},
    {"EnableCloudScanning yes", [](C c) { return c.EnableCloudScanning; }},
    {"DefaultAction delete", [](C c) { return c.DefaultAction == ConfParser::DELETE; }},
    {"DefinitionType V2S", [](C c) { return c.DefinitionType == ConfParser::V2S; }},
    {"Loglevel 3", [](C c) { return c.Loglevel == 3; }},
    {"Maxlog 4", [](C c) { return c.Maxlog == 4194304; }},
    {"ConfPath /c", [](C c) { return c.ConfPath == "/c"; }, 1},
    {"AsyncLogging yes", [](C c) { return c.AsyncLogging; }},
    {"HoldLimit 7", [](C c) { return c.HoldLimit == 7; }, 0}};

TEST_F(DaemonConfigTest, EveryKeySetsItsField) {
  for (const Key& key : keys) {
    GlobalConfig config;
    EXPECT_FALSE(key.applied(config)) << key.line;
    parse(config, key.line);
    EXPECT_TRUE(key.applied(config)) << key.line;
  }
}

TEST_F(DaemonConfigTest, MaxlogIsOfMebibytes) {
  for (const auto& [value, bytes] : {std::pair("0", 0ULL), std::pair("8192", 8589934592ULL)}) {
    parse(string("Maxlog ") + value + "\n");
    EXPECT_EQ(config_.Maxlog, bytes);
  }
}

TEST_F(DaemonConfigTest, WhatDoesNotConvertIsLoggedAndLeavesTheDefaultButAWordReadsAsFalse) {
  config_.DefaultAction = ConfParser::DISINFECT;
  config_.DefinitionType = ConfParser::V2;
  parse(
      "MaxThreads many\nMaxlog lots\nDefaultAction quarantine\nDefinitionType V9\n"
      "ScanArchive perhaps\n");
  EXPECT_EQ(config_.MaxThreads, 5);
  EXPECT_EQ(config_.Maxlog, 16777216U);
  EXPECT_EQ(config_.DefaultAction, ConfParser::DISINFECT);
  EXPECT_EQ(config_.DefinitionType, ConfParser::V2);
  EXPECT_FALSE(config_.ScanArchive);
  EXPECT_EQ(count_record(logged(), "get ConfParser::get(): Exception: \n"), 4);
}

TEST_F(DaemonConfigTest, IncludeListIsOneAndExclusionsKeepDirectoriesAndFilesApart) {
  parse(
      "IncludeFile /b1\nIncludeDirectory /a1\nIncludeFile /b2\nIncludeDirectory /a2\n"
      "ExcludeFile /f1\nExcludeDirectory /d1\nExcludeFile /f2\nExcludeDirectory /d2\n");
  EXPECT_THAT(config_.IncludeList, ElementsAre("/a1", "/a2", "/b1", "/b2"));
  EXPECT_THAT(config_.ExcludeDirectory, ElementsAre("/d1", "/d2"));
  EXPECT_THAT(config_.ExcludeFile, ElementsAre("/f1", "/f2"));
}

TEST_F(DaemonConfigTest, ValueStaysUntilALaterFileHasItsKey) {
  config_.CloudAccessKey = "from the command line";
  parse("MaxThreads 8\nIncludeFile /a\n");
  EXPECT_EQ(config_.CloudAccessKey, "from the command line");
  config_.MaxThreads = 3;
  parse("CloudAccessKey from the file\nIncludeFile /b\n");
  EXPECT_EQ(config_.CloudAccessKey, "from the file");
  EXPECT_EQ(config_.MaxThreads, 3) << "the first file does not speak again";
  EXPECT_THAT(config_.IncludeList, ElementsAre("/a", "/b"));
}

// What reading logs

// In the order in which the keys are read.
std::vector<string> complaints_of_an_empty_file() {
  std::vector<string> expected;
  const auto add = [&expected](const string& key, int missed) {
    const string text = "ConfParser::get(): " + key + " does not exist in the config";
    const string line = "get " + (missed == bare ? "" : text) + "\n";
    expected.insert(expected.end(), missed == bare ? 1U : static_cast<std::size_t>(missed), line);
  };
  for (const auto& [line, applied, missed] : keys) {
    const string key = string(line).substr(0, string(line).find(' '));
    if (key == "Maxlog") {
      add("LogPath", 1);
    }
    add(key, missed);
  }
  return expected;
}

TEST_F(DaemonConfigTest, EveryMissingKeyIsLoggedInTheirOrderAndUnknownKeysAreNot) {
  directory_.put("unknown",
                 "maxthreads 9\nMAXTHREADS 9\nmount_tracking no\nMountTracking no\n"
                 "NoSuchKey 1\n= = =\n\x01\xff\n");
  for (const char* name : {"unknown", "no-such-file", "."}) {
    directory_.put("pelowatchd.log", "");
    config_.LogPath = directory_.path();
    config_.Loglevel = 1;
    EXPECT_EQ(config_.parseFile(directory_.path(name).c_str()), 0);
    EXPECT_EQ(config_.MaxThreads, 5);
    EXPECT_TRUE(config_.mount_tracking);
    EXPECT_THAT(logged(), ElementsAreArray(complaints_of_an_empty_file()));
  }
}

TEST_F(DaemonConfigTest, WhatReadingLogsLandsWhereTheFileSaysFirstWhateverItsOrder) {
  const string logs = directory_.path("logs");
  parse("MaxThreads many\nLogPath " + logs + "\nLogPath " + directory_.path("two") + "\n");
  EXPECT_EQ(config_.LogPath, logs);
  EXPECT_THAT(log_records(logs + "/pelowatchd.log"),
              Contains("get ConfParser::get(): Exception: \n"));
  EXPECT_FALSE(std::filesystem::exists(directory_.path("pelowatchd.log")));
}

// Derived names

TEST_F(DaemonConfigTest, FilesAreTheSameWithAndWithoutTrailingSlash) {
  EXPECT_EQ(config_.getCommandsFileName(), "/opt/pelo/etc/sdcommands.conf");
  for (const auto& [folder, log] : {std::pair("/var/log", "/var/log/pelowatchd.log"),
                                    std::pair("/var/log/", "/var/log/pelowatchd.log"),
                                    std::pair("/var/log//", "/var/log//pelowatchd.log")}) {
    config_.LogPath = folder;
    EXPECT_EQ(config_.GetLogFilePath(), log);
  }
  config_.ConfPath = "/etc/pelo/";
  EXPECT_EQ(config_.getCommandsFileName(), "/etc/pelo/sdcommands.conf");
}

TEST_F(DaemonConfigTest, IsExcludedComparesBothExcludeListsCharacterForCharacter) {
  config_.ExcludeDirectory = {"/a", "/b"};
  config_.ExcludeFile = {"/c"};
  config_.IncludeList = {"/d"};
  for (const char* path : {"/a", "/b", "/c"}) {
    EXPECT_TRUE(config_.isExcluded(path)) << path;
  }
  for (const char* path : {"/a/", "/A", "/a/b", "", "/d"}) {
    EXPECT_FALSE(config_.isExcluded(path)) << path;
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
