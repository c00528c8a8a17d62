// pelowatchctl jobs, mounts: one a line, arrays, and names that a terminal would obey.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

class CtlLists : public CtlTest {
 protected:
  /// Has the daemon load these jobs.
  void load(const std::vector<Job>& jobs) {
    ASSERT_NO_FATAL_FAILURE(write_jobs(jobs));
    ASSERT_TRUE(request_pass_until([&] { return ScheduleTest::jobs().size() == jobs.size(); }));
  }

  /// One that is not due today.
  Job tomorrow(const std::string& folder, const std::string& repeat = "WEEKLY") const {
    Job job;
    job.hour = 13;
    job.minute = 5;
    job.day = (local_time().tm_wday + 1) % 7;
    job.folder = folder;
    job.repeat = repeat;
    return job;
  }
};

const char* day_word(int day) {
  constexpr const char* kDays[] = {"SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT"};
  return kDays[day];
}

TEST_F(CtlLists, MountsAreThoseOfTheAreaAndWithoutADaemonThereAreNone) {
  for (const Words& command :
       {Words{"jobs"}, Words{"jobs", "--json"}, Words{"mounts"}, Words{"mounts", "--json"}}) {
    const Outcome outcome = ctl(command);
    EXPECT_EQ(outcome.exit, kNotRunning);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "pelowatchctl: pelowatchd is not running\n");
  }
  start();
  const Words mounts = StatusArea::map()->mounts();
  const Outcome text = ctl({"mounts"});
  EXPECT_EQ(text.exit, kOk);
  EXPECT_EQ(text.err, "");
  EXPECT_EQ(lines_of(text.out), mounts);
  EXPECT_THAT(mounts, Contains(watched()));
  EXPECT_EQ(parsed(ctl({"mounts", "--json"}).out), Json(mounts));
  EXPECT_EQ(ctl({"jobs"}).out, "");
  EXPECT_EQ(ctl({"jobs"}).exit, kOk);
  EXPECT_EQ(parsed(ctl({"jobs", "--json"}).out), Json::array());
}

TEST_F(CtlLists, JobsSayWhatTheyDoAndWhen) {
  start_at_noon();
  Job weekly = tomorrow("/srv/share one");
  weekly.recursive = true;
  weekly.action = "DELETE";
  const Job quarterly = tomorrow("/srv/two", "QUARTERLY");
  const Job odd = tomorrow("/srv/\x1b[2J\x07|x\xff");
  ASSERT_NO_FATAL_FAILURE(load({weekly, quarterly, odd}));
  const Outcome text = ctl({"jobs"});
  EXPECT_EQ(text.exit, kOk);
  EXPECT_EQ(text.err, "");
  expect_harmless(text.out);
  const Words lines = lines_of(text.out);
  ASSERT_EQ(lines.size(), 3U) << text.out;
  const std::string when = std::string(day_word(weekly.day)) + " 13:05, ";
  EXPECT_THAT(lines,
              Contains(StartsWith("/srv/share one and below  " + when + "WEEKLY, DELETE  next: ")));
  EXPECT_THAT(lines, Contains(StartsWith("/srv/two  " + when + "QUARTERLY, REPORT  next: ")));
  EXPECT_THAT(lines, Contains(StartsWith("/srv/\\x1b[2J\\x07|x\\xff  ")));
  EXPECT_THAT(text.out, HasSubstr(" 13:05, in 1 day"));
  EXPECT_THAT(ctl({"status"}).out, HasSubstr(lines[0] + "\n"));

  const Json jobs = parsed(ctl({"jobs", "--json"}).out);
  ASSERT_EQ(jobs.size(), 3U) << jobs;
  const auto by_folder = [&](const std::string& folder) {
    const auto found = std::find_if(jobs.begin(), jobs.end(),
                                    [&](const Json& job) { return job["folder"] == folder; });
    return found == jobs.end() ? Json() : *found;
  };
  EXPECT_NE(by_folder("/srv/\x1b[2J\x07|x\xef\xbf\xbd"), Json());
  Json job = by_folder(weekly.folder);
  // The zone is odd by seconds, so that only they differ from 13:05 of it.
  std::tm next{};
  ASSERT_NE(strptime(job["next_due"].get<std::string>().c_str(), "%Y-%m-%dT%H:%M:%SZ", &next),
            nullptr);
  const std::tm local = local_time(timegm(&next));
  EXPECT_EQ(local.tm_hour * 60 + local.tm_min, 13 * 60 + 5);
  EXPECT_EQ(local.tm_wday, weekly.day);
  EXPECT_THAT(job["next_due_text"].get<std::string>(), HasSubstr(" 13:05, in "));
  job.erase("next_due");
  job.erase("next_due_text");
  EXPECT_EQ(job, Json({{"job", weekly.key()},
                       {"folder", weekly.folder},
                       {"day", day_word(weekly.day)},
                       {"start", "13:05"},
                       {"repeat", "WEEKLY"},
                       {"action", "DELETE"},
                       {"recursive", true}}));
}

TEST_F(CtlLists, JobThatIsDueIsDueNow) {
  start_at_noon();
  // Its scan waits, so that the job stays in the list.
  World::make_folder(watched("share"));
  put("share/file", "!wait " + work("go") + "\n");
  write_jobs({due_job(watched("share"))});
  ASSERT_TRUE(request_pass_until([&] { return scans_started() == 1; }));
  const Json jobs = parsed(ctl({"jobs", "--json"}).out);
  ASSERT_EQ(jobs.size(), 1U);
  EXPECT_EQ(jobs[0]["next_due_text"], "now");
  EXPECT_TRUE(jobs[0]["next_due"].is_string());
  touch(work("go"));
  EXPECT_TRUE(eventually([&] { return scans_completed() == 1; }));
}

TEST_F(CtlLists, FoldersAndMountsThatATerminalWouldObey) {
  const std::string mount = watched("a\x1b[2J\x9bz");
  const std::string included = watched("c\rd\\x0a");
  const std::string excluded = watched("\u202egpj.exe");
  world().mount_on(mount);
  World::make_folder(included);
  World::make_folder(excluded);
  add("IncludeDirectory", included);
  add("ExcludeDirectory", excluded);
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(mount); }));
  const Outcome text = ctl({"mounts"});
  expect_harmless(text.out);
  EXPECT_THAT(lines_of(text.out), Contains(watched("a\\x1b[2J\\x9bz")));
  const Outcome table = ctl({"status"});
  expect_harmless(table.out);
  EXPECT_THAT(table.out, HasSubstr("  " + watched("c\\x0dd\\x5cx0a") + "\n"));
  EXPECT_EQ(row(table.out, "excluded"), watched("\\xe2\\x80\\xaegpj.exe"));
  const Json json = status();
  EXPECT_THAT(json["mounts"], Contains(Json(watched("a\x1b[2J\xef\xbf\xbdz"))));
  EXPECT_THAT(json["inclusions"], Contains(Json(included)));
  EXPECT_THAT(json["exclusions"], Contains(Json(excluded)));
}

}  // namespace
}  // namespace e2e
