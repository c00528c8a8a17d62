// When a job is due: every rule by itself, and years of passes.
#include "job_schedule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

using Parser = ConfParser;

/// A moment of the calendar, "2024-05-06", at noon, or "2024-05-06 02:30", with its weekday and day
/// of the year.
std::tm at(const char* text) {
  std::tm moment{};
  moment.tm_hour = 12;
  const char* rest = strptime(text, "%Y-%m-%d", &moment);
  (void)strptime(rest, " %H:%M:%S", &moment);
  (void)timegm(&moment);
  return moment;
}

std::string text(const std::tm& moment) {
  char buffer[64];
  (void)std::strftime(buffer, sizeof buffer, "%a %Y-%m-%d %H:%M", &moment);
  return buffer;
}

Command job(Parser::repeat_t repeat, int day, int hour = 0, int minute = 0) {
  Command command;
  command.repeat = repeat;
  command.day = static_cast<Parser::days_t>(day);
  command.start = Parser::time_T(hour, minute);
  return command;
}

const Parser::time_T midnight(0, 0);

// Beyond the words of the file, which cannot give it.
constexpr auto unknown = static_cast<Parser::repeat_t>(5);

// Gates that hold before the history is asked

TEST(Due, AJobWithoutHistoryIsDueOnItsWeekdayOnlyWhateverItsPeriod) {
  for (const Parser::repeat_t repeat :
       {Parser::NO, Parser::DAILY, Parser::WEEKLY, Parser::MONTHLY, Parser::QUARTERLY, unknown}) {
    for (int weekday = 0; weekday < 7; ++weekday) {
      for (int day = 5; day < 12; ++day) {  // the 5th is a Sunday
        const std::tm now = at(("2024-05-" + std::to_string(day)).c_str());
        EXPECT_EQ(is_due(job(repeat, weekday), now, midnight, nullptr), day - 5 == weekday)
            << repeat << ' ' << weekday << ' ' << day;
      }
    }
  }
}

struct GateCase {
  Parser::time_T start;
  Parser::time_T loaded;
  const char* time;  ///< of a Monday
  bool due;
};

TEST(Due, FromItsStartToTheEndOfTheDayUnlessTheFileWasLoadedLaterInTheDay) {
  const GateCase cases[] = {
      {{2, 30}, {0, 0}, "02:29", false},   {{2, 30}, {0, 0}, "02:30", true},
      {{2, 30}, {0, 0}, "03:00", true},    {{2, 30}, {0, 0}, "01:59", false},
      {{2, 30}, {0, 0}, "23:59", true},    {{0, 0}, {0, 0}, "00:00", true},
      {{9, 59}, {0, 0}, "10:00", true},    {{10, 0}, {0, 0}, "09:59", false},
      {{24, 0}, {0, 0}, "23:59", false},   {{10, 0}, {14, 0}, "23:59", false},
      {{10, 0}, {10, 0}, "23:59", true},   {{10, 0}, {10, 1}, "23:59", false},
      {{10, 30}, {11, 0}, "23:59", false}, {{10, 30}, {9, 45}, "23:59", true}};
  const std::tm last = at("2024-04-29 02:30");
  for (const GateCase& one : cases) {
    for (const char* date :
         {"2024-05-06 ", "2024-05-13 ", "2024-05-20 "}) {  // weeks after the load
      const std::tm now = at((date + std::string(one.time)).c_str());
      const Command command = job(Parser::WEEKLY, Parser::MON, one.start.hour, one.start.minute);
      for (const std::tm* history : {static_cast<const std::tm*>(nullptr), &last}) {
        EXPECT_EQ(is_due(command, now, one.loaded, history), one.due)
            << command.ToString() << " at " << text(now) << ", loaded " << one.loaded.hour << ':'
            << one.loaded.minute;
      }
      EXPECT_FALSE(is_due(job(Parser::WEEKLY, Parser::TUE), now, midnight, &last)) << "weekday";
    }
  }
}

// Periods

struct PeriodCase {
  Parser::repeat_t repeat;
  const char* last;
  const char* now;
  bool over;
  const char* what;
};

TEST(Due, OnceThePeriodSinceTheLastRunIsOver) {
  using enum Parser::repeat_t;
  const PeriodCase cases[] = {
      {DAILY, "2024-05-06 02:30", "2024-05-06 23:59", false, "same day"},
      {DAILY, "2024-05-06 23:59", "2024-05-07 00:00", true, "next day"},
      {DAILY, "2024-12-31", "2025-01-01", true, "year end"},
      {DAILY, "2024-02-29", "2025-03-01", false, "the same day of the year of another one"},
      {DAILY, "2023-02-10", "2024-02-10", false, "same day of another year"},
      {WEEKLY, "2024-05-06 02:30", "2024-05-06 23:59", false, "same day"},
      {WEEKLY, "2024-05-06 02:30", "2024-05-13 02:30", true, "next week"},
      {WEEKLY, "2024-12-30", "2025-01-06", true, "week over the year end"},
      {WEEKLY, "2017-01-02", "2023-01-02", false, "same day and weekday of another year"},
      {MONTHLY, "2024-01-08", "2024-01-29", false, "later in the month"},
      {MONTHLY, "2024-01-29", "2024-02-26", false, "next month, last Monday too early"},
      {MONTHLY, "2024-04-01", "2024-07-01", true, "later month, same date"},
      {MONTHLY, "2024-01-08", "2024-02-12", true, "next month, later date"},
      {MONTHLY, "2024-01-08", "2024-02-05", false, "next month, earlier date"},
      {MONTHLY, "2024-01-29", "2024-04-29", true, "from the 29th: April has a Monday the 29th"},
      {MONTHLY, "2024-02-29", "2024-03-28", false, "from the leap day: no Thursday that late"},
      {MONTHLY, "2024-01-08", "2024-02-13", false, "another weekday"},
      {MONTHLY, "2024-12-30", "2025-03-31", true, "year end, a month that reaches the date"},
      {MONTHLY, "2024-01-08", "2025-01-27", false, "same month of another year"},
      {MONTHLY, "2024-05-06", "2024-04-08", true, "an earlier month"},
      {QUARTERLY, "2024-01-08", "2024-02-12", false, "a month later"},
      {QUARTERLY, "2024-01-08", "2024-04-01", false, "in the third month, earlier date"},
      {QUARTERLY, "2024-01-08", "2024-04-08", true, "in the third month, same date"},
      {QUARTERLY, "2024-01-08", "2024-05-06", true, "in the fourth month, earlier date"},
      {QUARTERLY, "2024-01-08", "2025-04-14", false, "in the next year"},
      {QUARTERLY, "2024-01-08", "2024-04-09", false, "another weekday in the third month"},
      {QUARTERLY, "2024-09-30", "2024-12-30", true, "September's is December"},
      {QUARTERLY, "2024-10-07", "2025-01-13", true, "October's is January"},
      {QUARTERLY, "2024-11-25", "2025-01-27", false, "November's is not January"},
      {QUARTERLY, "2024-11-25", "2025-02-24", false, "November's is February, earlier date"},
      {QUARTERLY, "2024-11-18", "2025-02-24", true, "November's is February, later date"},
      {QUARTERLY, "2024-11-25", "2025-03-03", true, "November's, March"},
      {QUARTERLY, "2024-11-25", "2026-03-02", false, "November's, never again after that year"},
      {QUARTERLY, "2024-02-29", "2024-05-23", false, "from the leap day, earlier date"},
      {NO, "2024-05-06", "2024-05-06", true, "in the same minute"},
      {unknown, "2024-01-08", "2025-04-14", false, "unknown, later"},
  };
  for (const PeriodCase& one : cases) {
    const std::tm last = at(one.last);
    const std::tm now = at(one.now);
    EXPECT_EQ(is_due(job(one.repeat, now.tm_wday), now, midnight, &last), one.over)
        << one.repeat << " " << one.what << ", last " << text(last) << ", now " << text(now);
  }
}

// Years of passes

std::time_t seconds_of(const char* text) {
  std::tm moment = at(text);
  return timegm(&moment);
}

/// The days on which a job runs, with passes ten minutes apart from a moment to another.
std::vector<std::string> days_of(const Command& command, const char* begin, const char* end) {
  std::optional<std::tm> last;
  std::vector<std::string> all;
  const std::time_t behind = seconds_of(end);
  for (std::time_t now = seconds_of(begin); now < behind; now += 600) {
    std::tm moment{};
    (void)gmtime_r(&now, &moment);
    if (is_due(command, moment, midnight, last ? &*last : nullptr)) {
      last = moment;
      all.push_back(text(moment).substr(4, 10));
    }
  }
  return all;
}

TEST(Years, ADailyAndAWeeklyJobRunOnceOnEachOfTheirDays) {
  for (const Parser::repeat_t repeat : {Parser::DAILY, Parser::WEEKLY}) {
    const std::vector<std::string> sundays =
        days_of(job(repeat, Parser::SUN, 2, 30), "2023-12-30 00:00", "2026-01-03 00:00");
    EXPECT_EQ(sundays.size(), 105U);
    EXPECT_EQ(std::set<std::string>(sundays.begin(), sundays.end()).size(), 105U);
    EXPECT_EQ(sundays.front(), "2023-12-31");
    EXPECT_EQ(sundays.back(), "2025-12-28");
  }
}

TEST(Years, AMonthlyJobDriftsToTheEndOfTheMonthAndSkipsShortOnes) {
  EXPECT_THAT(
      days_of(job(Parser::MONTHLY, Parser::MON, 2, 30), "2024-01-02 00:00", "2025-12-31 00:00"),
      testing::ElementsAre("2024-01-08", "2024-02-12", "2024-03-18", "2024-04-22", "2024-05-27",
                           "2024-07-29", "2024-09-30", "2024-12-30", "2025-03-31"));
}

TEST(Years, AQuarterlyJobRunsFourTimesAYearAtMost) {
  EXPECT_THAT(
      days_of(job(Parser::QUARTERLY, Parser::SUN, 2, 30), "2024-01-10 00:00", "2026-01-01 00:00"),
      testing::ElementsAre("2024-01-14", "2024-04-14", "2024-07-14", "2024-10-20", "2025-01-26",
                           "2025-04-27", "2025-07-27", "2025-11-02"));
}

}  // namespace
