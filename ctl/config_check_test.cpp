// What is found in configuration files.
#include "config_check.h"

#include <unistd.h>

#include "check_fixture.h"

namespace {

using std::string;
using testing::IsEmpty;

const string nul(1, '\0');

const OddSetting odd_settings[] = {
    // Keys
    {"Colour blue", "no such key, so the line is ignored"},
    {"MaxThreads=8",
     "no such key, so the line is ignored; there is no \"=\": write \"MaxThreads 8\""},
    {"MaxRecursion= 3",
     "no such key, so the line is ignored; there is no \"=\": write \"MaxRecursion 3\""},
    {"\xEF\xBB\xBFMaxThreads 8",
     "no such key, so the line is ignored: a byte order mark stands before it; save the file "
     "without one"},
    // Values
    {"MaxThreads 8 or 9", "\"8 or 9\" is no whole number, so 5 is used; write digits only"},
    {"Maxlog 16M", "\"16M\" is no whole number, so 16 MiB is used; write digits only"},
    {"MaxRecursion 99999999999", "\"99999999999\" reads as 2147483647"},
    {"Maxlog 17592186044417", "\"17592186044417\" reads as 1 MiB"},
    {"Maxlog -1", "\"-1\" reads as 17592186044415 MiB"},
    {"MaxRecursion", "has no value, which reads as 0"},
    {"DecompressLimit # none", "has no value, which reads as 0"},
    {"DefaultAction remove",
     "\"remove\" is no action, so REPORT is used; write REPORT, DISINFECT or DELETE"},
    {"DefaultAction", "has no value, so REPORT is used; write REPORT, DISINFECT or DELETE"},
    {"DefinitionType V3",
     "\"V3\" is no family of definitions, so LEGACY is used; write LEGACY, V1, V2 or V2S"},
    {"AsyncLogging true", "\"true\" reads as no; write yes or no"},
    {"EnableCloudScanning On", "\"On\" reads as no; write yes or no"},
    {"IgnoreJokeDetections 2", "\"2\" reads as no; write yes or no"},
    {"IgnoreToolDetections y", "\"y\" reads as no; write yes or no"},
    {"IgnoreSpywareDetections enabled", "\"enabled\" reads as no; write yes or no"},
    {"AsyncLogging", "has no value, which reads as no; write yes or no"},
    // Numbers
    {"MaxThreads 0",
     "no worker is started, and the daemon ends right after its start; write 1 or more"},
    {"MaxThreads 1025", "the daemon starts 1024 workers; write at most 1024"},
    {"MaxRecursion -1", "no scheduled scan looks into its folder; write 0 for the folder alone"},
    {"MaxCacheEntries 0", "the cache holds the newest path only; write 1 or more"},
    {"MaxArchiveDepth -1",
     "the engine is handed the negative number, and whether it refuses is not looked at; write 0 "
     "to look into no archive"},
    {"ScheduledMaxArchiveDepth -2",
     "the engine is handed the negative number, and whether it refuses is not looked at; write 0 "
     "to look into no archive"},
    {"DecompressLimit -3",
     "the engine is handed the negative number, and whether it refuses is not looked at; write 0 "
     "for its own limit"},
    {"Loglevel 0", "neither errors nor detections are logged; write 1, 2 or 3"},
    {"Maxlog 0", "the log is emptied before every record, so it holds one; write 1 or more"},
    // What has no effect
    {"ScanArchive no",
     "has no effect: nothing uses it; write MaxArchiveDepth 0 to look into no archive"},
    {"ScanEngineDirectory /opt/engine",
     "has no effect: nothing uses it; the engine is found by the dynamic loader"},
    {"CloudAccessKey k",
     "has no effect without EnableCloudScanning; write \"EnableCloudScanning yes\""},
    {"EnableCloudScanning yes",
     "the engine is handed an empty key, unless the daemon is started with -k; write "
     "CloudAccessKey and the key"},
    // Directories
    {"DatabaseDirectory @/nowhere",
     "\"@/nowhere\" does not exist: the engine finds no definitions there"},
    {"DatabaseDirectory @/file",
     "\"@/file\" is no directory: the engine finds no definitions there"},
    {"DatabaseDirectory", "has no value: the engine finds no definitions there"},
    {"DatabaseDirectory etc",
     "\"etc\" is relative: in the background the daemon looks for it in \"/\""},
    {"StagingDirectory @/nowhere",
     "\"@/nowhere\" does not exist: no definition update is found there"},
    {"StagingDirectory /tmp",
     "every user can write \"/tmp\", and so put definitions there; write a directory that only "
     "root can write"},
    {"LogPath @/nowhere", "\"@/nowhere\" does not exist: the daemon makes it"},
    {"LogPath @/file", "\"@/file\" is no directory: nothing is logged"},
    {"LogPath @/file/log", "\"@/file/log\" does not exist: nothing is logged"},
    {"LogPath", "has no value: the log is \"/pelowatchd.log\""},
    {"LogPath log",
     "\"log\" is relative: the log lies below the directory in which the daemon is started; write "
     "an absolute path"},
    {"ConfPath @/nowhere",
     "\"@/nowhere\" does not exist: no scheduled scan is read; the commands file is "
     "\"@/nowhere/sdcommands.conf\""},
    {"ConfPath",
     "has no value: no scheduled scan is read; the commands file is \"/sdcommands.conf\""},
    // Inclusions
    {"IncludeDirectory //",
     "no file ever matches \"//\"; write no inclusion at all to include everything"},
    {"IncludeDirectory /.",
     "no file ever matches \"/.\"; write no inclusion at all to include everything"},
    {"IncludeFile /dev/null",
     "\"/dev/null\" is neither a directory nor a regular file, and nothing else is scanned"},
    {"IncludeDirectory etc",
     "no file ever matches \"etc\": it is relative; write an absolute path"},
    {"IncludeDirectory @/link/sub",
     "no file ever matches \"@/link/sub\"; write it as the kernel does: \"@/data/sub\""},
    {"IncludeDirectory @//data",
     "no file ever matches \"@//data\"; write it as the kernel does: \"@/data\""},
    {"IncludeDirectory @/data//",
     "no file ever matches \"@/data/\"; write it as the kernel does: \"@/data\""},
    // Exclusions
    {"ExcludeDirectory @/nowhere",
     "\"@/nowhere\" does not exist, so the daemon skips it: what is made there later is scanned"},
    {"ExcludeDirectory @/data/",
     "no file ever matches \"@/data/\"; write it as the kernel does: \"@/data\""},
    {"ExcludeFile @/link",
     "no file ever matches \"@/link\"; write it as the kernel does: \"@/data\""},
    {"ExcludeDirectory etc",
     "no file ever matches \"etc\": it is relative; write an absolute path"},
    {"ExcludeDirectory /",
     "excludes no file, but leaves the file system mounted at \"/\" unwatched; write the "
     "directories that are meant"},
    {"ExcludeDirectory //", "no file ever matches \"//\"; write the directories that are meant"},
    {"ExcludeDirectory /.", "no file ever matches \"/.\"; write the directories that are meant"},
    {"ExcludeDirectory", "has no value, so the daemon skips it"}};

const CheckedFile odd_files[] = {
    {"# a comment\n\nmaxthreads 8\n",
     "3 maxthreads: no such key, so the line is ignored; write \"MaxThreads\": capitals count"},
    {"CloudAccessKey=abcd\n",
     "1 CloudAccessKey: no such key, so the line is ignored; there is no \"=\" between key and "
     "value"},
    {"CloudKey=abcd\nAccessKey=abcd\n=abcd\nKey = abcd\n",
     "1 CloudKey: no such key, so the line is ignored; there is no \"=\" between key and value"
     "\n2 AccessKey: no such key, so the line is ignored; there is no \"=\" between key and "
     "value"
     "\n3 =: no such key, so the line is ignored; there is no \"=\" between key and value"
     "\n4 Key: no such key, so the line is ignored"},
    {"MaxThreads 8\nLoglevel 1\nMaxThreads 8\nMaxThreads 9\n",
     "3 MaxThreads: ignored: only the first value counts, of line 1"
     "\n4 MaxThreads: ignored: only the first value counts, of line 1"},
    {"Maxlog 17592186044416\n",
     "1 Maxlog: the log is emptied before every record, so it holds one; write 1 or more"
     "\n1 Maxlog: \"17592186044416\" reads as 0 MiB"},
    {"Maxlog\n",
     "1 Maxlog: the log is emptied before every record, so it holds one; write 1 or more"
     "\n1 Maxlog: has no value, which reads as 0"},
    {"MaxThreads = 8\nAsyncLogging = yes\nCloudAccessKey =k\nEnableCloudScanning no\n",
     "1 MaxThreads: \"= 8\" is no whole number, so 5 is used; there is no \"=\": write "
     "\"MaxThreads 8\""
     "\n2 AsyncLogging: \"= yes\" reads as no; there is no \"=\": write \"AsyncLogging yes\""
     "\n3 CloudAccessKey: the value begins with \"=\"; there is no \"=\" between key and "
     "value"},
    {"CloudAccessKey ab#cd\nExcludeFile @/file#2\nEnableCloudScanning yes\n",
     "1 CloudAccessKey: \"#\" begins a comment wherever it stands, and cuts the value"
     "\n2 ExcludeFile: \"#\" begins a comment wherever it stands, so the value is "
     "\"@/file\""},
    {"IncludeDirectory /" + string(5000, 'x') + "\n",
     "0 IncludeDirectory: the daemon skips every path to include, and then includes everything"
     "\n1 IncludeDirectory: \"/" +
         string(longest_shown - 1, 'x') + "...\" cannot be looked at: File name too long"},
    {"IncludeDirectory @/nowhere\nIncludeFile @/file\n",
     "1 IncludeDirectory: \"@/nowhere\" does not exist, so the daemon skips it, also when it "
     "is made later"},
    {"IncludeDirectory @/nowhere\nIncludeFile\n",
     "0 IncludeDirectory: the daemon skips every path to include, and then includes everything"
     "\n1 IncludeDirectory: \"@/nowhere\" does not exist, so the daemon skips it, also when it "
     "is made later"
     "\n2 IncludeFile: has no value, so the daemon skips it"},
    {"IncludeDirectory /\nIncludeDirectory @/data\n",
     "1 IncludeDirectory: \"/\" includes nothing: the daemon takes the slash off and skips "
     "what is left; write no inclusion at all to include everything"},
    {"IncludeDirectory = @/data\nIncludeDirectory @/data\n",
     "1 IncludeDirectory: the path is \"= @/data\", so the daemon skips it; there is no \"=\" "
     "between key and value"},
    {"IncludeDirectory @/data" + nul + "x\nIncludeDirectory @/data\n",
     "1 IncludeDirectory: \"@/data" + nul + "x\" holds a NUL byte, at which the daemon cuts it"},
    {"IncludeDirectory @/data/sub\nExcludeDirectory @/data\nIncludeFile @/other\n",
     "1 IncludeDirectory: nothing in \"@/data/sub\" is scanned: line 2 excludes \"@/data\""},
    {"IncludeDirectory @/data/\nExcludeFile @/data\nIncludeFile @/other\n",
     "1 IncludeDirectory: nothing in \"@/data\" is scanned: line 2 excludes \"@/data\""},
    {"ExcludeDirectory /" + string(5000, 'x') + "\n",
     "1 ExcludeDirectory: \"/" + string(longest_shown - 1, 'x') +
         "...\" cannot be looked at: File name too long"}};

TEST_F(ConfigCheckTest, WhatIsFoundIsAllThatIsReported) {
  for (const OddSetting& odd : odd_settings) {
    EXPECT_EQ(text_of(check(odd.setting + "\n").findings), here("1 " + odd.finding()));
  }
  for (const auto& [content, findings] : odd_files) {
    EXPECT_EQ(text_of(check(content).findings), here(findings)) << content;
  }
}

TEST_F(ConfigCheckTest, WhatIsAsItSeemsIsNotReported) {
  for (const char* content :
       {"", "# MaxThreads = 8\n", "MaxThreads 8\r\n", "\t MaxThreads \t 8 # workers\n",
        "MaxThreads 1024\nMaxRecursion 0\nMaxArchiveDepth 0\nMaxCacheEntries 1\n",
        "MaxThreads 8#eight\n",
        "MaxThreads +8\nMaxRecursion 2147483647\nMaxlog 17592186044415\nLoglevel 1\n",
        "AsyncLogging NO\nEnableCloudScanning 0\nIgnoreToolDetections YES\nIgnoreJokeDetections "
        "1\n",
        "AsyncLogging off\nEnableCloudScanning False\nIgnoreToolDetections disabled\n",
        "DefaultAction delete\nDefinitionType v1\n",
        "ScanArchive yes\nScanEngineDirectory /opt/pelo/lib64/\n",
        "IncludeDirectory @/data\nIncludeDirectory @/data/sub\nIncludeFile @/file\n",
        "IncludeDirectory @/data/\nExcludeDirectory @/data/sub\n",
        "IncludeDirectory @/other\nExcludeDirectory @/oth\nExcludeFile @/file\n",
        "EnableCloudScanning yes\nCloudAccessKey k\n", "EnableCloudScanning no\nCloudAccessKey k\n",
        "LogPath @/log/\nConfPath @/etc/\n"}) {
    EXPECT_EQ(text_of(check(content).findings), "") << content;
  }
}

// The settings

// What the machine of a test lacks as much as that of a daemon without scheduled scans, a ConfPath,
// is none of them.
TEST_F(ConfigCheckTest, DefaultsThatEndangerAreFindingsOfTheWholeFile) {
  const string findings = text_of(check_config(directory_.put("empty", ""), "", mounts_).findings);
  EXPECT_THAT(findings, testing::HasSubstr("0 StagingDirectory: every user can write \"/tmp\", and "
                                           "so put definitions there; write a directory that only "
                                           "root can write"));
  EXPECT_THAT(findings, testing::Not(testing::HasSubstr("ConfPath")));
}

TEST_F(ConfigCheckTest, PathsThatDoNotFitTheStatusAreaAreReported) {
  const std::size_t bytes = directory_.path("many/1000").size() + 1;
  const std::size_t most = 10240 / bytes;
  std::filesystem::create_directory(directory_.path("many"));
  for (const string& key : {string("IncludeFile"), string("ExcludeFile")}) {
    const auto line = [&](std::size_t number) {
      return key + " " + directory_.put("many/" + std::to_string(1000 + number), "") + "\n";
    };
    string content;
    for (std::size_t number = 0; number < most; ++number) {
      content += line(number);
    }
    EXPECT_THAT(check(content).findings, IsEmpty());
    content += line(most);
    EXPECT_EQ(text_of(check(content + content).findings),
              "0 " + string(key == "IncludeFile" ? "IncludeDirectory" : "ExcludeDirectory") +
                  ": the list of these paths takes " + std::to_string((most + 1) * bytes) +
                  " bytes: the status area holds 10240 and shows only some of them, but all of "
                  "them count");
  }
}

TEST_F(ConfigCheckTest, FoldersThatEverybodyWritesAreReported) {
  for (const char* folder : {"db", "staging", "log", "etc"}) {
    std::filesystem::permissions(directory_.path(folder), std::filesystem::perms(01777));
  }
  EXPECT_EQ(text_of(check("").findings),
            here("1 DatabaseDirectory: every user can write \"@/db\", and so put definitions "
                 "there; write a directory that only root can write"
                 "\n2 StagingDirectory: every user can write \"@/staging\", and so put definitions "
                 "there; write a directory that only root can write"
                 "\n3 LogPath: every user can write \"@/log\", where the log is; write a directory "
                 "that only root can write"
                 "\n4 ConfPath: every user can write \"@/etc\", where the commands file is; write "
                 "a directory that only root can write"));
}

// root may look everywhere, so the test does it as somebody else.
TEST_F(ConfigCheckTest, PathThatOnlyTheDaemonMaySeeIsNotTakenForAMissingOne) {
  const string file = "pelowatchd.conf";
  std::filesystem::permissions(directory_.path("data"), std::filesystem::perms::none);
  FileReport report(file);
  const bool is_root = geteuid() == 0;
  ASSERT_TRUE(!is_root || seteuid(65534) == 0);
  const GlobalConfig settings;
  const WatchedMounts mounts(mounts_, settings);
  (void)check_paths({{1, "IncludeDirectory", directory_.path("data/sub")}}, {}, mounts, report);
  ASSERT_TRUE(!is_root || seteuid(0) == 0);
  EXPECT_EQ(text_of(report.take()),
            here("1 IncludeDirectory: \"@/data/sub\" cannot be looked at: Permission denied"));
  std::filesystem::permissions(directory_.path("data"), std::filesystem::perms::owner_all);
}

TEST_F(ConfigCheckTest, LogThatIsALinkOrADirectoryIsReported) {
  std::filesystem::create_symlink("/dev/null", directory_.path("log/pelowatchd.log"));
  EXPECT_EQ(text_of(check("").findings),
            here("3 LogPath: \"@/log/pelowatchd.log\" is a link, which the daemon does "
                 "not follow: nothing is logged"));
  std::filesystem::remove(directory_.path("log/pelowatchd.log"));
  std::filesystem::create_directory(directory_.path("log/pelowatchd.log"));
  EXPECT_EQ(text_of(check("").findings),
            here("3 LogPath: \"@/log/pelowatchd.log\" is a directory: nothing is logged"));
}

TEST_F(ConfigCheckTest, VeryManyFindingsAreCounted) {
  string content;
  for (int line = 0; line < 1005; ++line) {
    content += "Colour blue\n";
  }
  const ConfigCheck result = check(content);
  EXPECT_EQ(result.findings.size(), 1001U);
  EXPECT_EQ(result.findings.front().text, "5 more findings are not shown");
}

}  // namespace
