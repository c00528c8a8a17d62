// pelowatchctl jobs, mounts, check: what they say is what the daemon does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <set>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::StartsWith;

class CtlLists : public CtlTest {};

TEST_F(CtlLists, MountsAreThoseOfTheAreaAndWithoutADaemonThereAreNone) {
  for (const Words& command :
       {Words{"jobs"}, Words{"jobs", "--json"}, Words{"mounts"}, Words{"mounts", "--json"}}) {
    expect_refusal(command, exit_not_running, "pelowatchd is not running");
  }
  start();
  const Words mounts = StatusArea::map()->mounts();
  EXPECT_THAT(mounts, Contains(watched()));
  EXPECT_EQ(lines_of(printed({"mounts"})), mounts);
  EXPECT_EQ(parsed(printed({"mounts", "--json"})), Json(mounts));
  EXPECT_EQ(printed({"jobs"}), "");
  EXPECT_EQ(parsed(printed({"jobs", "--json"})), Json::array());
}

TEST_F(CtlLists, JobsSayWhatTheyDoAndWhen) {
  start_at_noon();
  const int day = (local_time().tm_wday + 1) % 7;
  const Job weekly = {13, 5, day, "/srv/share one", "WEEKLY", "DELETE", true};
  const Job quarterly = {13, 5, day, "/srv/two", "QUARTERLY"};
  const Job odd = {13, 5, day, "/srv/\x1b[2J\x07|x\xff"};
  ASSERT_NO_FATAL_FAILURE(write_jobs({weekly, quarterly, odd}));
  ASSERT_TRUE(request_pass_until([&] { return ScheduleTest::jobs().size() == 3; }));
  const std::string text = printed({"jobs"});
  expect_harmless(text);
  const Words lines = lines_of(text);
  ASSERT_EQ(lines.size(), 3U) << text;
  const std::string when = std::string(day_words[day]) + " 13:05, ";
  EXPECT_THAT(lines,
              Contains(StartsWith("/srv/share one and below  " + when + "WEEKLY, DELETE  next: ")));
  EXPECT_THAT(lines, Contains(StartsWith("/srv/two  " + when + "QUARTERLY, REPORT  next: ")));
  EXPECT_THAT(lines, Contains(StartsWith("/srv/\\x1b[2J\\x07|x\\xff  ")));
  EXPECT_THAT(text, HasSubstr(" 13:05, in 1 day"));
  EXPECT_THAT(printed({"status"}), HasSubstr(lines[0] + "\n"));

  const Json jobs = parsed(printed({"jobs", "--json"}));
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
  EXPECT_EQ(local.tm_wday, day);
  EXPECT_THAT(job["next_due_text"].get<std::string>(), HasSubstr(" 13:05, in "));
  job.erase("next_due");
  job.erase("next_due_text");
  EXPECT_EQ(job, Json({{"job", weekly.key()},
                       {"folder", weekly.folder},
                       {"day", day_words[day]},
                       {"start", "13:05"},
                       {"repeat", "WEEKLY"},
                       {"action", "DELETE"},
                       {"recursive", true}}));
}

/// Whether a finding at some line of the file holds the text.
bool holds_finding(const Json& said, const std::string& file, const std::string& text) {
  for (const Json& finding : said["findings"]) {
    if (finding["file"] == file && finding["line"] > 0 &&
        finding["message"].get<std::string>().find(text) != std::string::npos) {
      return true;
    }
  }
  return false;
}

/// Of a list of jobs, what both commands say of each, in an order of its own.
std::set<Json> what_jobs_do(const Json& jobs) {
  std::set<Json> all;
  for (const Json& job : jobs) {
    Json what;
    for (const char* member : {"folder", "start", "day", "repeat", "action", "recursive"}) {
      what[member] = job.at(member);
    }
    all.insert(what);
  }
  return all;
}

TEST_F(CtlLists, CheckAgreesWithTheDaemonThatReadTheSameFiles) {
  const std::string config = work("pelowatchd.conf");
  World::make_folder(watched("not"));
  World::make_folder(watched("slash"));
  add("IncludeDirectory", watched("missing"));
  add("ExcludeDirectory", watched("not"));
  add("ExcludeDirectory", watched("slash/"));
  start_at_noon();
  const Job good = {13, 5, local_time().tm_wday, watched(), "WEEKLY"};
  write_commands(good.block() + "\nscan\nfolder relative\n");
  ASSERT_TRUE(request_pass_until([&] { return !ScheduleTest::jobs().empty(); }));
  const Outcome outcome = run_tool(
      {.arguments = {"check", "-c", config, "--json"}, .environment = {{"TZ", time_zone()}}});
  EXPECT_EQ(outcome.exit, exit_failed);
  EXPECT_EQ(outcome.err, "");
  const Json said = parsed(outcome.out);
  const Json is = status();
  EXPECT_EQ(is["inclusions"], Json(Words{watched()}));
  EXPECT_EQ(is["exclusions"].size(), 2U) << is["exclusions"];
  EXPECT_EQ(said["commands_file"], commands_file());
  // What the daemon passed over in silence is found.
  EXPECT_TRUE(holds_finding(said, config, watched("missing") + "\" does not exist"))
      << said["findings"];
  EXPECT_TRUE(holds_finding(said, config, "no file ever matches \"" + watched("slash/") + "\""))
      << said["findings"];
  EXPECT_TRUE(holds_finding(said, commands_file(), "relative")) << said["findings"];
  EXPECT_EQ(open_status(put_infected("not/file")), 0);
  EXPECT_EQ(open_status(put_infected("slash/file")), EPERM);
  EXPECT_EQ(what_jobs_do(said["jobs"]), what_jobs_do(is["jobs"]));
  EXPECT_EQ(said["jobs"].size(), 2U) << said["jobs"];
}

}  // namespace
}  // namespace e2e
