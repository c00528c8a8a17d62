// What is found in commands files.
#include "commands_check.h"

#include <ctime>
#include <random>
#include <set>
#include <sstream>

#include "check_test.h"
#include "job_blocks.h"
#include "job_schedule.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

const LoadTime at_ten{{10, 0}, false};

class CommandsCheckTest : public CheckTest {
 protected:
  CommandsCheck check(const string& content, const LoadTime& loaded = at_ten) {
    const string text = here(content);
    return check_commands(directory_.put("sdcommands.conf", text), text, loaded,
                          {exclusions_, max_recursion_, "pelowatchd.conf"});
  }

  std::vector<string> jobs(const string& content) {
    std::vector<string> texts;
    for (const CheckedJob& job : check(content).jobs) {
      texts.push_back(std::to_string(job.line) + ": " + job.command.ToString());
    }
    return texts;
  }

  HeldPaths exclusions_;
  int max_recursion_ = 5;
};

class CommandsFinding : public CommandsCheckTest,
                        public testing::WithParamInterface<CheckedFile> {};

TEST_P(CommandsFinding, IsAllThatIsReported) {
  EXPECT_THAT(without_file(check(GetParam().content).findings),
              ElementsAreArray(here(GetParam().findings)));
}

const string rest = "start 10:00\nday MON\nrepeat WEEKLY\n";
const string job = "scan\nfolder @/data\n" + rest;

INSTANTIATE_TEST_SUITE_P(
    Blocks, CommandsFinding,
    testing::Values(
        CheckedFile{"CommentAfterScan",
                    "scan # weekly\nfolder @/data\n" + rest,
                    {{1, "scan",
                      "separates no jobs, because a comment follows: what stands below belongs to "
                      "the same job as what stands above; write \"scan\" alone on its line"}}},
        CheckedFile{"CommentAfterScanSwallowsTheBlock",
                    job + "scan # two\nfolder @/other\n",
                    {{6, "scan",
                      "separates no jobs, because a comment follows: what stands below belongs to "
                      "the same job as what stands above; write \"scan\" alone on its line"},
                     {7, "folder", "ignored: only the first value counts, of line 2"}}},
        CheckedFile{"TextAfterScan",
                    "scan weekly\nfolder @/data\n" + rest,
                    {{1, "scan",
                      "separates no jobs, because \"weekly\" follows: what stands below belongs to "
                      "the same job as what stands above; write \"scan\" alone on its line"}}},
        CheckedFile{"ScanInCapitals",
                    "SCAN\nfolder @/data\n" + rest,
                    {{1, "SCAN",
                      "separates no jobs: what stands below belongs to the same job as what stands "
                      "above; write \"scan\" in small letters"}}},
        CheckedFile{"SettingsBeforeTheFirstScan",
                    "recursive yes\n" + job,
                    {{1, "recursive",
                      "stands before the first \"scan\", so it belongs to the same job as what "
                      "follows line 2"}}},
        CheckedFile{
            "MisspeltScan",
            "scn\nfolder @/data\n" + rest,
            {{1, "scn", "no such key, so the line is ignored; the nearest key is \"scan\""}}},
        CheckedFile{"TwoEqualBlocks",
                    job + job,
                    {{6, "", "the same as the job of line 1, so the two are one"}}}),
    name_of);

INSTANTIATE_TEST_SUITE_P(
    Keys, CommandsFinding,
    testing::Values(
        CheckedFile{
            "Unknown",
            job + "colour blue\nFolder @/data\ndya MON\n",
            {{6, "colour", "no such key, so the line is ignored"},
             {7, "Folder", "no such key, so the line is ignored; write \"folder\": capitals count"},
             {8, "dya", "no such key, so the line is ignored; the nearest key is \"day\""}}},
        CheckedFile{"Repeated",
                    job + "day TUE\n",
                    {{6, "day", "ignored: only the first value counts, of line 4"}}},
        CheckedFile{"NoFolder",
                    "scan\n" + rest,
                    {{1, "folder", "no folder is given, so the job scans nothing"}}},
        CheckedFile{
            "NoStart",
            "scan\nfolder @/data\nday MON\nrepeat WEEKLY\n",
            {{1, "start", "missing, so 00:00 is used; write hour:minute"},
             {1, "start",
              "if the daemon reads the file at 10:00, the job does not run until the file is "
              "read again at or before 00:00: touch the file by then, or let the job start "
              "later"}}},
        CheckedFile{"NoDay",
                    "scan\nfolder @/data\nstart 10:00\nrepeat WEEKLY\n",
                    {{1, "day", "missing, so SUN is used; write one of SUN to SAT"}}},
        CheckedFile{"NoRepeat",
                    "scan\nfolder @/data\nstart 10:00\nday MON\n",
                    {{1, "repeat",
                      "missing, so the job runs once, and then not until the file is read again; "
                      "write NO, DAILY, WEEKLY, MONTHLY or QUARTERLY"}}}),
    name_of);

string with(const string& setting) {
  const string key = setting.substr(0, setting.find(' '));
  string text = "scan\n" + setting + "\n";
  for (const char* other : {"folder @/data", "start 10:00", "day MON", "repeat WEEKLY"}) {
    if (!string(other).starts_with(key + " ")) {
      text += other + string("\n");
    }
  }
  return text;
}

const string never =
    "the clock never shows such a time, so the job never runs; write 00:00 to 23:59";

INSTANTIATE_TEST_SUITE_P(
    Values, CommandsFinding,
    testing::Values(
        CheckedFile{"NoDay",
                    with("day Monday"),
                    {{2, "day", "\"Monday\" is no day, so SUN is used; write one of SUN to SAT"}}},
        CheckedFile{"DayWithoutValue",
                    with("day"),
                    {{2, "day", "has no value, so SUN is used; write one of SUN to SAT"}}},
        CheckedFile{"NoPeriod",
                    with("repeat HOURLY"),
                    {{2, "repeat",
                      "\"HOURLY\" is no period, so NO is used; write NO, DAILY, WEEKLY, MONTHLY or "
                      "QUARTERLY"}}},
        CheckedFile{
            "NoAction",
            with("action ALARM"),
            {{2, "action",
              "\"ALARM\" is no action, so REPORT is used; write REPORT, DISINFECT or DELETE"}}},
        CheckedFile{"RecursiveOn",
                    with("recursive on"),
                    {{2, "recursive", "\"on\" reads as no; write yes or no"}}},
        CheckedFile{
            "NoTime",
            with("start 22.30"),
            {{2, "start", "\"22.30\" is no time of day, so 00:00 is used; write hour:minute"},
             {2, "start",
              "if the daemon reads the file at 10:00, the job does not run until the file is "
              "read again at or before 00:00: touch the file by then, or let the job start "
              "later"}}},
        CheckedFile{"Hour24", with("start 24:00"), {{2, "start", never}}},
        CheckedFile{"NegativeHour", with("start -1:00"), {{2, "start", never}}},
        CheckedFile{"NegativeMinuteAtMidnight", with("start 0:-5"), {{2, "start", never}}},
        CheckedFile{"MinuteBeyondTheLastHour", with("start 23:60"), {{2, "start", never}}},
        CheckedFile{
            "MinuteBeyondTheHour",
            with("start 10:75"),
            {{2, "start", "the clock never shows such a time, so the job runs from 11:00 on"}}},
        CheckedFile{
            "NegativeMinute",
            with("start 11:-5"),
            {{2, "start", "the clock never shows such a time, so the job runs from 11:00 on"}}},
        CheckedFile{
            "NegativeMinuteOfTheHourOfReading",
            with("start 10:-5"),
            {{2, "start", "the clock never shows such a time, so the job runs from 10:00 on"},
             {2, "start",
              "if the daemon reads the file at 10:00, the job does not run until the file is "
              "read again at or before 09:59: touch the file by then, or let the job start "
              "later"}}},
        CheckedFile{
            "Daily",
            with("repeat DAILY"),
            {{2, "repeat",
              "the job runs on MON only, since its day counts for every period; write WEEKLY "
              "for every MON, and one job for each day for every day"}}},
        CheckedFile{
            "Monthly",
            with("repeat monthly"),
            {{2, "repeat",
              "until the daemon is restarted, no run comes earlier in the month than the run "
              "before it, so runs move towards the end of the month, and from the 29th on whole "
              "months pass without one; write WEEKLY for every MON, or QUARTERLY, which runs "
              "every 13 or 14 weeks"}}},
        CheckedFile{"NoHour",
                    with("start :30"),
                    {{2, "start", "\":30\" reads as 00:30; write hour:minute"},
                     {2, "start",
                      "if the daemon reads the file at 10:00, the job does not run until the file "
                      "is read again at or before 00:30: touch the file by then, or let the job "
                      "start later"}}},
        CheckedFile{"NeitherHourNorMinute",
                    with("start :"),
                    {{2, "start", "\":\" reads as 00:00; write hour:minute"},
                     {2, "start",
                      "if the daemon reads the file at 10:00, the job does not run until the file "
                      "is read again at or before 00:00: touch the file by then, or let the job "
                      "start later"}}},
        CheckedFile{
            "LastMinuteOfTheDay",
            with("start 23:59"),
            {{2, "start",
              "the daemon looks for due jobs a little less often than once a minute, so it may "
              "pass over the last minute of the day; write an earlier one"}}},
        CheckedFile{"CommentWithinFolder",
                    with("folder @/data#1"),
                    {{2, "folder",
                      "\"#\" begins a comment wherever it stands, so the value is \"@/data\""}}},
        CheckedFile{"EqualsSign",
                    with("folder = @/data"),
                    {{2, "folder",
                      "the value is \"= @/data\"; there is no \"=\": write \"folder @/data\""}}},
        CheckedFile{"MissingFolder",
                    with("folder @/nowhere"),
                    {{2, "folder", "\"@/nowhere\" does not exist: the job scans nothing"}}},
        CheckedFile{"FolderIsAFile",
                    with("folder @/file"),
                    {{2, "folder", "\"@/file\" is no directory: the job scans nothing"}}},
        CheckedFile{"RelativeFolder",
                    with("folder etc"),
                    {{2, "folder",
                      "\"etc\" is relative: in the background the daemon looks for it in \"/\""}}}),
    name_of);

TEST_F(CommandsCheckTest, JobBeforeTheReadingOfTheFileWaitsForAnother) {
  EXPECT_THAT(check(with("start 10:00"), {{10, 1}, false}).findings.size(), 1U);
  EXPECT_THAT(check(with("start 10:00"), {{10, 0}, false}).findings, IsEmpty());
  EXPECT_THAT(check(with("start 10:75"), {{10, 59}, false}).findings.size(), 1U);
  EXPECT_THAT(without_file(check(with("start 09:15"), {{14, 30}, true}).findings),
              ElementsAre(Expected{
                  2, "start",
                  "if the daemon reads the file now, at 14:30, the job does not run until the file "
                  "is read again at or before 09:15: touch the file by then, or let the job start "
                  "later"}));
  EXPECT_THAT(without_file(check(with("start 09:75"), {{14, 30}, true}).findings),
              testing::Contains(Expected{
                  2, "start",
                  "if the daemon reads the file now, at 14:30, the job does not run until the file "
                  "is read again at or before 09:59: touch the file by then, or let the job start "
                  "later"}));
}

TEST_F(CommandsCheckTest, OneDailyJobForEachDayIsADailyScan) {
  string content;
  for (const char* day : {"SUN", "MON", "TUE", "WED", "THU", "FRI"}) {
    content += "scan\nfolder @/data\nstart 10:00\nrepeat DAILY\nday " + string(day) + "\n";
  }
  EXPECT_EQ(check(content).findings.size(), 6U);
  content += "scan\nfolder @/data\nstart 10:00\nrepeat DAILY\nday SAT\n";
  EXPECT_THAT(check(content).findings, IsEmpty());
}

TEST_F(CommandsCheckTest, ExclusionsDoNotHold) {
  exclusions_[directory_.path("data")] = 7;
  for (const char* folder : {"@/data", "@/data/sub", "@/link/sub"}) {
    EXPECT_THAT(
        without_file(check(with("folder " + string(folder))).findings),
        ElementsAre(Expected{
            2, "folder",
            here("scanned although pelowatchd.conf:7 excludes \"@/data\": exclusions do not "
                 "hold for scheduled scans")}));
  }
  EXPECT_THAT(check(with("folder @/other")).findings, IsEmpty());
}

TEST_F(CommandsCheckTest, FoldersBelowAreNotScannedWithMaxRecursion0) {
  max_recursion_ = 0;
  EXPECT_THAT(without_file(check(with("recursive yes")).findings),
              ElementsAre(Expected{2, "recursive",
                                   "has no effect: with the MaxRecursion 0 of pelowatchd.conf "
                                   "scans look into the folder alone"}));
  EXPECT_THAT(check(with("recursive no")).findings, IsEmpty());
}

/// By the daemon's own arithmetic: the weeks between runs, for jobs that first run in any week of
/// 28 years, when the calendar begins anew, and then for six years.
std::set<int> weeks_between_runs(ConfParser::repeat_t repeat) {
  constexpr std::time_t day = 86'400;  // seconds
  constexpr std::time_t week = 7 * day;
  constexpr std::time_t end = 28 * 366 * day;
  std::set<int> gaps;
  for (std::time_t first = 0; first < end; first += week) {
    std::tm last{};
    (void)gmtime_r(&first, &last);
    Command command;
    command.repeat = repeat;
    command.day = static_cast<ConfParser::days_t>(last.tm_wday);
    std::time_t ran = first;
    for (int weeks = 1; weeks < 6 * 52; ++weeks) {
      const std::time_t at = first + weeks * week;
      std::tm now{};
      (void)gmtime_r(&at, &now);
      if (is_due(command, now, {0, 0}, &last)) {
        gaps.insert(static_cast<int>((at - ran) / week));
        ran = at;
        last = now;
      }
    }
  }
  return gaps;
}

TEST(PeriodsInWords, AreTheDaemons) {
  EXPECT_THAT(weeks_between_runs(ConfParser::WEEKLY), ElementsAre(1));
  EXPECT_THAT(weeks_between_runs(ConfParser::QUARTERLY), ElementsAre(13, 14));
  const std::set<int> monthly = weeks_between_runs(ConfParser::MONTHLY);
  EXPECT_EQ(*monthly.begin(), 4);
  EXPECT_GT(*monthly.rbegin(), 52);
}

TEST_F(CommandsCheckTest, JobsThatDoNotFitTheStatusAreaAreReported) {
  string content;  // 256 jobs of 40 bytes, their newlines included
  for (int number = 0; number < 256; ++number) {
    content += "scan\nstart 10:00\nday MON\nrepeat WEEKLY\nfolder /" + string(17, 'x') +
               std::to_string(1000 + number) + "\n";
  }
  EXPECT_EQ(check(content).findings.front().line, 5U);
  content.insert(content.size() - 1, "x");
  EXPECT_EQ(without_file(check(content).findings).front(),
            (Expected{0, "",
                      "the list of these jobs takes 10241 bytes: the status area holds 10240 and "
                      "goes on showing the jobs before; write fewer jobs"}));
}

INSTANTIATE_TEST_SUITE_P(
    AsItSeems, CommandsFinding,
    testing::Values(
        CheckedFile{"Empty", "", {}}, CheckedFile{"Comment", "# nothing\n", {}},
        CheckedFile{"Separator", "scan\n", {}}, CheckedFile{"Separators", "scan\nscan\n", {}},
        CheckedFile{"Job", job, {}},
        CheckedFile{"JobWithoutSeparator", "folder @/data\n" + rest, {}},
        CheckedFile{"BlanksAndCarriageReturns", " scan \r\nfolder @/link\r\n" + rest, {}},
        CheckedFile{"JobsThatDiffer", job + job + "recursive yes\n", {}},
        CheckedFile{"Once", with("repeat NO"), {}},
        CheckedFile{"LateStart", with("start 23:58"), {}},
        CheckedFile{"HourAlone", with("start 12:"), {}},
        CheckedFile{"SmallDay", with("day sat"), {}},
        CheckedFile{"SmallPeriod", with("repeat quarterly"), {}},
        CheckedFile{"SmallAction", with("action delete"), {}},
        CheckedFile{"NotRecursive", with("recursive no"), {}},
        CheckedFile{"FolderWithSlashAndComment", with("folder @/data/ # a comment"), {}}),
    name_of);

// The jobs

TEST_F(CommandsCheckTest, EachJobStandsAtItsScanLine) {
  EXPECT_THAT(jobs("# two\nscan\n" + rest + "folder /a\n\nscan\n" + rest + "folder /b\nscan\n"),
              ElementsAre("2: 10:0|1|2|/a|0|false", "8: 10:0|1|2|/b|0|false"));
  EXPECT_THAT(jobs("\n" + rest + "folder /a\n"), ElementsAre("2: 10:0|1|2|/a|0|false"));
  EXPECT_THAT(jobs("SCAN\n"), ElementsAre("1: 0:0|0|0||0|false"));
  EXPECT_THAT(jobs(job + job).size(), 1U);
}

TEST_F(CommandsCheckTest, JobsInWords) {
  const std::pair<const char*, const char*> cases[] = {
      {"scan\nfolder /a\nstart 2:30\nday MON\nrepeat WEEKLY\nrecursive yes\n",
       "/a and what is below it, on Monday from 02:30 on, every week; REPORT"},
      {"scan\nfolder /a\nday SAT\nrepeat NO\naction DELETE\n",
       "/a, on Saturday from 00:00 on, once; DELETE"},
      {"scan\nday SUN\nrepeat DAILY\n", "no folder, on Sunday from 00:00 on, every week; REPORT"},
      {"scan\nfolder b\nrepeat MONTHLY\n",
       "b, on Sunday from 00:00 on, at most once a month; REPORT"},
      {"scan\nfolder b\nrepeat QUARTERLY\naction DISINFECT\n",
       "b, on Sunday from 00:00 on, every 13 or 14 weeks; DISINFECT"}};
  for (const auto& [content, words] : cases) {
    EXPECT_EQ(in_words(check(content).jobs.front().command), words);
  }
}

// Blocks are the daemon's

class RandomCommands : public CommandsCheckTest, public testing::WithParamInterface<unsigned> {
 protected:
  string random_file() {
    const string lines[] = {"scan",
                            " scan ",
                            "scan # x",
                            "scan#x",
                            "SCAN",
                            "scan x",
                            "start 1:00",
                            "start 2",
                            "day MON",
                            "day",
                            "#",
                            "",
                            "repeat NO",
                            "folder /a",
                            "folder /b # c",
                            "x",
                            "recursive yes",
                            "\r",
                            string("a\0b", 3),
                            "\xff\xfe",
                            "action DELETE"};
    string content;
    for (int line = 0; line < 30; ++line) {
      content += lines[random_() % std::size(lines)] + (random_() % 9 == 0 ? "\r\n" : "\n");
    }
    content.resize(content.size() - random_() % 2);
    return content;
  }

  std::mt19937 random_{GetParam()};
};

TEST_P(RandomCommands, AreCutIntoTheDaemonsBlocks) {
  for (int file = 0; file < 200; ++file) {
    const string content = random_file();
    const string name = directory_.put("random", content);
    CommandParser parser;
    parser.parse(name);
    Report report(name);
    std::vector<string> read_alone;
    for (const JobBlock& block : job_blocks(content, report)) {
      std::istringstream text;
      string lines;
      for (const FileLine& line : block.settings) {
        lines += line.key + " " + line.value + "\n";
      }
      text.str(lines);
      ConfParser settings;
      settings.parse(text);
      read_alone.push_back(Command(settings).ToString());
    }
    std::vector<string> read_by_daemon;
    for (const Command& command : parser.getCommands()) {
      read_by_daemon.push_back(command.ToString());
    }
    ASSERT_EQ(read_alone, read_by_daemon) << content;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomCommands, testing::Values(1, 2, 3));

}  // namespace
