// What is found in commands files.
#include "commands_check.h"

#include <ctime>
#include <set>

#include "check_fixture.h"
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

const string rest = "start 10:00\nday MON\nrepeat WEEKLY\n";
const string job = "scan\nfolder @/data\n" + rest;

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

string too_late(int line, const char* time) {
  return "\n" + std::to_string(line) +
         " start: if the daemon reads the file at 10:00, the job does not run until the file is "
         "read again at or before " +
         time + ": touch the file by then, or let the job start later";
}

const string never =
    "the clock never shows such a time, so the job never runs; write 00:00 to 23:59";

const OddSetting odd_job_settings[] = {
    {"start 24:00", never},
    {"start -1:00", never},
    {"start 0:-5", never},
    {"start 23:60", never},
    {"day Monday", "\"Monday\" is no day, so SUN is used; write one of SUN to SAT"},
    {"day", "has no value, so SUN is used; write one of SUN to SAT"},
    {"repeat HOURLY",
     "\"HOURLY\" is no period, so NO is used; write NO, DAILY, WEEKLY, MONTHLY or QUARTERLY"},
    {"action ALARM",
     "\"ALARM\" is no action, so REPORT is used; write REPORT, DISINFECT or DELETE"},
    {"recursive on", "\"on\" reads as no; write yes or no"},
    {"start 10:75", "the clock never shows such a time, so the job runs from 11:00 on"},
    {"start 11:-5", "the clock never shows such a time, so the job runs from 11:00 on"},
    {"repeat DAILY",
     "the job runs on MON only, since its day counts for every period; write WEEKLY for every MON, "
     "and one job for each day for every day"},
    {"repeat monthly",
     "until the daemon is restarted, no run comes earlier in the month than the run before it, so "
     "runs move towards the end of the month, and from the 29th on whole months pass without one; "
     "write WEEKLY for every MON, or QUARTERLY, which runs every 13 or 14 weeks"},
    {"start 23:59",
     "the daemon looks for due jobs a little less often than once a minute, so it may pass over "
     "the last minute of the day; write an earlier one"},
    {"folder @/data#1", "\"#\" begins a comment wherever it stands, so the value is \"@/data\""},
    {"folder = @/data", "the value is \"= @/data\"; there is no \"=\": write \"folder @/data\""},
    {"folder @/nowhere", "\"@/nowhere\" does not exist: the job scans nothing"},
    {"folder @/file", "\"@/file\" is no directory: the job scans nothing"},
    {"folder etc", "\"etc\" is relative: in the background the daemon looks for it in \"/\""}};

const CheckedFile odd_commands[] = {
    {"scan # weekly\nfolder @/data\n" + rest,
     "1 scan: separates no jobs, because a comment follows: what stands below belongs to the "
     "same job as what stands above; write \"scan\" alone on its line"},
    {job + "scan # two\nfolder @/other\n",
     "6 scan: separates no jobs, because a comment follows: what stands below belongs to the "
     "same job as what stands above; write \"scan\" alone on its line"
     "\n7 folder: ignored: only the first value counts, of line 2"},
    {"scan weekly\nfolder @/data\n" + rest,
     "1 scan: separates no jobs, because \"weekly\" follows: what stands below belongs to the "
     "same job as what stands above; write \"scan\" alone on its line"},
    {"SCAN\nfolder @/data\n" + rest,
     "1 SCAN: separates no jobs: what stands below belongs to the same job as what stands "
     "above; write \"scan\" in small letters"},
    {"recursive yes\n" + job,
     "1 recursive: stands before the first \"scan\", so it belongs to the same job as what "
     "follows line 2"},
    {"scn\nfolder @/data\n" + rest, "1 scn: no such key, so the line is ignored"},
    {job + job, "6 the same as the job of line 1, so the two are one"},
    {job + "colour blue\nFolder @/data\ndya MON\n",
     "6 colour: no such key, so the line is ignored"
     "\n7 Folder: no such key, so the line is ignored; write \"folder\": capitals count"
     "\n8 dya: no such key, so the line is ignored"},
    {job + "day TUE\n", "6 day: ignored: only the first value counts, of line 4"},
    {"scan\n" + rest, "1 folder: no folder is given, so the job scans nothing"},
    {"scan\nfolder @/data\nday MON\nrepeat WEEKLY\n",
     "1 start: missing, so 00:00 is used; write hour:minute" + too_late(1, "00:00")},
    {"scan\nfolder @/data\nstart 10:00\nrepeat WEEKLY\n",
     "1 day: missing, so SUN is used; write one of SUN to SAT"},
    {"scan\nfolder @/data\nstart 10:00\nday MON\n",
     "1 repeat: missing, so the job runs once, and then not until the file is read again; "
     "write NO, DAILY, WEEKLY, MONTHLY or QUARTERLY"},
    {with("start 22.30"),
     "2 start: \"22.30\" is no time of day, so 00:00 is used; write hour:minute" +
         too_late(2, "00:00")},
    {with("start 10:-5"),
     "2 start: the clock never shows such a time, so the job runs from 10:00 on" +
         too_late(2, "09:59")},
    {with("start :30"),
     "2 start: \":30\" reads as 00:30; write hour:minute" + too_late(2, "00:30")},
    {with("start :"), "2 start: \":\" reads as 00:00; write hour:minute" + too_late(2, "00:00")}};

TEST_F(CommandsCheckTest, WhatIsFoundIsAllThatIsReported) {
  for (const OddSetting& odd : odd_job_settings) {
    EXPECT_EQ(text_of(check(with(odd.setting)).findings), here("2 " + odd.finding()));
  }
  for (const auto& [content, findings] : odd_commands) {
    EXPECT_EQ(text_of(check(content).findings), here(findings)) << content;
  }
}

TEST_F(CommandsCheckTest, WhatIsAsItSeemsIsNotReported) {
  for (const string& content : std::vector<string>{
           "", "# nothing\n", "scan\n", "scan\nscan\n", job, "folder @/data\n" + rest,
           " scan \r\nfolder @/link\r\n" + rest, job + job + "recursive yes\n", with("repeat NO"),
           with("start 23:58"), with("start 12:"), with("day sat"), with("repeat quarterly"),
           with("action delete"), with("recursive no"), with("folder @/data/ # a comment")}) {
    EXPECT_EQ(text_of(check(content).findings), "") << content;
  }
}

TEST_F(CommandsCheckTest, JobBeforeTheReadingOfTheFileWaitsForAnother) {
  EXPECT_THAT(check(with("start 10:00"), {{10, 1}, false}).findings.size(), 1U);
  EXPECT_THAT(check(with("start 10:00"), {{10, 0}, false}).findings, IsEmpty());
  EXPECT_THAT(check(with("start 10:75"), {{10, 59}, false}).findings.size(), 1U);
  EXPECT_EQ(
      text_of(check(with("start 09:15"), {{14, 30}, true}).findings),
      "2 start: if the daemon reads the file now, at 14:30, the job does not run until the file is "
      "read again at or before 09:15: touch the file by then, or let the job start later");
  EXPECT_THAT(text_of(check(with("start 09:75"), {{14, 30}, true}).findings),
              testing::HasSubstr("2 start: if the daemon reads the file now, at 14:30, the job "
                                 "does not run until the file is read again at or before 09:59: "
                                 "touch the file by then, or let the job start later"));
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
    EXPECT_EQ(text_of(check(with("folder " + string(folder))).findings),
              here("2 folder: scanned although pelowatchd.conf:7 excludes \"@/data\": exclusions "
                   "do not hold for scheduled scans"));
  }
  EXPECT_THAT(check(with("folder @/other")).findings, IsEmpty());
}

TEST_F(CommandsCheckTest, FoldersBelowAreNotScannedWithMaxRecursion0) {
  max_recursion_ = 0;
  EXPECT_EQ(text_of(check(with("recursive yes")).findings),
            "2 recursive: has no effect: with the MaxRecursion 0 of pelowatchd.conf scans look "
            "into the folder alone");
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
  EXPECT_THAT(
      text_of(check(content).findings),
      testing::StartsWith("0 the list of these jobs takes 10241 bytes: the status area holds 10240 "
                          "and goes on showing the jobs before; write fewer jobs"));
}

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

}  // namespace
