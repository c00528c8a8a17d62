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

constexpr std::size_t ten_megabytes = 10'000'000;

// Of settings, each of which costs allocations, less where these take long.
constexpr std::size_t many_settings = PELO_SLOW ? 1'000'000 : ten_megabytes;

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
string missing(const string& key) {
  return "get ConfParser::get(): " + key + " does not exist in the config\n";
}
const string multiple_values =
    "get ConfParser::get(): multiple values exist in the config. First value used\n";
const string empty_exception = "get ConfParser::get(): Exception: \n";

// The command

TEST(Command, DefaultsAreSundayMidnightOnceNowhereReportAndFlat) {
  const Command command;
  EXPECT_EQ(command.start.hour, 0);
  EXPECT_EQ(command.start.minute, 0);
  EXPECT_EQ(command.day, ConfParser::SUN);
  EXPECT_EQ(command.repeat, ConfParser::NO);
  EXPECT_EQ(command.folder, "");
  EXPECT_EQ(command.action, ConfParser::REPORT);
  EXPECT_FALSE(command.recursive);
}

TEST(Command, TextHoldsEveryFieldInOrder) {
  Command command;
  command.start = ConfParser::time_T(23, 59);
  command.day = ConfParser::SAT;
  command.repeat = ConfParser::QUARTERLY;
  command.folder = "/a folder|with/a bar";
  command.action = ConfParser::DELETE;
  command.recursive = true;
  EXPECT_EQ(command.ToString(), "23:59|6|4|/a folder|with/a bar|2|true");
}

TEST(Command, TextOfTheDefaults) {
  EXPECT_EQ(Command().ToString(), default_key);
}

// Blocks

TEST_F(CommandParserTest, ReadsTheCommandsInFileOrder) {
  EXPECT_THAT(commands("scan\n" + weekly + "scan\n" + once), ElementsAre(weekly_key, once_key));
}

TEST_F(CommandParserTest, LogsTheFileEachBlockAndEachCommand) {
  (void)commands("scan\n" + weekly + "scan\n" + once);
  EXPECT_THAT(logged(),
              ElementsAre(parse_record(), input_record("scan\n" + weekly + "scan\n"),
                          "get ConfParser::get(): recursive = yes\n", adding_record(weekly_key),
                          input_record(once), "get ConfParser::get(): recursive = no\n",
                          adding_record(once_key)));
}

TEST_F(CommandParserTest, LogsTheAddedCommandsAtTheTraceLevelAndTheRestBelow) {
  log_up_to(2);
  (void)commands("scan\n" + once);
  EXPECT_THAT(logged(), ElementsAre(parse_record(), input_record("scan\n" + once),
                                    "get ConfParser::get(): recursive = no\n"));
}

TEST_F(CommandParserTest, ACompleteFileLogsNoError) {
  log_up_to(1);
  (void)commands("scan\n" + weekly + "scan\n" + once);
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(CommandParserTest, ASecondFileAddsToTheFirst) {
  CommandParser parser;
  parser.parse(directory_.put("one", "scan\n" + weekly));
  parser.parse(directory_.put("two", "scan\n" + once));
  EXPECT_THAT(texts(parser), ElementsAre(weekly_key, once_key));
}

TEST_F(CommandParserTest, WithoutASeparatorTheFileIsOneCommand) {
  EXPECT_THAT(commands(weekly), ElementsAre(weekly_key));
}

TEST_F(CommandParserTest, LinesBeforeTheFirstSeparatorBelongToTheFirstCommand) {
  EXPECT_THAT(commands("folder /first\nscan\n" + weekly + "scan\n" + once),
              ElementsAre("2:30|1|2|/first|0|true", once_key));
}

TEST_F(CommandParserTest, TwoIdenticalBlocksAreTwoEntries) {
  EXPECT_THAT(commands("scan\n" + weekly + "scan\n" + weekly), ElementsAre(weekly_key, weekly_key));
}

TEST_F(CommandParserTest, SettingsDoNotReachTheNextCommand) {
  EXPECT_THAT(commands("scan\n" + weekly + "scan\nfolder /bare\n"),
              ElementsAre(weekly_key, "0:0|0|0|/bare|0|false"));
}

TEST_F(CommandParserTest, AddCommandEmptiesTheBlockForTheNextOne) {
  CommandParser parser;
  std::stringstream block;
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

TEST_F(CommandParserTest, AddCommandMakesNothingOfAnEmptyBlock) {
  CommandParser parser;
  std::stringstream block;
  parser.add_command(block);
  EXPECT_THAT(texts(parser), IsEmpty());
  EXPECT_THAT(logged(), ElementsAre(input_record("")));
}

// Files without commands

TEST_F(CommandParserTest, AFileThatCannotBeOpenedGivesNoneWithoutAWordOfItsOwn) {
  CommandParser parser;
  parser.parse(directory_.path("commands"));
  EXPECT_THAT(texts(parser), IsEmpty());
  EXPECT_THAT(logged(), ElementsAre(parse_record(), input_record("")));
}

TEST_F(CommandParserTest, AFolderInPlaceOfTheFileGivesNone) {
  std::filesystem::create_directory(directory_.path("commands"));
  CommandParser parser;
  parser.parse(directory_.path("commands"));
  EXPECT_THAT(texts(parser), IsEmpty());
}

TEST_F(CommandParserTest, AnEmptyFileGivesNone) {
  EXPECT_THAT(commands(""), IsEmpty());
  EXPECT_THAT(logged(), ElementsAre(parse_record(), input_record("")));
}

TEST_F(CommandParserTest, CommentsAndBlankLinesAloneGiveNone) {
  EXPECT_THAT(commands("# scan\n\n \t\r\n#\n  # folder /x\n"), IsEmpty());
}

TEST_F(CommandParserTest, ALoneSeparatorGivesNoneAndNoError) {
  log_up_to(1);
  EXPECT_THAT(commands("scan\n"), IsEmpty());
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(CommandParserTest, SeparatorsWithNothingBetweenGiveNone) {
  EXPECT_THAT(commands("scan\nscan\n\nscan"), IsEmpty());
}

TEST_F(CommandParserTest, AnEmptyBlockBetweenTwoCommandsGivesNone) {
  EXPECT_THAT(commands("scan\n" + weekly + "scan\n# nothing\nscan\n" + once),
              ElementsAre(weekly_key, once_key));
}

// Separators

TEST_F(CommandParserTest, BlanksAroundASeparatorDoNotMatter) {
  EXPECT_THAT(commands(" \tscan\t \n" + weekly + "   scan  \r\n" + once),
              ElementsAre(weekly_key, once_key));
}

TEST_F(CommandParserTest, ASeparatorInCapitalsIsASetting) {
  EXPECT_THAT(commands("SCAN\n"), ElementsAre(default_key));
  EXPECT_THAT(commands("scan\n" + weekly + "SCAN\n" + once), ElementsAre(weekly_key));
}

TEST_F(CommandParserTest, ASeparatorWithACommentSeparatesNothing) {
  EXPECT_THAT(commands("scan\n" + weekly + "scan # weekly\n" + once), ElementsAre(weekly_key));
  EXPECT_EQ(logged_times(multiple_values), 6) << "one for each key";
}

TEST_F(CommandParserTest, ASeparatorWithACommentRightBehindItSeparates) {
  EXPECT_THAT(commands("scan\n" + weekly + "scan# weekly\n" + once),
              ElementsAre(weekly_key, once_key));
}

TEST_F(CommandParserTest, ASeparatorWithACommentDoesNotOpenTheFirstCommandEither) {
  EXPECT_THAT(commands("scan # weekly\n" + weekly + "scan\nscan\n" + once),
              ElementsAre(weekly_key, once_key));
  EXPECT_THAT(commands("scan # weekly\n"), IsEmpty());
}

TEST_F(CommandParserTest, WordsThatOnlyBeginLikeASeparatorAreSettings) {
  EXPECT_THAT(commands("scan\n" + weekly + "scanner\nscan now\n"), ElementsAre(weekly_key));
}

// Settings

TEST_F(CommandParserTest, EveryDayHasItsNumber) {
  const char* const words[] = {"SUN", "mon", "Tue", "WED", "tHu", "FRI", "SAT"};
  for (int day = 0; day < 7; ++day) {
    EXPECT_THAT(commands(string("day ") + words[day]),
                ElementsAre("0:0|" + std::to_string(day) + "|0||0|false"));
  }
}

TEST_F(CommandParserTest, EveryPeriodHasItsNumber) {
  const char* const words[] = {"NO", "daily", "Weekly", "MONTHLY", "quarterLY"};
  for (int repeat = 0; repeat < 5; ++repeat) {
    EXPECT_THAT(commands(string("repeat ") + words[repeat]),
                ElementsAre("0:0|0|" + std::to_string(repeat) + "||0|false"));
  }
}

TEST_F(CommandParserTest, EveryActionHasItsNumber) {
  const char* const words[] = {"report", "Disinfect", "DELETE"};
  for (int action = 0; action < 3; ++action) {
    EXPECT_THAT(commands(string("action ") + words[action]),
                ElementsAre("0:0|0|0||" + std::to_string(action) + "|false"));
  }
}

TEST_F(CommandParserTest, OnlyYesAndOneAreRecursive) {
  for (const char* word : {"YES", "yes", "1"}) {
    EXPECT_THAT(commands(string("recursive ") + word), ElementsAre("0:0|0|0||0|true")) << word;
  }
  for (const char* word : {"no", "true", "on", "2", ""}) {
    EXPECT_THAT(commands(string("recursive ") + word), ElementsAre(default_key)) << word;
  }
}

TEST_F(CommandParserTest, AStartIsReadAndPrintedWithoutLeadingZeros) {
  CommandParser parser;
  parser.parse(directory_.put("commands", "start 7:5"));
  ASSERT_EQ(parser.getCommands().size(), 1U);
  EXPECT_EQ(parser.getCommands().front().start.hour, 7);
  EXPECT_EQ(parser.getCommands().front().start.minute, 5);
  EXPECT_EQ(parser.getCommands().front().ToString(), "7:5|0|0||0|false");
  EXPECT_THAT(commands("start 07:05"), ElementsAre("7:5|0|0||0|false"));
}

TEST_F(CommandParserTest, AStartOutsideTheDayIsKept) {
  EXPECT_THAT(commands("start 25:99"), ElementsAre("25:99|0|0||0|false"));
}

TEST_F(CommandParserTest, AFolderKeepsItsBlanksInside) {
  EXPECT_THAT(commands("folder  \t/data/my  folder \t"),
              ElementsAre("0:0|0|0|/data/my  folder|0|false"));
}

TEST_F(CommandParserTest, ACommentMayFollowASetting) {
  EXPECT_THAT(commands("folder /data # all of it\n"), ElementsAre("0:0|0|0|/data|0|false"));
}

TEST_F(CommandParserTest, KeysAreCaseSensitive) {
  EXPECT_THAT(commands("Folder /data\nDAY MON\n"), ElementsAre(default_key));
}

TEST_F(CommandParserTest, MissingKeysAreReportedInTheirOrderAndTheCommandIsAdded) {
  EXPECT_THAT(commands("scan\nday TUE\nfolder /data\naction DISINFECT\n"),
              ElementsAre("0:0|2|0|/data|1|false"));
  EXPECT_THAT(logged(), ElementsAre(parse_record(),
                                    input_record("scan\nday TUE\nfolder /data\naction DISINFECT\n"),
                                    missing("start"), missing("start"), missing("repeat"),
                                    missing("repeat"), missing("recursive"), missing("recursive"),
                                    adding_record("0:0|2|0|/data|1|false")));
}

TEST_F(CommandParserTest, AMissingFolderIsReportedOnce) {
  EXPECT_THAT(commands("start 1:00\nday SUN\nrepeat NO\naction REPORT\nrecursive no\n"),
              ElementsAre("1:0|0|0||0|false"));
  EXPECT_EQ(logged_times(missing("folder")), 1);
}

TEST_F(CommandParserTest, ValuesThatDoNotConvertAreReportedAndTheCommandIsAdded) {
  EXPECT_THAT(commands("start noon\nday MONDAY\nrepeat YEARLY\nfolder /data\naction BURN\n"
                       "recursive no\n"),
              ElementsAre("0:0|0|0|/data|0|false"));
  EXPECT_EQ(logged_times(empty_exception), 4);
}

TEST_F(CommandParserTest, AStartThatConvertsInPartIsNoStart) {
  EXPECT_THAT(commands("start 12:xx\nfolder /data"), ElementsAre("0:0|0|0|/data|0|false"));
  EXPECT_EQ(logged_times(empty_exception), 1);
}

TEST_F(CommandParserTest, OfAKeyGivenTwiceTheFirstCountsEvenIfItDoesNotConvert) {
  EXPECT_THAT(commands("folder /one\nfolder /two\nday NEVER\nday MON\n"),
              ElementsAre("0:0|0|0|/one|0|false"));
  EXPECT_EQ(logged_times(multiple_values), 2);
  EXPECT_EQ(logged_times(empty_exception), 1);
}

// Files nobody wrote by hand

TEST_F(CommandParserTest, DosLineEndsAreRead) {
  EXPECT_THAT(commands("scan\r\nstart 02:30\r\nday MON\r\nfolder /data\r\nscan\r\nday FRI\r\n"),
              ElementsAre("2:30|1|0|/data|0|false", "0:0|5|0||0|false"));
}

TEST_F(CommandParserTest, LoneCarriageReturnsEndNoLine) {
  EXPECT_THAT(commands("scan\rfolder /data\rscan\r"), IsEmpty()) << "one setting, of the key scan";
}

TEST_F(CommandParserTest, TheLastLineNeedsNoEnd) {
  EXPECT_THAT(commands("folder /data"), ElementsAre("0:0|0|0|/data|0|false"));
  EXPECT_THAT(commands("folder /data\nscan\nfolder /more\nscan"),
              ElementsAre("0:0|0|0|/data|0|false"))
      << "the first separator closes nothing, so that the first folder wins";
}

TEST_F(CommandParserTest, BytesOfAnyKindStandInAFolder) {
  const string bytes("/\x01\xff\xfe\0\x7f|'\"%s%n", 14);
  CommandParser parser;
  parser.parse(directory_.put("commands", "scan\nfolder " + bytes + "\nday SAT\n"));
  ASSERT_EQ(parser.getCommands().size(), 1U);
  EXPECT_EQ(parser.getCommands().front().folder, bytes);
  EXPECT_EQ(parser.getCommands().front().day, ConfParser::SAT);
}

/// Bytes without a pattern, the same in every run.
string binary(std::size_t size) {
  string bytes(size, '\0');
  std::uint32_t state = 12345;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

TEST_F(CommandParserTest, BinaryBytesInFrontSpoilNoFurtherCommand) {
  log_up_to(0);
  const std::vector<string> found =
      commands(binary(100'000) + "\nscan\nscan\n" + weekly + "scan\n" + once);
  ASSERT_EQ(found.size(), 3U);
  EXPECT_EQ(found[0], default_key);
  EXPECT_EQ(found[1], weekly_key);
  EXPECT_EQ(found[2], once_key);
}

TEST_F(CommandParserTest, TenMegabytesOfBinaryBytesAreOneCommandWithoutAnySetting) {
  log_up_to(0);
  EXPECT_THAT(commands(binary(ten_megabytes)), ElementsAre(default_key));
}

TEST_F(CommandParserTest, TenMegabytesOfOneLineAreOneSetting) {
  const string folder = "/" + string(ten_megabytes, 'x');
  EXPECT_THAT(commands("folder " + folder), ElementsAre("0:0|0|0|" + folder + "|0|false"));
}

TEST_F(CommandParserTest, TenMegabytesOfCommentsGiveNone) {
  string file;
  while (file.size() < ten_megabytes) {
    file += "# " + string(1000, 'c') + "\n";
  }
  EXPECT_THAT(commands(file), IsEmpty());
}

TEST_F(CommandParserTest, MegabytesOfCommandsAreAllRead) {
  log_up_to(0);
  string file;
  std::size_t count = 0;
  for (; file.size() < many_settings; ++count) {
    file += "scan\n" + weekly;
  }
  const std::vector<string> found = commands(file);
  EXPECT_EQ(found.size(), count);
  EXPECT_THAT(found, testing::Each(weekly_key));
}

TEST_F(CommandParserTest, MegabytesOfSeparatorsGiveNone) {
  log_up_to(0);
  string file;
  while (file.size() < many_settings) {
    file += "scan\n";
  }
  EXPECT_THAT(commands(file), IsEmpty());
}

}  // namespace
