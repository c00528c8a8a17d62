// What is found in configuration files.
#include "config_check.h"

#include <unistd.h>

#include "check_fixture.h"

namespace {

using std::string;
using testing::IsEmpty;

const string nul(1, '\0');

class ConfigFinding : public ConfigCheckTest, public testing::WithParamInterface<CheckedFile> {};

TEST_P(ConfigFinding, IsAllThatIsReported) {
  EXPECT_EQ(text_of(check(GetParam().content).findings), here(GetParam().findings));
}

INSTANTIATE_TEST_SUITE_P(
    Keys, ConfigFinding,
    testing::ValuesIn(std::vector<CheckedFile>{
        {"Unknown", "Colour blue\n", "1 Colour: no such key, so the line is ignored"},
        {"OtherCapitals", "# a comment\n\nmaxthreads 8\n",
         "3 maxthreads: no such key, so the line is ignored; write \"MaxThreads\": capitals count"},
        {"Misspelt", "MaxTreads 8\n", "1 MaxTreads: no such key, so the line is ignored"},
        {"WithEqualsSign", "MaxThreads=8\nMaxRecursion= 3\n",
         "1 MaxThreads=8: no such key, so the line is ignored; there is no \"=\": write "
         "\"MaxThreads 8\""
         "\n2 MaxRecursion=: no such key, so the line is ignored; there is no \"=\": write "
         "\"MaxRecursion 3\""},
        {"SecretWithEqualsSign", "CloudAccessKey=abcd\n",
         "1 CloudAccessKey: no such key, so the line is ignored; there is no \"=\" between key and "
         "value"},
        {"SecretBehindAWordThatIsNoKey", "CloudKey=abcd\nAccessKey=abcd\n=abcd\nKey = abcd\n",
         "1 CloudKey: no such key, so the line is ignored; there is no \"=\" between key and value"
         "\n2 AccessKey: no such key, so the line is ignored; there is no \"=\" between key and "
         "value"
         "\n3 =: no such key, so the line is ignored; there is no \"=\" between key and value"
         "\n4 Key: no such key, so the line is ignored"},
        {"AfterByteOrderMark", "\xEF\xBB\xBFMaxThreads 8\n",
         "1 \xEF\xBB\xBFMaxThreads: no such key, so the line is ignored: a byte order mark stands "
         "before it; save the file without one"},
        {"OnSeveralLines", "MaxThreads 8\nLoglevel 1\nMaxThreads 8\nMaxThreads 9\n",
         "3 MaxThreads: ignored: only the first value counts, of line 1"
         "\n4 MaxThreads: ignored: only the first value counts, of line 1"}}),
    name_of);

INSTANTIATE_TEST_SUITE_P(
    Values, ConfigFinding,
    testing::ValuesIn(std::vector<CheckedFile>{
        {"NoNumber", "MaxThreads 8 or 9\nMaxlog 16M\n",
         "1 MaxThreads: \"8 or 9\" is no whole number, so 5 is used; write digits only"
         "\n2 Maxlog: \"16M\" is no whole number, so 16 MiB is used; write digits only"},
        {"NumberBeyondItsType", "MaxRecursion 99999999999\nMaxlog 17592186044417\n",
         "1 MaxRecursion: \"99999999999\" reads as 2147483647"
         "\n2 Maxlog: \"17592186044417\" reads as 1 MiB"},
        {"NegativeSize", "Maxlog -1\n", "1 Maxlog: \"-1\" reads as 17592186044415 MiB"},
        {"SizeBeyondItsType", "Maxlog 17592186044416\n",
         "1 Maxlog: the log is emptied before every record, so it holds one; write 1 or more"
         "\n1 Maxlog: \"17592186044416\" reads as 0 MiB"},
        {"NumberWithoutValue", "MaxRecursion\nDecompressLimit # none\n",
         "1 MaxRecursion: has no value, which reads as 0"
         "\n2 DecompressLimit: has no value, which reads as 0"},
        {"SizeWithoutValue", "Maxlog\n",
         "1 Maxlog: the log is emptied before every record, so it holds one; write 1 or more"
         "\n1 Maxlog: has no value, which reads as 0"},
        {"NoAction", "DefaultAction remove\n",
         "1 DefaultAction: \"remove\" is no action, so REPORT is used; write REPORT, DISINFECT or "
         "DELETE"},
        {"ActionWithoutValue", "DefaultAction\n",
         "1 DefaultAction: has no value, so REPORT is used; write REPORT, DISINFECT or DELETE"},
        {"NoFamily", "DefinitionType V3\n",
         "1 DefinitionType: \"V3\" is no family of definitions, so LEGACY is used; write LEGACY, "
         "V1, V2 or V2S"},
        {"BooleanThatLooksTrue",
         "AsyncLogging true\nEnableCloudScanning On\nIgnoreJokeDetections 2\nIgnoreToolDetections "
         "y\nIgnoreSpywareDetections enabled\n",
         "1 AsyncLogging: \"true\" reads as no; write yes or no"
         "\n2 EnableCloudScanning: \"On\" reads as no; write yes or no"
         "\n3 IgnoreJokeDetections: \"2\" reads as no; write yes or no"
         "\n4 IgnoreToolDetections: \"y\" reads as no; write yes or no"
         "\n5 IgnoreSpywareDetections: \"enabled\" reads as no; write yes or no"},
        {"BooleanWithoutValue", "AsyncLogging\n",
         "1 AsyncLogging: has no value, which reads as no; write yes or no"},
        {"EqualsSignBeforeValue",
         "MaxThreads = 8\nAsyncLogging = yes\nCloudAccessKey =k\nEnableCloudScanning no\n",
         "1 MaxThreads: \"= 8\" is no whole number, so 5 is used; there is no \"=\": write "
         "\"MaxThreads 8\""
         "\n2 AsyncLogging: \"= yes\" reads as no; there is no \"=\": write \"AsyncLogging yes\""
         "\n3 CloudAccessKey: the value begins with \"=\"; there is no \"=\" between key and "
         "value"},
        {"CommentWithinText",
         "CloudAccessKey ab#cd\nExcludeFile @/file#2\nEnableCloudScanning yes\n",
         "1 CloudAccessKey: \"#\" begins a comment wherever it stands, and cuts the value"
         "\n2 ExcludeFile: \"#\" begins a comment wherever it stands, so the value is "
         "\"@/file\""}}),
    name_of);

INSTANTIATE_TEST_SUITE_P(
    Numbers, ConfigFinding,
    testing::ValuesIn(std::vector<CheckedFile>{
        {"NoThreads", "MaxThreads 0\n",
         "1 MaxThreads: no worker is started, and the daemon ends right after its start; write 1 "
         "or more"},
        {"NegativeThreads", "MaxThreads -1\n",
         "1 MaxThreads: no worker is started, and the daemon ends right after its start; write 1 "
         "or more"},
        {"TooManyThreads", "MaxThreads 1025\n",
         "1 MaxThreads: the daemon starts 1024 workers; write at most 1024"},
        {"NegativeRecursion", "MaxRecursion -1\n",
         "1 MaxRecursion: no scheduled scan looks into its folder; write 0 for the folder alone"},
        {"NoCache", "MaxCacheEntries 0\n",
         "1 MaxCacheEntries: the cache holds the newest path only; write 1 or more"},
        {"NegativeDepths", "MaxArchiveDepth -1\nScheduledMaxArchiveDepth -2\nDecompressLimit -3\n",
         "1 MaxArchiveDepth: the engine is handed the negative number, and whether it refuses is "
         "not looked at; write 0 to look into no archive"
         "\n2 ScheduledMaxArchiveDepth: the engine is handed the negative number, and whether it "
         "refuses is not looked at; write 0 to look into no archive"
         "\n3 DecompressLimit: the engine is handed the negative number, and whether it refuses is "
         "not looked at; write 0 for its own limit"},
        {"NoLogLevel", "Loglevel 0\n",
         "1 Loglevel: neither errors nor detections are logged; write 1, 2 or 3"},
        {"NoLogSize", "Maxlog 0\n",
         "1 Maxlog: the log is emptied before every record, so it holds one; write 1 or more"}}),
    name_of);

INSTANTIATE_TEST_SUITE_P(Unused, ConfigFinding,
                         testing::ValuesIn(std::vector<CheckedFile>{
                             {"ArchivesSwitchedOff", "ScanArchive no\n",
                              "1 ScanArchive: has no effect: nothing uses it; write "
                              "MaxArchiveDepth 0 to look into no archive"},
                             {"AnotherEngineDirectory", "ScanEngineDirectory /opt/engine\n",
                              "1 ScanEngineDirectory: has no effect: nothing uses it; the engine "
                              "is found by the dynamic loader"},
                             {"CloudKeyWithoutCloud", "CloudAccessKey k\n",
                              "1 CloudAccessKey: has no effect without EnableCloudScanning; write "
                              "\"EnableCloudScanning yes\""},
                             {"CloudWithoutKey", "EnableCloudScanning yes\n",
                              "1 EnableCloudScanning: the engine is handed an empty key, unless "
                              "the daemon is started with -k; write CloudAccessKey and the key"}}),
                         name_of);

INSTANTIATE_TEST_SUITE_P(
    Directories, ConfigFinding,
    testing::ValuesIn(std::vector<CheckedFile>{
        {"NoDatabase", "DatabaseDirectory @/nowhere\n",
         "1 DatabaseDirectory: \"@/nowhere\" does not exist: the engine finds no definitions "
         "there"},
        {"DatabaseIsAFile", "DatabaseDirectory @/file\n",
         "1 DatabaseDirectory: \"@/file\" is no directory: the engine finds no definitions there"},
        {"DatabaseWithoutValue", "DatabaseDirectory\n",
         "1 DatabaseDirectory: has no value: the engine finds no definitions there"},
        {"RelativeDatabase", "DatabaseDirectory etc\n",
         "1 DatabaseDirectory: \"etc\" is relative: in the background the daemon looks for it in "
         "\"/\""},
        {"NoStaging", "StagingDirectory @/nowhere\n",
         "1 StagingDirectory: \"@/nowhere\" does not exist: no definition update is found there"},
        {"StagingThatEverybodyWrites", "StagingDirectory /tmp\n",
         "1 StagingDirectory: every user can write \"/tmp\", and so put definitions there; write a "
         "directory that only root can write"},
        {"NoLogPath", "LogPath @/nowhere\n",
         "1 LogPath: \"@/nowhere\" does not exist: the daemon makes it"},
        {"LogPathIsAFile", "LogPath @/file\n",
         "1 LogPath: \"@/file\" is no directory: nothing is logged"},
        {"LogPathBelowAFile", "LogPath @/file/log\n",
         "1 LogPath: \"@/file/log\" does not exist: nothing is logged"},
        {"LogPathWithoutValue", "LogPath\n",
         "1 LogPath: has no value: the log is \"/pelowatchd.log\""},
        {"RelativeLogPath", "LogPath log\n",
         "1 LogPath: \"log\" is relative: the log lies below the directory in which the daemon is "
         "started; write an absolute path"},
        {"NoConfPath", "ConfPath @/nowhere\n",
         "1 ConfPath: \"@/nowhere\" does not exist: no scheduled scan is read; the commands file "
         "is \"@/nowhere/sdcommands.conf\""},
        {"ConfPathWithoutValue", "ConfPath\n",
         "1 ConfPath: has no value: no scheduled scan is read; the commands file is "
         "\"/sdcommands.conf\""}}),
    name_of);

INSTANTIATE_TEST_SUITE_P(
    Inclusions, ConfigFinding,
    testing::ValuesIn(std::vector<CheckedFile>{
        {"TooLong", "IncludeDirectory /" + string(5000, 'x') + "\n",
         "0 IncludeDirectory: the daemon skips every path to include, and then includes everything"
         "\n1 IncludeDirectory: \"/" +
             string(longest_shown - 1, 'x') + "...\" cannot be looked at: File name too long"},
        {"Missing", "IncludeDirectory @/nowhere\nIncludeFile @/file\n",
         "1 IncludeDirectory: \"@/nowhere\" does not exist, so the daemon skips it, also when it "
         "is made later"},
        {"NoneExists", "IncludeDirectory @/nowhere\nIncludeFile\n",
         "0 IncludeDirectory: the daemon skips every path to include, and then includes everything"
         "\n1 IncludeDirectory: \"@/nowhere\" does not exist, so the daemon skips it, also when it "
         "is made later"
         "\n2 IncludeFile: has no value, so the daemon skips it"},
        {"Root", "IncludeDirectory /\nIncludeDirectory @/data\n",
         "1 IncludeDirectory: \"/\" includes nothing: the daemon takes the slash off and skips "
         "what is left; write no inclusion at all to include everything"},
        {"RootTwice", "IncludeDirectory //\n",
         "1 IncludeDirectory: no file ever matches \"//\"; write no inclusion at all to include "
         "everything"},
        {"RootWithADot", "IncludeDirectory /.\n",
         "1 IncludeDirectory: no file ever matches \"/.\"; write no inclusion at all to include "
         "everything"},
        {"Device", "IncludeFile /dev/null\n",
         "1 IncludeFile: \"/dev/null\" is neither a directory nor a regular file, and nothing else "
         "is scanned"},
        {"Relative", "IncludeDirectory etc\n",
         "1 IncludeDirectory: no file ever matches \"etc\": it is relative; write an absolute "
         "path"},
        {"ThroughALink", "IncludeDirectory @/link/sub\n",
         "1 IncludeDirectory: no file ever matches \"@/link/sub\"; write it as the kernel does: "
         "\"@/data/sub\""},
        {"DoubledSlash", "IncludeDirectory @//data\n",
         "1 IncludeDirectory: no file ever matches \"@//data\"; write it as the kernel does: "
         "\"@/data\""},
        {"TwoTrailingSlashes", "IncludeDirectory @/data//\n",
         "1 IncludeDirectory: no file ever matches \"@/data/\"; write it as the kernel does: "
         "\"@/data\""},
        {"EqualsSign", "IncludeDirectory = @/data\nIncludeDirectory @/data\n",
         "1 IncludeDirectory: the path is \"= @/data\", so the daemon skips it; there is no \"=\" "
         "between key and value"},
        {"NulByte", "IncludeDirectory @/data" + nul + "x\nIncludeDirectory @/data\n",
         "1 IncludeDirectory: \"@/data" + nul +
             "x\" holds a NUL byte, at which the daemon cuts it"},
        {"Excluded", "IncludeDirectory @/data/sub\nExcludeDirectory @/data\nIncludeFile @/other\n",
         "1 IncludeDirectory: nothing in \"@/data/sub\" is scanned: line 2 excludes \"@/data\""},
        {"ExcludedItself", "IncludeDirectory @/data/\nExcludeFile @/data\nIncludeFile @/other\n",
         "1 IncludeDirectory: nothing in \"@/data\" is scanned: line 2 excludes \"@/data\""}}),
    name_of);

INSTANTIATE_TEST_SUITE_P(
    Exclusions, ConfigFinding,
    testing::ValuesIn(std::vector<CheckedFile>{
        {"Missing", "ExcludeDirectory @/nowhere\n",
         "1 ExcludeDirectory: \"@/nowhere\" does not exist, so the daemon skips it: what is made "
         "there later is scanned"},
        {"TrailingSlash", "ExcludeDirectory @/data/\n",
         "1 ExcludeDirectory: no file ever matches \"@/data/\"; write it as the kernel does: "
         "\"@/data\""},
        {"Link", "ExcludeFile @/link\n",
         "1 ExcludeFile: no file ever matches \"@/link\"; write it as the kernel does: \"@/data\""},
        {"Relative", "ExcludeDirectory etc\n",
         "1 ExcludeDirectory: no file ever matches \"etc\": it is relative; write an absolute "
         "path"},
        {"Root", "ExcludeDirectory /\n",
         "1 ExcludeDirectory: excludes no file, but leaves the file system mounted at \"/\" "
         "unwatched; write the directories that are meant"},
        {"RootTwice", "ExcludeDirectory //\n",
         "1 ExcludeDirectory: no file ever matches \"//\"; write the directories that are meant"},
        {"RootWithADot", "ExcludeDirectory /.\n",
         "1 ExcludeDirectory: no file ever matches \"/.\"; write the directories that are meant"},
        {"WithoutValue", "ExcludeDirectory\n",
         "1 ExcludeDirectory: has no value, so the daemon skips it"},
        {"TooLong", "ExcludeDirectory /" + string(5000, 'x') + "\n",
         "1 ExcludeDirectory: \"/" + string(longest_shown - 1, 'x') +
             "...\" cannot be looked at: File name too long"}}),
    name_of);

INSTANTIATE_TEST_SUITE_P(
    AsItSeems, ConfigFinding,
    testing::ValuesIn(std::vector<CheckedFile>{
        {"Empty", "", ""},
        {"Comment", "# MaxThreads = 8\n", ""},
        {"CarriageReturn", "MaxThreads 8\r\n", ""},
        {"BlanksAndComment", "\t MaxThreads \t 8 # workers\n", ""},
        {"LastGoodNumbers",
         "MaxThreads 1024\nMaxRecursion 0\nMaxArchiveDepth 0\nMaxCacheEntries 1\n", ""},
        {"CommentRightAfterANumber", "MaxThreads 8#eight\n", ""},
        {"Numbers", "MaxThreads +8\nMaxRecursion 2147483647\nMaxlog 17592186044415\nLoglevel 1\n",
         ""},
        {"BooleansOfTheParser",
         "AsyncLogging NO\nEnableCloudScanning 0\nIgnoreToolDetections YES\nIgnoreJokeDetections "
         "1\n",
         ""},
        {"BooleansThatSeemNo",
         "AsyncLogging off\nEnableCloudScanning False\nIgnoreToolDetections disabled\n", ""},
        {"Words", "DefaultAction delete\nDefinitionType v1\n", ""},
        {"UnusedAtTheirDefaults", "ScanArchive yes\nScanEngineDirectory /opt/pelo/lib64/\n", ""},
        {"SeveralPaths",
         "IncludeDirectory @/data\nIncludeDirectory @/data/sub\nIncludeFile @/file\n", ""},
        {"ExclusionBelowAnInclusion", "IncludeDirectory @/data/\nExcludeDirectory @/data/sub\n",
         ""},
        {"ExclusionBesideAnInclusion",
         "IncludeDirectory @/other\nExcludeDirectory @/oth\nExcludeFile @/file\n", ""},
        {"CloudWithItsKey", "EnableCloudScanning yes\nCloudAccessKey k\n", ""},
        {"CloudSwitchedOff", "EnableCloudScanning no\nCloudAccessKey k\n", ""},
        {"TrailingSlashOfALogPath", "LogPath @/log/\nConfPath @/etc/\n", ""}}),
    name_of);

// The settings

TEST_F(ConfigCheckTest, DefaultsThatEndangerAreFindingsOfTheWholeFile) {
  const ConfigCheck result = check_config(directory_.put("empty", ""), "", mounts_);
  EXPECT_THAT(text_of(result.findings),
              testing::HasSubstr(
                  "0 StagingDirectory: every user can write \"/tmp\", and so put definitions "
                  "there; write a directory that only root can write"));
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

// What the machine of a test lacks as much as that of a daemon without scheduled scans.
TEST_F(ConfigCheckTest, MissingDefaultOfTheConfPathIsNoFinding) {
  for (const Finding& finding : check_config(directory_.put("empty", ""), "", mounts_).findings) {
    EXPECT_NE(finding.key, "ConfPath");
  }
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
