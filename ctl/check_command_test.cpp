// The command as a whole: exit statuses, what it writes, and that it agrees with the daemon.
#include "check_command.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "check_fixture.h"
#include "daemon_config.h"

namespace {

using nlohmann::json;
using std::string;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class CheckCommandTest : public CheckTest {
 protected:
  CheckCommandTest() { options_.mounts = mounts_; }

  int run() {
    out_.str("");
    errors_.str("");
    return run_check(options_, out_, errors_);
  }

  json run_json() {
    options_.json = true;
    (void)run();
    return json::parse(out_.str());
  }

  void put_config(const string& content) {
    options_.config_file = directory_.put("pelowatchd.conf", with_folders(content));
  }

  string output() const { return out_.str(); }
  string errors() const { return errors_.str(); }

  CheckOptions options_;
  std::ostringstream out_;
  std::ostringstream errors_;
};

/// The commands file that the README shows, of this folder.
string readme_commands(const string& folder) {
  std::ifstream readme(PELO_README);
  string commands;
  for (string line; std::getline(readme, line);) {
    if (line == "    scan" || (!commands.empty() && line.starts_with("    "))) {
      commands += line + "\n";
    } else if (!commands.empty()) {
      break;
    }
  }
  const string its_folder = "/data/share";
  const std::size_t at = commands.find(its_folder);
  return at == string::npos ? "" : commands.replace(at, its_folder.size(), folder);
}

constexpr const char* sample_commands =
    "# every Monday night\n"
    "scan\n"
    "folder    @/data\n"
    "day       MON\n"
    "start     22:30\n"
    "repeat    WEEKLY\n"
    "recursive yes\n"
    "\n"
    "# once\n"
    "scan\n"
    "folder    @/other\n"
    "day       FRI\n"
    "start     23:00\n"
    "repeat    NO\n"
    "action    DELETE\n";

TEST_F(CheckCommandTest, ExampleOfTheReadmeIsCleanUntilItsStart) {
  put_config("");
  directory_.put("etc/sdcommands.conf", readme_commands(directory_.path("data")));
  options_.loaded_at = ConfParser::time_T(2, 30);
  EXPECT_EQ(run(), 0) << output();
  EXPECT_THAT(output(), StartsWith("Settings\n"));
  EXPECT_THAT(output(), HasSubstr(", on Monday from 02:30 on, every week; REPORT"));
  EXPECT_THAT(output(), testing::EndsWith("\nnothing found\n"));
  EXPECT_EQ(errors(), "");
  options_.loaded_at = ConfParser::time_T(2, 31);
  EXPECT_EQ(run(), 1);
}

TEST_F(CheckCommandTest, FindingsOfEitherFileGiveStatus1AndStandFirst) {
  put_config("maxthreads 8\n");
  EXPECT_EQ(run(), 1);
  EXPECT_THAT(output(), StartsWith(here("@/pelowatchd.conf:1: maxthreads: no such key, so the line "
                                        "is ignored; write \"MaxThreads\": capitals count\n")));
  EXPECT_THAT(output(), testing::EndsWith("\n1 finding\n"));
  put_config("");
  directory_.put("etc/sdcommands.conf", "scan\nx\n");
  EXPECT_EQ(run(), 1);
  EXPECT_THAT(output(), HasSubstr(here("@/etc/sdcommands.conf:2: x: no such key")));
}

TEST_F(CheckCommandTest, FileThatCannotBeReadGivesStatus2AndOneLine) {
  ASSERT_EQ(mkfifo(directory_.path("pipe").c_str(), 0600), 0);
  std::filesystem::resize_file(directory_.put("huge", ""), (16 << 20) + 1);
  const auto expect_refusal = [this](const string& line) {
    EXPECT_EQ(run(), 2) << line;
    EXPECT_EQ(output(), "");
    EXPECT_EQ(errors(), here("pelowatchctl: cannot read " + line + "\n"));
  };
  for (const auto& [file, why] : {std::pair("@/none", "No such file or directory"),
                                  {"@/file/x", "Not a directory"},
                                  {"@/data", "Is a directory"},
                                  {"@/pipe", "Not a regular file"},
                                  {"@/huge", "Larger than 16 MiB"},
                                  {"", "No such file or directory"}}) {
    options_.config_file = here(file);
    expect_refusal(file + string(": ") + why);
  }
  options_.config_file = "\x1b[2J\n";
  expect_refusal("\\x1b[2J\\x0a: No such file or directory");
  put_config("");
  std::filesystem::create_directory(directory_.path("etc/sdcommands.conf"));
  expect_refusal("@/etc/sdcommands.conf: Is a directory");
  options_.commands_file = directory_.path("none");
  expect_refusal("@/none: No such file or directory");
}

TEST_F(CheckCommandTest, NoCommandsFileAtItsDefaultPlaceOrAnEmptyOneIsNoFinding) {
  put_config("");
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(output(),
              HasSubstr(here("No scheduled scans: @/etc/sdcommands.conf does not exist\n")));
  directory_.put("etc/sdcommands.conf", "# none\n");
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(output(), HasSubstr(here("No scheduled scans: @/etc/sdcommands.conf holds none\n")));
}

TEST_F(CheckCommandTest, NamedCommandsFileIsReadInsteadOfTheDefault) {
  put_config("");
  directory_.put("etc/sdcommands.conf", "bad\n");
  options_.commands_file = directory_.put("mine", here(sample_commands));
  options_.loaded_at = ConfParser::time_T(0, 0);
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(output(), HasSubstr(here("  @/other, on Friday from 23:00 on, once; DELETE  "
                                       "@/mine:10\n")));
}

TEST_F(CheckCommandTest, TheFileIsReadNowUnlessATimeIsGiven) {
  const int hours_after_noon = static_cast<int>(std::time(nullptr) / 3600 % 24) - 12;
  setenv("TZ", ("TEST" + std::to_string(hours_after_noon)).c_str(), 1);  // so that it is noon
  tzset();
  put_config("");
  directory_.put("etc/sdcommands.conf",
                 here("scan\nfolder @/data\nstart 11:00\nday MON\nrepeat NO\nscan\nfolder "
                      "@/data\nstart 14:00\nday MON\nrepeat NO\n"));
  EXPECT_EQ(run(), 1);
  EXPECT_THAT(output(), HasSubstr(":3: start: if the daemon reads the file now, at 1"));
  EXPECT_THAT(output(), HasSubstr("\n1 finding\n"));
}

TEST_F(CheckCommandTest, SettingsShowValueAndOrigin) {
  put_config(
      "MaxThreads 8\nAsyncLogging yes\nDefaultAction delete\nMaxlog 4\nExcludeFile @/file\n");
  (void)run();
  string shown;  // with one blank in the place of several
  std::ranges::unique_copy(output(), std::back_inserter(shown),
                           [](char a, char b) { return a == ' ' && b == ' '; });
  for (const char* row :
       {"MaxThreads 8 @/pelowatchd.conf:1", "MaxRecursion 5 default",
        "AsyncLogging yes @/pelowatchd.conf:2", "ScanArchive yes default",
        "DefaultAction DELETE @/pelowatchd.conf:3", "DefinitionType LEGACY default",
        "Maxlog 4 MiB @/pelowatchd.conf:4", "ExcludeFile @/file @/pelowatchd.conf:5",
        "IncludeFile (none) default", "CloudAccessKey (empty) default"}) {
    EXPECT_THAT(shown, HasSubstr(here("\n " + string(row) + "\n")));
  }
}

TEST_F(CheckCommandTest, CloudAccessKeyIsShownNowhere) {
  for (const char* line :
       {"CloudAccessKey geheim\n", "CloudAccessKey =geheim\n", "CloudAccessKey geheim#x\n",
        "CloudAccessKey=geheim\n", "CloudAccesKey=geheim\n", "CloudKey=geheim\n",
        "AccessKey=geheim x\n", "=geheim\n", "CloudAccessKey x\nCloudAccessKey geheim\n",
        "cloudaccesskey geheim\n"}) {
    put_config(line);
    for (const bool as_json : {false, true}) {
      options_.json = as_json;
      (void)run();
      EXPECT_THAT(output(), Not(HasSubstr("geheim"))) << line;
    }
  }
}

TEST_F(CheckCommandTest, JsonHoldsFindingsSettingsAndJobs) {
  put_config(
      "MaxThreads 8\nAsyncLogging true\nIncludeFile @/file\nMaxlog 4\nDefaultAction delete\n");
  directory_.put("etc/sdcommands.conf", here(sample_commands));
  options_.loaded_at = ConfParser::time_T(0, 0);
  const json whole = run_json();
  EXPECT_EQ(whole["findings"],
            json::array({{{"file", here("@/pelowatchd.conf")},
                          {"line", 2},
                          {"key", "AsyncLogging"},
                          {"message", "\"true\" reads as no; write yes or no"}}}));
  const json& settings = whole["settings"];
  EXPECT_EQ(settings.size(), GlobalConfig::keys().size());
  EXPECT_EQ(settings["MaxThreads"], json({{"value", 8}, {"default", false}, {"lines", {1}}}));
  EXPECT_EQ(settings["LogPath"]["value"], here("@/log"));
  EXPECT_EQ(settings["ScanArchive"],
            json({{"value", true}, {"default", true}, {"lines", json::array()}}));
  EXPECT_EQ(settings["IncludeFile"]["value"], json::array({here("@/file")}));
  EXPECT_EQ(settings["Maxlog"],
            json({{"value", 4}, {"default", false}, {"lines", {4}}, {"unit", "MiB"}}));
  EXPECT_EQ(settings["DefaultAction"]["value"], "DELETE");
  EXPECT_EQ(whole["jobs"].size(), 2U);
  EXPECT_EQ(
      whole["jobs"][0],
      json({{"file", here("@/etc/sdcommands.conf")},
            {"line", 2},
            {"folder", here("@/data")},
            {"start", "22:30"},
            {"day", "MON"},
            {"repeat", "WEEKLY"},
            {"action", "REPORT"},
            {"recursive", true},
            {"words", here("@/data and what is below it, on Monday from 22:30 on, every week; "
                           "REPORT")}}));
}

TEST_F(CheckCommandTest, JsonNamesTheLinesThatCount) {
  put_config(
      "MaxThreads 8\nMaxRecursion deep\nMaxThreads 9\nMaxCacheEntries 99999999999\nIncludeFile "
      "@/file\nIncludeDirectory @/data\nIncludeDirectory @/other\n");
  const json settings = run_json()["settings"];
  for (const auto& [key, lines] : {std::pair("MaxThreads", json{1}),
                                   {"MaxRecursion", json::array()},
                                   {"MaxCacheEntries", json{4}},
                                   {"IncludeDirectory", json{6, 7}},
                                   {"IncludeFile", json{5}},
                                   {"LogPath", json{10}}}) {
    EXPECT_EQ(settings[key]["lines"], lines) << key;
  }
}

TEST_F(CheckCommandTest, JsonReplacesWhatIsNoUtf8) {
  put_config("CloudAccessKey \xff\nExcludeFile /\xfe\n\xfd 1\n");
  EXPECT_EQ(run_json()["settings"]["ExcludeFile"]["value"][0], "/\uFFFD");
}

// U+009B begins a control sequence as ESC and "[" do.
TEST_F(CheckCommandTest, JsonIsAsciiAlone) {
  put_config("ExcludeFile /\u009b31m\nCol\u009bour blue\n");
  directory_.put("etc/sdcommands.conf", "scan\nfolder /\u202e\n");
  EXPECT_EQ(run_json()["settings"]["ExcludeFile"]["value"][0], "/\u009b31m");
  EXPECT_TRUE(std::ranges::all_of(output(), [](char c) { return c >= 0; })) << output();
}

// Hostile files

TEST_F(CheckCommandTest, ControlCharactersDoNotReachTheTerminal) {
  put_config("\x1b[2J\x07 \x1b]0;x\nExcludeFile /\x1b[31m\\x\n");
  directory_.put("etc/sdcommands.conf", "scan\nfolder /\x1b[31m\n");
  EXPECT_EQ(run(), 1);
  EXPECT_THAT(output(), Not(HasSubstr("\x1b")));
  EXPECT_THAT(output(), HasSubstr("/\\x1b[31m\\x5cx"));
}

TEST_F(CheckCommandTest, HugeLinesAreCut) {
  constexpr std::size_t huge = PELO_SLOW ? 1'000'000 : 10'000'000;
  constexpr std::size_t size = huge / 20;
  for (const string& content :
       {string(huge, 'x'), string(size, '\0'), "IncludeDirectory " + string(size, 'x'),
        "IncludeDirectory /" + string(size, '/'), "MaxThreads " + string(size, '9'),
        "LogPath " + string(size, '\x01'), "MaxThreads= " + string(size, '8')}) {
    options_.config_file = directory_.put("pelowatchd.conf", content);
    options_.commands_file = options_.config_file;
    EXPECT_EQ(run(), 1);
    std::istringstream lines(output());
    for (string line; std::getline(lines, line);) {
      EXPECT_LT(line.size(), 3000U);
    }
  }
}

TEST_F(CheckCommandTest, VeryManyLinesAreTaken) {
  string content;
  for (int line = 0; line < (PELO_SLOW ? 2'000 : 20'000); ++line) {
    content += "x\nIncludeDirectory y\n\xff\r\n";
  }
  options_.config_file = directory_.put("pelowatchd.conf", content);
  EXPECT_EQ(run(), 1);
  EXPECT_THAT(output(), HasSubstr(" more findings are not shown\n"));
}

// Times

TEST(TimeOfDay, IsTwoDigitsEach) {
  EXPECT_TRUE(time_of_day("08:05") == ConfParser::time_T(8, 5));
  EXPECT_TRUE(time_of_day("23:59").has_value());
  for (const char* text :
       {"", "8:05", "08:5", "24:00", "08:60", "08:05 ", "08-05", "-1:00", "ab:cd", "08:0x"}) {
    EXPECT_FALSE(time_of_day(text).has_value()) << text;
  }
}

TEST(Cut, KeepsCharactersWhole) {
  const string limit(longest_shown, 'x');
  EXPECT_EQ(cut(limit), limit);
  EXPECT_EQ(cut(limit + "x"), limit + "...");
  EXPECT_EQ(cut(string(longest_shown - 1, 'x') + "\u00e4x"),
            string(longest_shown - 1, 'x') + "...");
  EXPECT_EQ(cut(string(1000, '\x80')).size(), longest_shown - 4 + 3);
}

}  // namespace
