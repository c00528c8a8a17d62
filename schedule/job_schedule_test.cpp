// When a job is due: every rule by itself, and years of passes on clocks that jump.
#include "job_schedule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
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

std::time_t universal(const char* text) {
  std::tm moment = at(text);
  return timegm(&moment);
}

void live_in(const char* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

std::tm local(std::time_t seconds) {
  std::tm moment{};
  (void)localtime_r(&seconds, &moment);
  return moment;
}

struct ClockCase {
  const char* zone;
  Parser::days_t day;
  Parser::time_T start;
  const char* now;  ///< in Greenwich
  bool due;
  const char* local;
};

TEST(Clocks, TheWeekdayAndTheStartAreLocal) {
  using enum Parser::days_t;
  const ClockCase cases[] = {
      {kiritimati, TUE, {0, 0}, "2024-05-06 12:00", true, "Tuesday"},
      {kiritimati, MON, {0, 0}, "2024-05-06 12:00", false, "Tuesday"},
      {pago_pago, SUN, {0, 0}, "2024-05-06 11:00", false, "Monday"},
      {kathmandu, MON, {2, 30}, "2024-05-05 20:45", true, "2:30"},
      // A start in the hour that is left out comes right after it.
      {berlin, SUN, {2, 30}, "2024-03-31 00:59:59", false, "1:59:59"},
      {berlin, SUN, {2, 30}, "2024-03-31 01:00", true, "3:00"},
      {havana, SUN, {0, 0}, "2024-03-10 05:00", true, "Sunday 1:00"},
      {lord_howe, SUN, {2, 15}, "2024-10-05 15:29:59", false, "1:59:59"},
      {lord_howe, SUN, {2, 15}, "2024-10-05 15:30", true, "2:30"},
      // A clock that goes back behind the start holds the job back.
      {berlin, SUN, {2, 30}, "2024-10-27 01:00", false, "2:00 again"},
      {berlin, SUN, {2, 30}, "2024-10-27 01:30", true, "2:30 again"},
      {sao_paulo, SAT, {23, 30}, "2024-02-18 01:30", true, "Saturday 23:30"},
      {sao_paulo, SUN, {0, 0}, "2024-02-18 02:00", false, "Saturday 23:00 again"},
  };
  for (const ClockCase& one : cases) {
    live_in(one.zone);
    const Command command = job(Parser::NO, one.day, one.start.hour, one.start.minute);
    EXPECT_EQ(is_due(command, local(universal(one.now)), midnight, nullptr), one.due)
        << one.zone << " " << one.local;
  }
}

TEST(Clocks, AStartThatComesTwiceInADayRunsOnceAndADayEndsAtLocalMidnight) {
  using enum Parser::days_t;
  struct Case {
    ClockCase second;  ///< due: for a daily job
    const char* first;
  };
  for (const auto& [second, first] :
       {Case{{berlin, SUN, {2, 30}, "2024-10-27 01:30", false, "2:30"}, "2024-10-27 00:30"},
        {{sao_paulo, SAT, {23, 30}, "2024-02-18 02:30", false, "23:30"}, "2024-02-18 01:30"},
        {{lord_howe, SUN, {1, 45}, "2024-04-06 15:15", false, "1:45"}, "2024-04-06 14:45"},
        {{new_york, WED, {0, 0}, "2025-01-01 04:59:59", false, "23:59"}, "2025-01-01 04:59"},
        {{new_york, WED, {0, 0}, "2025-01-01 05:00", true, "0:00"}, "2025-01-01 04:59"}}) {
    live_in(second.zone);
    const std::tm last = local(universal(first));
    for (const Parser::repeat_t repeat :
         {Parser::DAILY, Parser::WEEKLY, Parser::MONTHLY, Parser::QUARTERLY}) {
      const Command command = job(repeat, second.day, second.start.hour, second.start.minute);
      EXPECT_EQ(is_due(command, local(universal(second.now)), midnight, &last),
                second.due && repeat == Parser::DAILY)
          << second.zone << " " << second.local << " " << repeat;
    }
  }
}

// Years of passes

/// The days on which a job runs, with passes ten minutes apart from a moment to another.
std::vector<std::string> days_of(const Command& command, const char* begin, const char* end) {
  std::optional<std::tm> last;
  std::vector<std::string> all;
  const std::time_t behind = universal(end);
  for (std::time_t now = universal(begin); now < behind; now += 600) {
    const std::tm moment = local(now);
    if (is_due(command, moment, midnight, last ? &*last : nullptr)) {
      last = moment;
      all.push_back(text(moment).substr(4, 10));
    }
  }
  return all;
}

TEST(Years, ADailyAndAWeeklyJobRunOnceOnEachOfTheirDaysInEveryZone) {
  for (const char* zone :
       {utc, berlin, new_york, havana, sao_paulo, lord_howe, kiritimati, pago_pago, kathmandu}) {
    live_in(zone);
    for (const Parser::repeat_t repeat : {Parser::DAILY, Parser::WEEKLY}) {
      const std::vector<std::string> sundays =
          days_of(job(repeat, Parser::SUN, 2, 30), "2023-12-30 00:00", "2026-01-03 00:00");
      EXPECT_EQ(sundays.size(), 105U) << zone;
      EXPECT_EQ(std::set<std::string>(sundays.begin(), sundays.end()).size(), 105U) << zone;
      EXPECT_EQ(sundays.front(), "2023-12-31") << zone;
      EXPECT_EQ(sundays.back(), "2025-12-28") << zone;
    }
  }
}

TEST(Years, AMonthlyJobDriftsToTheEndOfTheMonthAndSkipsShortOnes) {
  live_in(berlin);
  EXPECT_THAT(
      days_of(job(Parser::MONTHLY, Parser::MON, 2, 30), "2024-01-02 00:00", "2025-12-31 00:00"),
      testing::ElementsAre("2024-01-08", "2024-02-12", "2024-03-18", "2024-04-22", "2024-05-27",
                           "2024-07-29", "2024-09-30", "2024-12-30", "2025-03-31"));
}

TEST(Years, AQuarterlyJobRunsFourTimesAYearAtMost) {
  live_in(new_york);
  EXPECT_THAT(
      days_of(job(Parser::QUARTERLY, Parser::SUN, 2, 30), "2024-01-10 00:00", "2026-01-01 00:00"),
      testing::ElementsAre("2024-01-14", "2024-04-14", "2024-07-14", "2024-10-20", "2025-01-26",
                           "2025-04-27", "2025-07-27", "2025-11-02"));
}

}  // namespace
