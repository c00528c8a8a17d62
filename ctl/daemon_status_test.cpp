#include "daemon_status.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "child_process.h"
#include "logger.h"
#include "printing.h"
#include "status_output.h"

namespace {

// When a daily job of 12:00 that is never late is due next, by the clock of UTC, for a daemon with
// this environment.
int hour_of_noon(std::vector<const char*> environment) {
  Logger::disable_for_good();
  environment.push_back(nullptr);
  const ChildProcess daemon([&] {
    const char* words[] = {"sleep", "1000", nullptr};
    return execve("/bin/sleep", const_cast<char**>(words), const_cast<char**>(environment.data()));
  });
  EXPECT_TRUE(eventually([&] { return command_line_of(daemon.pid()).size() == 2; }));
  DaemonStatus status;
  status.now = 1'800'000'000;
  status.pid = daemon.pid();
  status.process.emplace();
  for (int day = ConfParser::SUN; day <= ConfParser::SAT; ++day) {
    Command job;
    job.start = ConfParser::time_T(12, 0);
    job.day = static_cast<ConfParser::days_t>(day);
    job.repeat = ConfParser::WEEKLY;
    status.jobs.push_back({"", job, {}});
  }
  work_out_jobs(status);
  const auto far = std::max_element(
      status.jobs.begin(), status.jobs.end(),
      [](const ListedJob& one, const ListedJob& other) { return one.next.at < other.next.at; });
  return static_cast<int>(far->next.at.value_or(0) % 86400 / 3600);
}

TEST(WorkOutJobs, ByTheTimeZoneOfTheDaemon) {
  (void)setenv("TZ", "AAA-3", 1);
  EXPECT_EQ(hour_of_noon({"PATH=/", "TZ=BBB-5"}), 7);
  EXPECT_STREQ(getenv("TZ"), "AAA-3") << "the caller's own is back";
  EXPECT_EQ(local_time(0), "1970-01-01 03:00:00");
}

TEST(WorkOutJobs, DaemonWithoutATimeZoneHasThatOfTheMachine) {
  (void)setenv("TZ", ":/etc/localtime", 1);
  const int here = hour_of_noon({"TZ=:/etc/localtime"});
  (void)setenv("TZ", here == 7 ? "CCC-6" : "BBB-5", 1);
  EXPECT_EQ(hour_of_noon({"PATH=/"}), here);
}

TEST(WorkOutJobs, CallerWithoutATimeZoneGetsNone) {
  (void)unsetenv("TZ");
  EXPECT_EQ(hour_of_noon({"TZ=BBB-5"}), 7);
  EXPECT_EQ(getenv("TZ"), nullptr);
}

TEST(StatusForPeople, HasTheDroppedLogTextsIfThereAreAny) {
  DaemonStatus status;
  status.pid = 1;
  status.process.emplace();
  EXPECT_EQ(status_text(status, {}, Colours(false)).find("dropped"), std::string::npos);
  status.dropped_texts = 1234;
  EXPECT_NE(status_text(status, {}, Colours(false)).find("\nlog texts dropped  1,234\n"),
            std::string::npos);
  EXPECT_NE(status_json(status, {}, 0).find("\"log_texts_dropped\": 1234"), std::string::npos);
}

TEST(RatesSinceStart, AreThoseOfASecondAtLeastAndNotKnownWithoutAnArea) {
  DaemonStatus status;
  status.now = 1000;
  status.process.emplace();
  status.counters.answered = 50;
  EXPECT_EQ(rates_since_start(status).seconds, 0);
  status.has_area = true;
  for (const auto& [started, seconds, rate] : {std::tuple(900, 100, 0.5), {1000, 1, 50.0}}) {
    status.process->started = started;
    EXPECT_EQ(rates_since_start(status).seconds, seconds);
    EXPECT_EQ(rates_since_start(status).answered, rate);
  }
}

}  // namespace
