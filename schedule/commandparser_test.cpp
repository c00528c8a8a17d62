// The commands file: what makes a command, what separates two, and what the log says about it.
#include "commandparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "log_records.h"
#include "logger.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;

const string weekly =
    "start 02:30\nday MON\nrepeat WEEKLY\nfolder /data/share\naction REPORT\nrecursive yes\n";
const string weekly_key = "2:30|1|2|/data/share|0|true";
const string once =
    "start 23:00\nday FRI\nrepeat NO\nfolder /data/incoming\naction DELETE\nrecursive no\n";
const string once_key = "23:0|5|0|/data/incoming|2|false";
const string default_key = "0:0|0|0||0|false";

class CommandParserTest : public testing::Test {
 protected:
  CommandParserTest() { log_up_to(3); }

  void log_up_to(int level) const {
    Logger::configure({.path = directory_.path("pelowatchd.log"), .level = level});
  }

  /// The commands of a file with this content, as their texts.
  std::vector<string> commands(const string& content) {
    CommandParser parser;
    parser.parse(directory_.put("commands", content));
    return texts(parser);
  }
  static std::vector<string> texts(const CommandParser& parser) {
    std::vector<string> all;
    for (const Command& command : parser.getCommands()) {
      all.push_back(command.ToString());
    }
    return all;
  }

  std::vector<string> logged() const { return log_records(directory_.path("pelowatchd.log")); }
  long logged_times(const string& record) const { return count_record(logged(), record); }

  string parse_record() const {
    return "parse CommandParser::parse(): filename:" + directory_.path("commands") + "\n";
  }

  TempDirectory directory_;
};

string input_record(const string& block) {
  return "add_command CommandParser::add_command(): input:\n" + block;
}
string adding_record(const string& key) {
  return "add_command CommandParser::add_command(): adding command from config:" + key + "\n";
}
string recursive_is(const string& word) {
  return "get ConfParser::get(): recursive = " + word + "\n";
}
string missing(const string& key) {
  return "get ConfParser::get(): " + key + " does not exist in the config\n";
}
const string multiple_values =
    "get ConfParser::get(): multiple values exist in the config. First value used\n";
const string empty_exception = "get ConfParser::get(): Exception: \n";

// The command

TEST(Command, TextHoldsEveryFieldInOrder) {
  Command command;
  EXPECT_EQ(command.ToString(), default_key);
  command.start = ConfParser::time_T(23, 59);
  command.day = ConfParser::SAT;
  command.repeat = ConfParser::QUARTERLY;
  command.folder = "/a folder|with/a bar";
  command.action = ConfParser::DELETE;
  command.recursive = true;
  EXPECT_EQ(command.ToString(), "23:59|6|4|/a folder|with/a bar|2|true");
}

// Blocks

struct CommandsFile {
  const char* what;
  string content;
  std::vector<string> commands;
};

TEST_F(CommandParserTest, BlocksAreCutAtSeparators) {
  const std::vector<string> none;
  const std::vector<string> first = {weekly_key};
  const std::vector<string> both = {weekly_key, once_key};
  const string weekly_scan = "scan\n" + weekly;
  const CommandsFile files[] = {
      {"in file order", weekly_scan + "scan\n" + once, both},
      {"no separator", weekly, first},
      {"before the first one", "day MON\nscan\n" + weekly + "scan\n" + once, both},
      {"identical blocks", weekly_scan + weekly_scan, {weekly_key, weekly_key}},
      {"a bare command", weekly_scan + "scan\nday SUN\n", {weekly_key, default_key}},
      {"empty", "", none},
      {"comments and blank lines", "# scan\n\n \t\r\n#\n  # folder /x\n", none},
      {"a lone separator", "scan\n", none},
      {"nothing between separators", "scan\nscan\n\nscan", none},
      {"nothing between commands", weekly_scan + "scan\n# nothing\nscan\n" + once, both},
      {"blanks around", " \tscan\t \n" + weekly + "   scan  \r\n" + once, both},
      {"a setting SCAN alone", "SCAN\n", {default_key}},
      {"a setting SCAN", weekly_scan + "SCAN\n" + once, first},
      {"a separator with a comment is none", weekly_scan + "scan # weekly\n" + once, first},
      {"unless the comment touches it", weekly_scan + "scan# weekly\n" + once, both},
      {"it opens nothing", "scan # weekly\n" + weekly + "scan\nscan\n" + once, both},
      {"it is no setting", "scan # weekly\n", none},
      {"words that begin like a separator", weekly_scan + "scanner\nscan now\n", first},
      {"DOS line ends", "scan\r\nday SUN\r\nscan\r\nday SUN", {default_key, default_key}},
      {"lone carriage returns: a setting scan", "scan\rfolder /data\rscan\r", none},
      {"the first separator closes nothing", weekly + "scan\nfolder /more\nscan", first},
  };
  for (const CommandsFile& file : files) {
    EXPECT_EQ(commands(file.content), file.commands) << file.what;
  }
}

TEST_F(CommandParserTest, LogsTheFileEachBlockAndAtTheTraceLevelEachCommand) {
  const std::vector<string> all = {
      parse_record(),         input_record("scan\n" + weekly + "scan\n"),
      recursive_is("yes"),    adding_record(weekly_key),
      input_record(once),     recursive_is("no"),
      adding_record(once_key)};
  std::vector<string> expected = all;
  (void)commands("scan\n" + weekly + "scan\n" + once);
  EXPECT_EQ(logged(), expected);
  log_up_to(2);
  (void)commands("scan\n" + weekly + "scan\n" + once);
  for (const std::size_t record : {0U, 1U, 2U, 4U, 5U}) {
    expected.push_back(all[record]);
  }
  EXPECT_EQ(logged(), expected);
  log_up_to(1);
  (void)commands("scan\n" + weekly + "scan\n" + once);
  EXPECT_EQ(logged(), expected) << "a complete file gives no error";
}

TEST_F(CommandParserTest, AddCommandEmptiesTheBlockAndMakesNothingOfAnEmptyOne) {
  CommandParser parser;
  std::stringstream block;
  parser.add_command(block);
  EXPECT_THAT(texts(parser), IsEmpty());
  EXPECT_THAT(logged(), ElementsAre(input_record("")));
  block << "folder /one\n";
  parser.add_command(block);
  EXPECT_EQ(block.str(), "");
  block << "folder /two\n";
  parser.add_command(block);
  EXPECT_THAT(texts(parser), ElementsAre("0:0|0|0|/one|0|false", "0:0|0|0|/two|0|false"));
}

TEST_F(CommandParserTest, EachCommandHasItsBlockWithTheLinesOfTheFile) {
  CommandParser parser;
  parser.parse(directory_.put("commands", "# two\nscan\nday MON\nscan\n\nscan\n\nday TUE\n"));
  ASSERT_EQ(parser.blocks().size(), 2U);
  EXPECT_EQ(parser.blocks().front().first_line, 1U);
  EXPECT_EQ(parser.blocks().front().settings.peek("day")->line, 3U);
  EXPECT_EQ(parser.blocks().back().first_line, 7U);
  EXPECT_EQ(parser.blocks().back().settings.peek("day")->line, 8U);
}

TEST_F(CommandParserTest, AFileThatCannotBeReadGivesNoneWithoutAWordOfItsOwn) {
  CommandParser parser;
  parser.parse(directory_.path("commands"));
  std::filesystem::create_directory(directory_.path("commands"));
  parser.parse(directory_.path("commands"));
  EXPECT_THAT(texts(parser), IsEmpty());
  EXPECT_THAT(logged(),
              ElementsAre(parse_record(), input_record(""), parse_record(), input_record("")));
  parser.parse(directory_.put("file", weekly));
  parser.parse(directory_.put("file", once));
  EXPECT_THAT(texts(parser), ElementsAre(weekly_key, once_key)) << "files add up";
}

// Settings

TEST_F(CommandParserTest, EverySettingIsReadFromItsWord) {
  const std::pair<const char*, const char*> settings[] = {
      {"day SUN", "0:0|0|0||0|false"},
      {"day mon", "0:0|1|0||0|false"},
      {"day Tue", "0:0|2|0||0|false"},
      {"day SAT", "0:0|6|0||0|false"},
      {"repeat daily", "0:0|0|1||0|false"},
      {"repeat Weekly", "0:0|0|2||0|false"},
      {"repeat MONTHLY", "0:0|0|3||0|false"},
      {"repeat quarterLY", "0:0|0|4||0|false"},
      {"action report", "0:0|0|0||0|false"},
      {"action Disinfect", "0:0|0|0||1|false"},
      {"action DELETE", "0:0|0|0||2|false"},
      {"recursive YES", "0:0|0|0||0|true"},
      {"recursive 1", "0:0|0|0||0|true"},
      {"recursive true", "0:0|0|0||0|false"},
      {"start 7:5", "7:5|0|0||0|false"},
      {"start 07:05", "7:5|0|0||0|false"},
      {"start 25:99", "25:99|0|0||0|false"},
      {"start 12:xx", "0:0|0|0||0|false"},
      {"Folder /data\nDAY MON", "0:0|0|0||0|false"},
      {"folder  \t/data/my  folder \t", "0:0|0|0|/data/my  folder|0|false"},
      {"folder /data # all of it\n", "0:0|0|0|/data|0|false"},
  };
  for (const auto& [line, key] : settings) {
    EXPECT_THAT(commands(line), ElementsAre(key)) << line;
  }
}

TEST_F(CommandParserTest, MissingKeysAreReportedInTheirOrderAndTheCommandIsAdded) {
  EXPECT_THAT(commands("scan\nday TUE\nfolder /data\naction DISINFECT\n"),
              ElementsAre("0:0|2|0|/data|1|false"));
  EXPECT_THAT(logged(), ElementsAre(parse_record(),
                                    input_record("scan\nday TUE\nfolder /data\naction DISINFECT\n"),
                                    missing("start"), missing("start"), missing("repeat"),
                                    missing("repeat"), missing("recursive"), missing("recursive"),
                                    adding_record("0:0|2|0|/data|1|false")));
  (void)commands("start 1:00\n");
  EXPECT_EQ(logged_times(missing("folder")), 1) << "it is not converted";
}

TEST_F(CommandParserTest, ValuesThatDoNotConvertAreReportedAndOfTwoTheFirstCounts) {
  EXPECT_THAT(commands("start noon\nday MONDAY\nrepeat YEARLY\nfolder /data\naction BURN\n"
                       "recursive no\nfolder /two\nday MON\n"),
              ElementsAre("0:0|0|0|/data|0|false"));
  EXPECT_EQ(logged_times(empty_exception), 4);
  EXPECT_EQ(logged_times(multiple_values), 2);
}

TEST_F(CommandParserTest, BytesOfAnyKindStandInAFolder) {
  const string bytes("/\x01\xff\xfe\0\x7f|'\"%s%n", 14);
  EXPECT_THAT(commands("scan\nfolder " + bytes + "\nday SAT\n"),
              ElementsAre("0:0|6|0|" + bytes + "|0|false"));
}

}  // namespace
