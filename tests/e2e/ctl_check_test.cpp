// pelowatchctl check: that it says of the two files what the daemon then makes of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class CtlCheck : public CtlTest {
 protected:
  std::string config_file() const { return work("pelowatchd.conf"); }
};

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

TEST_F(CtlCheck, WithoutADaemonTheStatusSaysWhetherSomethingIsFoundOrCannotBeRead) {
  const std::string config = config_file();
  EXPECT_EQ(ctl({"check", "-c", config}).exit, kUsage);
  EXPECT_EQ(out(), "");
  EXPECT_EQ(err(), "pelowatchctl: cannot read " + config + ": No such file or directory\n");
  for (const char* folder : {"log", "db", "staging", "conf"}) {
    World::make_folder(work(folder));
  }
  const std::string lines = "LogPath " + work("log") + "\nDatabaseDirectory " + work("db") +
                            "\nStagingDirectory " + work("staging") + "\nConfPath " + work("conf") +
                            "\nIncludeDirectory " + watched() + "\n";
  world().put(config, lines);
  EXPECT_EQ(ctl({"check", "-c", config}).exit, kOk) << out();
  EXPECT_THAT(out(), AllOf(StartsWith("Settings\n"), EndsWith("\nnothing found\n")));
  world().put(config, lines + "MaxThread 3\nExcludeDirectory\n");
  EXPECT_EQ(ctl({"check", "-c", config}).exit, kFailed);
  EXPECT_THAT(out(), StartsWith(config + ":6: MaxThread: no such key"));
  EXPECT_EQ(err(), "");
}

TEST_F(CtlCheck, AgreesWithTheDaemonThatReadTheSameFiles) {
  World::make_folder(watched("not"));
  World::make_folder(watched("slash"));
  add("IncludeDirectory", watched("missing"));
  add("ExcludeDirectory", watched("not"));
  add("ExcludeDirectory", watched("slash/"));
  start_at_noon();
  Job good;
  good.hour = 13;
  good.minute = 5;
  good.day = local_time().tm_wday;
  good.folder = watched();
  good.repeat = "WEEKLY";
  write_commands(good.block() + "\nscan\nfolder relative\n");
  ASSERT_TRUE(request_pass_until([&] { return !ScheduleTest::jobs().empty(); }));
  const Outcome outcome = run_tool({.arguments = {"check", "-c", config_file(), "--json"},
                                    .environment = {{"TZ", time_zone()}}});
  EXPECT_EQ(outcome.exit, kFailed);
  EXPECT_EQ(outcome.err, "");
  const Json said = parsed(outcome.out);
  const Json is = status();
  EXPECT_EQ(is["inclusions"], Json(Words{watched()}));
  EXPECT_EQ(is["exclusions"].size(), 2U) << is["exclusions"];
  EXPECT_EQ(said["commands_file"], commands_file());
  // What the daemon passed over in silence is found.
  EXPECT_TRUE(holds_finding(said, config_file(), watched("missing") + "\" does not exist"))
      << said["findings"];
  EXPECT_TRUE(
      holds_finding(said, config_file(), "no file ever matches \"" + watched("slash/") + "\""))
      << said["findings"];
  EXPECT_TRUE(holds_finding(said, commands_file(), "relative")) << said["findings"];
  EXPECT_EQ(open_status(put_infected("not/file")), 0);
  EXPECT_EQ(open_status(put_infected("slash/file")), EPERM);
  EXPECT_EQ(what_jobs_do(said["jobs"]), what_jobs_do(is["jobs"]));
  EXPECT_EQ(said["jobs"].size(), 2U) << said["jobs"];
}

TEST_F(CtlCheck, FindsThatWithoutAnyPathToIncludeEverythingIs) {
  const std::string file = put_infected("file");
  set("IncludeDirectory", watched("missing"));
  add("ExcludeDirectory", work());  // test and daemon themselves stay out of it
  start();
  EXPECT_EQ(open_status(file), EPERM);
  const Outcome outcome = ctl_aside({"check", "-c", config_file()});
  EXPECT_EQ(outcome.exit, kFailed);
  EXPECT_THAT(outcome.out, HasSubstr(": the daemon skips every path to include, and then includes "
                                     "everything\n"));
}

TEST_F(CtlCheck, FindsWhatIsOnMountsThatTheDaemonLeavesOut) {
  world().mount_on(watched("my disk"));
  World::make_folder("/dev/shm/in");
  for (const std::string& folder : {watched("my disk"), std::string("/dev/shm/in")}) {
    world().put(folder + "/file", "!detect name=Test.Infected\n");
    add("IncludeDirectory", folder);
  }
  start();
  const Json said = parsed(ctl_aside({"check", "-c", config_file(), "--json"}).out);
  for (const std::string& folder : {watched("my disk"), std::string("/dev/shm/in")}) {
    EXPECT_EQ(open_status(folder + "/file"), 0);
    EXPECT_TRUE(holds_finding(said, config_file(), "nothing in \"" + folder + "\" is scanned"))
        << said["findings"];
  }
  EXPECT_FALSE(holds_finding(said, config_file(), "nothing in \"" + watched() + "\""))
      << said["findings"];
}

}  // namespace
}  // namespace e2e
