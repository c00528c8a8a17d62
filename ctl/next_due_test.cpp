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

TEST_F(NextDueTest, InWords) {
  using Config = ConfParser;
  struct Case {
    time_T start;
    Config::days_t day;
    Config::repeat_t repeat;
    const char* words;
  };
  const char* const monday = "Monday 2026-11-23 02:30, in 1 day 12 hours";
  const char* const monday_at_the_earliest =
      "Monday 2026-11-23 02:30, in 1 day 12 hours at the earliest";
  const char* const in_a_week = "Saturday 2026-11-28 10:00, in 6 days 20 hours";
  const Case cases[] = {
      {{2, 30}, Config::MON, Config::WEEKLY, monday},
      {{23, 5}, Config::SAT, Config::NO, "Saturday 2026-11-21 23:05, in 9 hours 5 minutes"},
      {{10, 0}, Config::SAT, Config::NO, "now"},  // listed after its start, so it has not run
      {{10, 0}, Config::SAT, Config::DAILY, in_a_week},
      {{10, 0}, Config::SAT, Config::WEEKLY, in_a_week},
      {{13, 59}, Config::SAT, Config::WEEKLY, "now"},
      {{14, 0}, Config::SAT, Config::WEEKLY, "now"},
      {{2, 30}, Config::MON, Config::MONTHLY, monday_at_the_earliest},
      {{2, 30}, Config::MON, Config::QUARTERLY, monday_at_the_earliest},
      {{2, 30}, static_cast<Config::days_t>(9), Config::WEEKLY, "never: there is no weekday 9"},
      {{24, 0}, Config::MON, Config::WEEKLY, "never: no day has a 24:00"},
      {{23, 60}, Config::MON, Config::WEEKLY, "never: no day has a 23:60"},
      {{-1, 0}, Config::MON, Config::WEEKLY, "never: no day has a -1:00"},
      {{0, -5}, Config::MON, Config::WEEKLY, "never: no day has a 00:-5"},
  };
  for (const auto& [start, day, repeat, words] : cases) {
    const NextDue due = next_due(job(start, day, repeat), now_, midnight_);
    EXPECT_EQ(due.words, words);
    EXPECT_EQ(due.at.has_value(), !string(words).starts_with("never")) << words;
  }
  EXPECT_EQ(next_due(job({2, 30}, Config::MON, Config::NO), now_, midnight_).at,
            at(2026, 11, 23, 2, 30));
  EXPECT_EQ(next_due(job({10, 0}, Config::SAT, Config::NO), now_, midnight_).at, now_);
}

TEST_F(NextDueTest, StartBeforeTheReadingOfTheFileNeverComes) {
  const Command early = job({10, 0}, ConfParser::MON, ConfParser::WEEKLY);
  const NextDue due = next_due(early, now_, {10, 1});
  EXPECT_FALSE(due.at.has_value());
  EXPECT_EQ(due.words, "not until the commands file is read again, at or before 10:00");
  EXPECT_TRUE(next_due(early, now_, {10, 0}).at.has_value());
}

TEST_F(NextDueTest, ReadingOfTheFileThatATimeWhichNoClockShowsWaitsFor) {
  EXPECT_EQ(next_due(job({0, 75}, ConfParser::MON, ConfParser::WEEKLY), now_, {1, 0}).words,
            "not until the commands file is read again, at or before 00:59");
  EXPECT_EQ(next_due(job({10, -5}, ConfParser::MON, ConfParser::WEEKLY), now_, {10, 0}).words,
            "not until the commands file is read again, at or before 09:59");
  EXPECT_EQ(next_due(job({0, 75}, ConfParser::MON, ConfParser::WEEKLY), now_, {0, 59}).at,
            at(2026, 11, 23, 1, 0));
}

TEST_F(NextDueTest, MinuteBeyondTheHourWaitsForTheNextAndOneBeforeItIsTheHour) {
  EXPECT_EQ(next_due(job({10, 75}, ConfParser::MON, ConfParser::WEEKLY), now_, midnight_).at,
            at(2026, 11, 23, 11, 0));
  EXPECT_EQ(next_due(job({10, -5}, ConfParser::MON, ConfParser::WEEKLY), now_, midnight_).at,
            at(2026, 11, 23, 10, 0));
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
