#include "next_due.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <utility>

namespace {

using std::string;
using time_T = ConfParser::time_T;

Command job(time_T start, ConfParser::days_t day, ConfParser::repeat_t repeat) {
  Command command;
  command.start = start;
  command.day = day;
  command.repeat = repeat;
  command.folder = "/data";
  return command;
}

std::time_t at(int year, int month, int day, int hour, int minute) {
  std::tm time{};
  time.tm_year = year - 1900;
  time.tm_mon = month - 1;
  time.tm_mday = day;
  time.tm_hour = hour;
  time.tm_min = minute;
  time.tm_isdst = -1;
  return std::mktime(&time);
}

class ParseJob : public testing::TestWithParam<string> {};

TEST_P(ParseJob, GivesBackWhatTheTextWasMadeFrom) {
  const std::optional<Command> command = parse_job(GetParam());
  ASSERT_TRUE(command.has_value());
  EXPECT_EQ(command->ToString(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Texts, ParseJob,
                         testing::Values("2:30|1|2|/data/share|0|true", "0:0|0|0||0|false",
                                         "25:99|6|4|/a|b|c|2|true", "-1:-5|3|1|/|1|false",
                                         "7:5|9|9|\x1b[2J|77|true"));

class ParseJobRefuses : public testing::TestWithParam<string> {};

TEST_P(ParseJobRefuses, WhatIsNoJob) {
  EXPECT_FALSE(parse_job(GetParam()).has_value()) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(Texts, ParseJobRefuses,
                         testing::Values("", "|", "2:30", "2:30|1|2", "2:30|1|2|/data|0",
                                         "2:30|1|2|/data|0|yes", "2:30|1|2|/data|x|true",
                                         "2.30|1|2|/data|0|true", "99999999999:0|1|2|/a|0|true",
                                         "2:30|1|2||true", "\xff\xff\xff\xff"));

struct CentralEurope {
  CentralEurope() {
    (void)setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
  }
};

class NextDueTest : public testing::Test {
 protected:
  const CentralEurope time_zone_;  // before the times below
  // A Saturday.
  const std::time_t now_ = at(2026, 11, 21, 14, 0);
  const time_T midnight_{0, 0};
};

TEST_F(NextDueTest, OnItsWeekday) {
  const NextDue due = next_due(job({2, 30}, ConfParser::MON, ConfParser::WEEKLY), now_, midnight_);
  EXPECT_EQ(due.at, at(2026, 11, 23, 2, 30));
  EXPECT_EQ(due.words, "Monday 2026-11-23 02:30, in 1 day 12 hours");
}

TEST_F(NextDueTest, LaterToday) {
  const NextDue due = next_due(job({23, 5}, ConfParser::SAT, ConfParser::NO), now_, midnight_);
  EXPECT_EQ(due.at, at(2026, 11, 21, 23, 5));
  EXPECT_EQ(due.words, "Saturday 2026-11-21 23:05, in 9 hours 5 minutes");
}

TEST_F(NextDueTest, OneShotThatIsStillListedAfterItsStartIsDueNow) {
  const NextDue due = next_due(job({10, 0}, ConfParser::SAT, ConfParser::NO), now_, midnight_);
  EXPECT_EQ(due.at, now_);
  EXPECT_EQ(due.words, "now");
}

TEST_F(NextDueTest, RepeatingJobWhoseStartIsOverWaitsAWeek) {
  for (const auto repeat : {ConfParser::DAILY, ConfParser::WEEKLY}) {
    const NextDue due = next_due(job({10, 0}, ConfParser::SAT, repeat), now_, midnight_);
    EXPECT_EQ(due.words, "Saturday 2026-11-28 10:00, in 6 days 20 hours");
  }
}

TEST_F(NextDueTest, RepeatingJobWhoseStartHasJustComeIsDueNow) {
  EXPECT_EQ(next_due(job({13, 59}, ConfParser::SAT, ConfParser::WEEKLY), now_, midnight_).words,
            "now");
  EXPECT_EQ(next_due(job({14, 0}, ConfParser::SAT, ConfParser::WEEKLY), now_, midnight_).words,
            "now");
}

TEST_F(NextDueTest, LongPeriodsAreOnlyKnownAtTheEarliest) {
  for (const auto repeat : {ConfParser::MONTHLY, ConfParser::QUARTERLY}) {
    EXPECT_EQ(next_due(job({2, 30}, ConfParser::MON, repeat), now_, midnight_).words,
              "Monday 2026-11-23 02:30, in 1 day 12 hours at the earliest");
  }
}

TEST_F(NextDueTest, StartBeforeTheReadingOfTheFileNeverComes) {
  const Command early = job({10, 0}, ConfParser::MON, ConfParser::WEEKLY);
  const NextDue due = next_due(early, now_, {10, 1});
  EXPECT_FALSE(due.at.has_value());
  EXPECT_EQ(due.words, "not until the commands file is read again, at or before 10:00");
  EXPECT_TRUE(next_due(early, now_, {10, 0}).at.has_value());
}

TEST_F(NextDueTest, TimesThatNoDayHas) {
  const std::pair<time_T, const char*> starts[] = {
      {{24, 0}, "24:00"}, {{23, 60}, "23:60"}, {{-1, 0}, "-1:00"}, {{0, -5}, "00:-5"}};
  for (const auto& [start, text] : starts) {
    const NextDue due = next_due(job(start, ConfParser::MON, ConfParser::WEEKLY), now_, midnight_);
    EXPECT_FALSE(due.at.has_value()) << text;
    EXPECT_EQ(due.words, string("never: no day has a ") + text);
  }
}

TEST_F(NextDueTest, ReadingOfTheFileThatATimeWhichNoClockShowsWaitsFor) {
  EXPECT_EQ(next_due(job({0, 75}, ConfParser::MON, ConfParser::WEEKLY), now_, {1, 0}).words,
            "not until the commands file is read again, at or before 00:59");
  EXPECT_EQ(next_due(job({10, -5}, ConfParser::MON, ConfParser::WEEKLY), now_, {10, 0}).words,
            "not until the commands file is read again, at or before 09:59");
  EXPECT_EQ(next_due(job({0, 75}, ConfParser::MON, ConfParser::WEEKLY), now_, {0, 59}).at,
            at(2026, 11, 23, 1, 0));
}

TEST_F(NextDueTest, MinuteBeyondTheHourWaitsForTheNextHour) {
  EXPECT_EQ(next_due(job({10, 75}, ConfParser::MON, ConfParser::WEEKLY), now_, midnight_).at,
            at(2026, 11, 23, 11, 0));
}

TEST_F(NextDueTest, MinuteBeforeTheHourIsTheHour) {
  EXPECT_EQ(next_due(job({10, -5}, ConfParser::MON, ConfParser::WEEKLY), now_, midnight_).at,
            at(2026, 11, 23, 10, 0));
}

TEST_F(NextDueTest, WeekdaysThatDoNotExistNeverCome) {
  EXPECT_EQ(next_due(job({2, 30}, static_cast<ConfParser::days_t>(9), ConfParser::WEEKLY), now_,
                     midnight_)
                .words,
            "never: there is no weekday 9");
}

TEST_F(NextDueTest, AcrossTheEndOfSummerTime) {
  EXPECT_EQ(next_due(job({2, 30}, ConfParser::MON, ConfParser::WEEKLY), at(2026, 10, 24, 12, 0),
                     midnight_)
                .words,
            "Monday 2026-10-26 02:30, in 1 day 15 hours");
}

TEST_F(NextDueTest, AcrossTheYear) {
  EXPECT_EQ(
      next_due(job({0, 0}, ConfParser::FRI, ConfParser::NO), at(2026, 12, 31, 23, 59), midnight_)
          .at,
      at(2027, 1, 1, 0, 0));
}

}  // namespace
