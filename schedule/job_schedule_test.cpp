// When a job is due: every rule by itself, and years of passes on clocks that jump.
#include "job_schedule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace {

using Parser = ConfParser;

/// A moment of the calendar, with its weekday and day of the year.
std::tm at(int year, int month, int day, int hour = 12, int minute = 0) {
  std::tm moment{};
  moment.tm_year = year - 1900;
  moment.tm_mon = month - 1;
  moment.tm_mday = day;
  moment.tm_hour = hour;
  moment.tm_min = minute;
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

constexpr Parser::repeat_t all_periods[] = {Parser::NO, Parser::DAILY, Parser::WEEKLY,
                                            Parser::MONTHLY, Parser::QUARTERLY};
// Beyond the words of the file, which cannot give them.
const Parser::repeat_t unknown_periods[] = {static_cast<Parser::repeat_t>(-1),
                                            static_cast<Parser::repeat_t>(5),
                                            static_cast<Parser::repeat_t>(1000)};

// Gates that hold before the history is asked

// 2024-05-06 is a Monday.
TEST(Due, AJobWithoutHistoryIsDueWhateverItsPeriod) {
  for (const Parser::repeat_t repeat : all_periods) {
    EXPECT_TRUE(is_due(job(repeat, Parser::MON), at(2024, 5, 6), midnight, nullptr)) << repeat;
  }
  for (const Parser::repeat_t repeat : unknown_periods) {
    EXPECT_TRUE(is_due(job(repeat, Parser::MON), at(2024, 5, 6), midnight, nullptr)) << repeat;
  }
}

TEST(Due, OnItsWeekdayOnlyWhateverItsPeriod) {
  for (const Parser::repeat_t repeat : all_periods) {
    for (int day = 0; day < 7; ++day) {
      for (int date = 5; date < 12; ++date) {  // Sunday to Saturday
        EXPECT_EQ(is_due(job(repeat, day), at(2024, 5, date), midnight, nullptr), date - 5 == day)
            << repeat << ' ' << day << ' ' << date;
      }
    }
  }
}

struct TimeCase {
  Parser::time_T start;
  Parser::time_T time;
  bool due;
};

TEST(Due, FromItsStartToTheEndOfTheDay) {
  const TimeCase cases[] = {
      {{2, 30}, {2, 29}, false}, {{2, 30}, {2, 30}, true},  {{2, 30}, {2, 31}, true},
      {{2, 30}, {3, 0}, true},   {{2, 30}, {1, 59}, false}, {{2, 30}, {0, 0}, false},
      {{2, 30}, {23, 59}, true}, {{0, 0}, {0, 0}, true},    {{23, 59}, {23, 58}, false},
      {{9, 59}, {10, 0}, true},  {{10, 0}, {9, 59}, false}, {{23, 59}, {23, 59}, true},
      {{24, 0}, {23, 59}, false}};
  for (const TimeCase& one : cases) {
    const std::tm now = at(2024, 5, 6, one.time.hour, one.time.minute);
    const Command command = job(Parser::NO, Parser::MON, one.start.hour, one.start.minute);
    EXPECT_EQ(is_due(command, now, midnight, nullptr), one.due)
        << command.ToString() << " at " << text(now);
  }
}

struct LoadedCase {
  Parser::time_T start;
  Parser::time_T loaded;
  bool due;
};

TEST(Due, NeverWhenTheFileWasLoadedLaterInTheDayThanItsStart) {
  const LoadedCase cases[] = {
      {{10, 0}, {14, 0}, false}, {{10, 0}, {10, 0}, true}, {{10, 0}, {10, 1}, false},
      {{10, 0}, {9, 59}, true},  {{10, 0}, {0, 0}, true},  {{10, 30}, {11, 0}, false},
      {{10, 30}, {9, 45}, true}, {{0, 0}, {0, 0}, true},   {{0, 0}, {0, 1}, false}};
  for (const LoadedCase& one : cases) {
    const Command command = job(Parser::DAILY, Parser::MON, one.start.hour, one.start.minute);
    for (const int date : {6, 13, 20}) {  // also weeks after the load
      EXPECT_EQ(is_due(command, at(2024, 5, date, 23, 59), one.loaded, nullptr), one.due)
          << command.ToString() << " loaded " << one.loaded.hour << ':' << one.loaded.minute;
    }
  }
}

TEST(Due, TheGatesHoldForAJobWithHistoryToo) {
  const std::tm last = at(2024, 4, 29, 2, 30);
  const Command command = job(Parser::WEEKLY, Parser::MON, 2, 30);
  EXPECT_TRUE(is_due(command, at(2024, 5, 6, 2, 30), {2, 30}, &last));
  EXPECT_FALSE(is_due(command, at(2024, 5, 6, 2, 30), {2, 31}, &last)) << "loaded";
  EXPECT_FALSE(is_due(command, at(2024, 5, 7, 2, 30), {2, 30}, &last)) << "weekday";
  EXPECT_FALSE(is_due(command, at(2024, 5, 6, 2, 29), {2, 30}, &last)) << "start";
}

// Periods

struct PeriodCase {
  const char* what;
  Parser::repeat_t repeat;
  std::tm last;
  std::tm now;
  bool due;
};

void PrintTo(const PeriodCase& one, std::ostream* out) {
  *out << one.what << ", last " << text(one.last) << ", now " << text(one.now);
}

class Period : public testing::TestWithParam<PeriodCase> {};

TEST_P(Period, IsOverOrNot) {
  const PeriodCase& one = GetParam();
  EXPECT_EQ(is_due(job(one.repeat, one.now.tm_wday), one.now, midnight, &one.last), one.due);
}

const PeriodCase none_cases[] = {
    {"in the same minute", Parser::NO, at(2024, 5, 6), at(2024, 5, 6), true},
    {"a week later", Parser::NO, at(2024, 5, 6), at(2024, 5, 13), true}};
INSTANTIATE_TEST_SUITE_P(None, Period, testing::ValuesIn(none_cases));

const PeriodCase daily_cases[] = {
    {"same day", Parser::DAILY, at(2024, 5, 6, 2, 30), at(2024, 5, 6, 23, 59), false},
    {"same minute", Parser::DAILY, at(2024, 5, 6, 2, 30), at(2024, 5, 6, 2, 30), false},
    {"next day", Parser::DAILY, at(2024, 5, 6, 23, 59), at(2024, 5, 7, 0, 0), true},
    {"last week", Parser::DAILY, at(2024, 5, 6), at(2024, 5, 13), true},
    {"day before", Parser::DAILY, at(2024, 5, 6), at(2024, 5, 5), true},
    {"year end", Parser::DAILY, at(2024, 12, 31), at(2025, 1, 1), true},
    {"end of a leap year to end of a common one", Parser::DAILY, at(2024, 12, 31), at(2025, 12, 31),
     true},
    {"leap day", Parser::DAILY, at(2024, 2, 28), at(2024, 2, 29), true},
    {"day after the leap day", Parser::DAILY, at(2024, 2, 29), at(2024, 3, 1), true},
    {"leap day has the number of another year's first of March", Parser::DAILY, at(2024, 2, 29),
     at(2025, 3, 1), false},
    {"same day of another year", Parser::DAILY, at(2023, 2, 10), at(2024, 2, 10), false}};
INSTANTIATE_TEST_SUITE_P(Daily, Period, testing::ValuesIn(daily_cases));

const PeriodCase weekly_cases[] = {
    {"same day", Parser::WEEKLY, at(2024, 5, 6, 2, 30), at(2024, 5, 6, 23, 59), false},
    {"next day", Parser::WEEKLY, at(2024, 5, 6), at(2024, 5, 7), false},
    {"day six", Parser::WEEKLY, at(2024, 5, 6), at(2024, 5, 12), false},
    {"next week", Parser::WEEKLY, at(2024, 5, 6, 2, 30), at(2024, 5, 13, 2, 30), true},
    {"next week, earlier in the day", Parser::WEEKLY, at(2024, 5, 6, 23, 0), at(2024, 5, 13, 0, 0),
     true},
    {"three weeks later", Parser::WEEKLY, at(2024, 5, 6), at(2024, 5, 27), true},
    {"week over the month end", Parser::WEEKLY, at(2024, 4, 29), at(2024, 5, 6), true},
    {"week over the leap day", Parser::WEEKLY, at(2024, 2, 26), at(2024, 3, 4), true},
    {"to the leap day", Parser::WEEKLY, at(2024, 2, 22), at(2024, 2, 29), true},
    {"week over the year end", Parser::WEEKLY, at(2024, 12, 30), at(2025, 1, 6), true},
    {"week over the end of a common year", Parser::WEEKLY, at(2025, 12, 29), at(2026, 1, 5), true},
    {"same day and weekday of another year", Parser::WEEKLY, at(2017, 1, 2), at(2023, 1, 2),
     false}};
INSTANTIATE_TEST_SUITE_P(Weekly, Period, testing::ValuesIn(weekly_cases));

const PeriodCase monthly_cases[] = {
    {"same day", Parser::MONTHLY, at(2024, 1, 29), at(2024, 1, 29, 23, 59), false},
    {"later in the month", Parser::MONTHLY, at(2024, 1, 8), at(2024, 1, 29), false},
    {"next month, last Monday too early", Parser::MONTHLY, at(2024, 1, 29), at(2024, 2, 26), false},
    {"later month, same date", Parser::MONTHLY, at(2024, 4, 1), at(2024, 7, 1), true},
    {"next month, later date", Parser::MONTHLY, at(2024, 1, 8), at(2024, 2, 12), true},
    {"next month, earlier date", Parser::MONTHLY, at(2024, 1, 8), at(2024, 2, 5), false},
    {"from the 29th: March ends on the 25th", Parser::MONTHLY, at(2024, 1, 29), at(2024, 3, 25),
     false},
    {"from the 29th: April has a Monday the 29th", Parser::MONTHLY, at(2024, 1, 29),
     at(2024, 4, 29), true},
    {"from the leap day: March has no Thursday that late", Parser::MONTHLY, at(2024, 2, 29),
     at(2024, 3, 28), false},
    {"from the leap day: May the 30th", Parser::MONTHLY, at(2024, 2, 29), at(2024, 5, 30), true},
    {"to the leap day", Parser::MONTHLY, at(2024, 1, 25), at(2024, 2, 29), true},
    {"from the 31st to another 31st", Parser::MONTHLY, at(2024, 1, 31), at(2024, 7, 31), true},
    {"from the 31st to a 30th", Parser::MONTHLY, at(2024, 1, 31), at(2024, 10, 30), false},
    {"another weekday", Parser::MONTHLY, at(2024, 1, 8), at(2024, 2, 13), false},
    {"year end", Parser::MONTHLY, at(2024, 12, 2), at(2025, 1, 6), true},
    {"year end, earlier date", Parser::MONTHLY, at(2024, 12, 30), at(2025, 1, 27), false},
    {"year end, the first month that reaches the date", Parser::MONTHLY, at(2024, 12, 30),
     at(2025, 3, 31), true},
    {"same month of another year", Parser::MONTHLY, at(2024, 1, 8), at(2025, 1, 27), false},
    {"an earlier month", Parser::MONTHLY, at(2024, 5, 6), at(2024, 4, 8), true}};
INSTANTIATE_TEST_SUITE_P(Monthly, Period, testing::ValuesIn(monthly_cases));

const PeriodCase quarterly_cases[] = {
    {"same day", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 1, 8, 23, 0), false},
    {"a month later", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 2, 12), false},
    {"two months later", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 3, 25), false},
    {"in the third month, earlier date", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 4, 1), false},
    {"in the third month, same date", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 4, 8), true},
    {"in the third month, later date", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 4, 29), true},
    {"in the fourth month, earlier date", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 5, 6), true},
    {"at the end of the year", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 12, 30), true},
    {"in the next year", Parser::QUARTERLY, at(2024, 1, 8), at(2025, 4, 14), false},
    {"another weekday in the third month", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 4, 9),
     false},
    {"another weekday later", Parser::QUARTERLY, at(2024, 1, 8), at(2024, 6, 4), false},
    {"September's is December", Parser::QUARTERLY, at(2024, 9, 30), at(2024, 12, 30), true},
    {"September's is not January", Parser::QUARTERLY, at(2024, 9, 30), at(2025, 1, 6), false},
    {"October's is January", Parser::QUARTERLY, at(2024, 10, 7), at(2025, 1, 13), true},
    {"October's is not December", Parser::QUARTERLY, at(2024, 10, 7), at(2024, 12, 30), false},
    {"November's is not December", Parser::QUARTERLY, at(2024, 11, 25), at(2024, 12, 30), false},
    {"November's is not January", Parser::QUARTERLY, at(2024, 11, 25), at(2025, 1, 27), false},
    {"November's is February, earlier date", Parser::QUARTERLY, at(2024, 11, 25), at(2025, 2, 24),
     false},
    {"November's is February, later date", Parser::QUARTERLY, at(2024, 11, 18), at(2025, 2, 24),
     true},
    {"November's, March", Parser::QUARTERLY, at(2024, 11, 25), at(2025, 3, 3), true},
    {"November's, the last Monday of that year", Parser::QUARTERLY, at(2024, 11, 25),
     at(2025, 12, 29), true},
    {"November's, never again after that year", Parser::QUARTERLY, at(2024, 11, 25), at(2026, 3, 2),
     false},
    {"December's is March", Parser::QUARTERLY, at(2024, 12, 2), at(2025, 3, 3), true},
    {"December's is not February", Parser::QUARTERLY, at(2024, 12, 2), at(2025, 2, 24), false},
    {"from the leap day", Parser::QUARTERLY, at(2024, 2, 29), at(2024, 5, 30), true},
    {"from the leap day, earlier date", Parser::QUARTERLY, at(2024, 2, 29), at(2024, 5, 23), false},
    {"to the leap day", Parser::QUARTERLY, at(2023, 11, 23), at(2024, 2, 29), true}};
INSTANTIATE_TEST_SUITE_P(Quarterly, Period, testing::ValuesIn(quarterly_cases));

TEST(Due, AnUnknownPeriodIsNeverOver) {
  const std::tm last = at(2024, 1, 8);
  for (const Parser::repeat_t repeat : unknown_periods) {
    for (const std::tm& now : {at(2024, 1, 8), at(2024, 4, 8), at(2025, 4, 14)}) {
      EXPECT_FALSE(is_due(job(repeat, Parser::MON), now, midnight, &last)) << repeat;
    }
  }
}

// Clocks. The zones are written out, so that no zone file is needed.

constexpr char utc[] = "UTC0";
constexpr char berlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";               // 2:00 to 3:00 and back
constexpr char new_york[] = "EST5EDT,M3.2.0,M11.1.0";                 // 2:00 to 3:00 and back
constexpr char havana[] = "CST5CDT,M3.2.0/0,M11.1.0/1";               // 0:00 to 1:00 and back
constexpr char sao_paulo[] = "<-03>3<-02>,M10.3.0/0,M2.3.0/0";        // back to Saturday 23:00
constexpr char lord_howe[] = "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0";  // half an hour
constexpr char kiritimati[] = "<+14>-14";
constexpr char pago_pago[] = "SST11";
constexpr char kathmandu[] = "<+0545>-5:45";

const char* const zones[] = {utc,       berlin,     new_york,  havana,   sao_paulo,
                             lord_howe, kiritimati, pago_pago, kathmandu};

std::time_t universal(int year, int month, int day, int hour, int minute, int second = 0) {
  std::tm moment = at(year, month, day, hour, minute);
  moment.tm_sec = second;
  return timegm(&moment);
}

class Clocks : public testing::Test {
 protected:
  ~Clocks() override { live_in(utc); }

  static void live_in(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }

  static std::tm local(std::time_t seconds) {
    std::tm moment{};
    (void)localtime_r(&seconds, &moment);
    return moment;
  }

  static bool due(const Command& command, std::time_t now) {
    return is_due(command, local(now), midnight, nullptr);
  }
  static bool due_again(const Command& command, std::time_t last, std::time_t now) {
    const std::tm then = local(last);
    return is_due(command, local(now), midnight, &then);
  }

  /// Runs a job as passes ten minutes apart would.
  /// @return the runs, in local time
  static std::vector<std::tm> runs(const Command& command, std::time_t begin, std::time_t end) {
    std::optional<std::tm> last;
    std::vector<std::tm> all;
    for (std::time_t now = begin; now < end; now += 600) {
      const std::tm moment = local(now);
      if (is_due(command, moment, midnight, last ? &*last : nullptr)) {
        last = moment;
        all.push_back(moment);
      }
    }
    return all;
  }

  static std::vector<std::string> days(const std::vector<std::tm>& moments) {
    std::vector<std::string> all;
    for (const std::tm& moment : moments) {
      all.push_back(text(moment).substr(4, 10));
    }
    return all;
  }
};

TEST_F(Clocks, TheWeekdayIsTheLocalOne) {
  const std::time_t noon = universal(2024, 5, 6, 12, 0);  // a Monday in Greenwich
  live_in(kiritimati);
  EXPECT_TRUE(due(job(Parser::NO, Parser::TUE), noon));
  EXPECT_FALSE(due(job(Parser::NO, Parser::MON), noon));
  live_in(pago_pago);
  EXPECT_TRUE(due(job(Parser::NO, Parser::MON), noon));
  EXPECT_TRUE(due(job(Parser::NO, Parser::SUN), universal(2024, 5, 6, 10, 59)));
  EXPECT_FALSE(due(job(Parser::NO, Parser::SUN), universal(2024, 5, 6, 11, 0)));
}

TEST_F(Clocks, TheStartIsALocalTime) {
  const Command command = job(Parser::NO, Parser::MON, 2, 30);
  live_in(kathmandu);
  EXPECT_FALSE(due(command, universal(2024, 5, 5, 20, 44, 59)));
  EXPECT_TRUE(due(command, universal(2024, 5, 5, 20, 45)));
  live_in(new_york);
  EXPECT_FALSE(due(command, universal(2024, 5, 6, 6, 29, 59)));
  EXPECT_TRUE(due(command, universal(2024, 5, 6, 6, 30)));
}

TEST_F(Clocks, AYearEndsAtLocalMidnight) {
  const Command command = job(Parser::DAILY, Parser::WED);
  live_in(new_york);
  const std::time_t last = universal(2025, 1, 1, 4, 59);  // still 2024, a Tuesday
  EXPECT_FALSE(due_again(command, last, universal(2025, 1, 1, 4, 59, 59)));
  EXPECT_TRUE(due_again(command, last, universal(2025, 1, 1, 5, 0)));
}

TEST_F(Clocks, AStartInTheHourThatIsLeftOutRunsRightAfterIt) {
  const Command command = job(Parser::DAILY, Parser::SUN, 2, 30);
  live_in(berlin);
  EXPECT_FALSE(due(command, universal(2024, 3, 31, 0, 59, 59)));  // 1:59:59
  EXPECT_TRUE(due(command, universal(2024, 3, 31, 1, 0)));        // 3:00:00
  live_in(new_york);
  EXPECT_FALSE(due(command, universal(2024, 3, 10, 6, 59, 59)));
  EXPECT_TRUE(due(command, universal(2024, 3, 10, 7, 0)));
}

TEST_F(Clocks, AMidnightThatIsLeftOutRunsAtOne) {
  const Command command = job(Parser::DAILY, Parser::SUN, 0, 0);
  live_in(havana);
  EXPECT_FALSE(due(command, universal(2024, 3, 10, 4, 59, 59)));  // Saturday 23:59:59
  EXPECT_TRUE(due(command, universal(2024, 3, 10, 5, 0)));        // Sunday 1:00:00
}

TEST_F(Clocks, AStartInTheHourThatComesTwiceRunsOnce) {
  live_in(berlin);
  const std::time_t first = universal(2024, 10, 27, 0, 30);   // 2:30
  const std::time_t second = universal(2024, 10, 27, 1, 30);  // 2:30 again
  for (const Parser::repeat_t repeat :
       {Parser::DAILY, Parser::WEEKLY, Parser::MONTHLY, Parser::QUARTERLY}) {
    const Command command = job(repeat, Parser::SUN, 2, 30);
    EXPECT_TRUE(due(command, first)) << repeat;
    EXPECT_FALSE(due_again(command, first, second)) << repeat;
    EXPECT_TRUE(due(command, second)) << repeat;
  }
}

TEST_F(Clocks, TheClockThatGoesBackBehindTheStartHoldsTheJobBack) {
  const Command command = job(Parser::NO, Parser::SUN, 2, 30);
  live_in(berlin);
  EXPECT_TRUE(due(command, universal(2024, 10, 27, 0, 59, 59)));  // 2:59:59
  EXPECT_FALSE(due(command, universal(2024, 10, 27, 1, 0)));      // 2:00:00
  EXPECT_TRUE(due(command, universal(2024, 10, 27, 1, 30)));      // 2:30:00
}

TEST_F(Clocks, AFileLoadedBeforeTheClockGoesBackIsLoadedTooLate) {
  live_in(berlin);
  const Parser::time_T loaded(static_cast<long>(universal(2024, 10, 27, 0, 45)));  // 2:45
  const Command command = job(Parser::NO, Parser::SUN, 2, 30);
  EXPECT_FALSE(is_due(command, local(universal(2024, 10, 27, 1, 30)), loaded, nullptr));
}

TEST_F(Clocks, ADayThatEndsTwiceIsOneDay) {
  live_in(sao_paulo);
  const Command saturday = job(Parser::DAILY, Parser::SAT, 23, 30);
  const std::time_t first = universal(2024, 2, 18, 1, 30);   // Saturday 23:30
  const std::time_t second = universal(2024, 2, 18, 2, 30);  // Saturday 23:30 again
  EXPECT_TRUE(due(saturday, first));
  EXPECT_FALSE(due_again(saturday, first, second));
  const Command sunday = job(Parser::DAILY, Parser::SUN, 0, 0);
  EXPECT_FALSE(due(sunday, universal(2024, 2, 18, 2, 0)));
  EXPECT_TRUE(due(sunday, universal(2024, 2, 18, 3, 0)));
}

TEST_F(Clocks, HalfAnHourLeftOutOrTwice) {
  live_in(lord_howe);
  const Command command = job(Parser::WEEKLY, Parser::SUN, 2, 15);
  EXPECT_FALSE(due(command, universal(2024, 10, 5, 15, 29, 59)));  // 1:59:59
  EXPECT_TRUE(due(command, universal(2024, 10, 5, 15, 30)));       // 2:30:00
  const Command early = job(Parser::WEEKLY, Parser::SUN, 1, 45);
  const std::time_t first = universal(2024, 4, 6, 14, 45);   // 1:45
  const std::time_t second = universal(2024, 4, 6, 15, 15);  // 1:45 again
  EXPECT_TRUE(due(early, first));
  EXPECT_FALSE(due_again(early, first, second));
}

// Years of passes

TEST_F(Clocks, ADailyAndAWeeklyJobRunOnceOnEachOfTheirDaysInEveryZone) {
  for (const char* zone : zones) {
    live_in(zone);
    const std::time_t begin = universal(2023, 12, 30, 0, 0);
    const std::time_t end = universal(2026, 1, 3, 0, 0);
    for (const Parser::repeat_t repeat : {Parser::DAILY, Parser::WEEKLY}) {
      const std::vector<std::string> sundays =
          days(runs(job(repeat, Parser::SUN, 2, 30), begin, end));
      EXPECT_EQ(sundays.size(), 105U) << zone;
      EXPECT_EQ(std::set<std::string>(sundays.begin(), sundays.end()).size(), 105U) << zone;
      EXPECT_EQ(sundays.front(), "2023-12-31") << zone;
      EXPECT_EQ(sundays.back(), "2025-12-28") << zone;
    }
  }
}

TEST_F(Clocks, AMonthlyJobDriftsToTheEndOfTheMonthAndSkipsShortOnes) {
  live_in(berlin);
  EXPECT_THAT(
      days(runs(job(Parser::MONTHLY, Parser::MON, 2, 30), universal(2024, 1, 2, 0, 0),
                universal(2025, 12, 31, 0, 0))),
      testing::ElementsAre("2024-01-08", "2024-02-12", "2024-03-18", "2024-04-22", "2024-05-27",
                           "2024-07-29", "2024-09-30", "2024-12-30", "2025-03-31"));
}

TEST_F(Clocks, AQuarterlyJobRunsFourTimesAYearAtMost) {
  live_in(new_york);
  EXPECT_THAT(days(runs(job(Parser::QUARTERLY, Parser::SUN, 2, 30), universal(2024, 1, 10, 0, 0),
                        universal(2026, 1, 1, 0, 0))),
              testing::ElementsAre("2024-01-14", "2024-04-14", "2024-07-14", "2024-10-20",
                                   "2025-01-26", "2025-04-27", "2025-07-27", "2025-11-02"));
}

TEST_F(Clocks, AQuarterlyJobWhoseYearIsMissedNeverRunsAgain) {
  live_in(utc);
  const Command command = job(Parser::QUARTERLY, Parser::MON);
  const std::tm last = at(2024, 11, 25);
  for (std::time_t now = universal(2026, 1, 1, 0, 0); now < universal(2036, 1, 1, 0, 0);
       now += 86400) {
    const std::tm moment = local(now);
    EXPECT_FALSE(is_due(command, moment, midnight, &last)) << text(moment);
  }
}

}  // namespace
