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

TEST(ParseJob, GivesBackWhatTheTextWasMadeFrom) {
  for (const char* text :
       {"2:30|1|2|/data/share|0|true", "0:0|0|0||0|false", "25:99|6|4|/a|b|c|2|true",
        "-1:-5|3|1|/|1|false", "7:5|9|9|\x1b[2J|77|true"}) {
    const std::optional<Command> command = parse_job(text);
    ASSERT_TRUE(command.has_value()) << text;
    EXPECT_EQ(command->ToString(), text);
  }
}

TEST(ParseJob, RefusesWhatIsNoJob) {
  for (const char* text : {"", "|", "2:30", "2:30|1|2", "2:30|1|2|/data|0", "2:30|1|2|/data|0|yes",
                           "2:30|1|2|/data|x|true", "2.30|1|2|/data|0|true",
                           "99999999999:0|1|2|/a|0|true", "2:30|1|2||true", "\xff\xff\xff\xff"}) {
    EXPECT_FALSE(parse_job(text).has_value()) << text;
  }
}

class NextDueTest : public testing::Test {
 protected:
  NextDueTest() {
    (void)setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    now_ = at(2026, 11, 21, 14, 0);
  }

  NextDue weekly(time_T start, time_T loaded = {0, 0}) const {
    return next_due(job(start, ConfParser::MON, ConfParser::WEEKLY), now_, loaded);
  }

  std::time_t now_;  // a Saturday
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
  const string never = "not until the commands file is read again, at or before ";
  EXPECT_FALSE(weekly({10, 0}, {10, 1}).at.has_value());
  EXPECT_EQ(weekly({10, 0}, {10, 1}).words, never + "10:00");
  EXPECT_TRUE(weekly({10, 0}, {10, 0}).at.has_value());
  EXPECT_EQ(weekly({0, 75}, {1, 0}).words, never + "00:59") << "a time that no clock shows";
  EXPECT_EQ(weekly({10, -5}, {10, 0}).words, never + "09:59");
  EXPECT_EQ(weekly({0, 75}, {0, 59}).at, at(2026, 11, 23, 1, 0));
}

TEST_F(NextDueTest, MinuteBeyondTheHourWaitsForTheNextAndOneBeforeItIsTheHour) {
  EXPECT_EQ(weekly({10, 75}).at, at(2026, 11, 23, 11, 0));
  EXPECT_EQ(weekly({10, -5}).at, at(2026, 11, 23, 10, 0));
}

TEST_F(NextDueTest, IsReckonedAcrossTheEndOfSummerTimeAndOfTheYear) {
  now_ = at(2026, 10, 24, 12, 0);
  EXPECT_EQ(weekly({2, 30}).words, "Monday 2026-10-26 02:30, in 1 day 15 hours");
  now_ = at(2026, 12, 31, 23, 59);
  EXPECT_EQ(next_due(job({0, 0}, ConfParser::FRI, ConfParser::NO), now_, midnight_).at,
            at(2027, 1, 1, 0, 0));
}

}  // namespace
