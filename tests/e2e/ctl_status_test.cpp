// pelowatchctl status: the table, the JSON object, both again and again, and who is trusted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <span>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr const char* clear_screen = "\x1b[H\x1b[2J";  // what a look in place begins with

class CtlStatus : public CtlTest {
 protected:
  std::string log_file() const { return work("log/pelowatchd.log"); }

  /// The status while nothing changed the area: pelowatchctl makes no event here, and nobody else
  /// opens anything.
  Json status_beside(const StatusArea& area) {
    Json json;
    EXPECT_TRUE(eventually([&] {
      const uint64_t before = area.answered();
      json = status();
      return area.answered() == before;
    }));
    return json;
  }

  Process watch(const Words& arguments = {}, int output = -1,
                const std::map<std::string, std::string>& environment = {}) {
    Words words = {"status", "--watch", "--interval", "0.1"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return start_tool({.arguments = words, .environment = environment, .output = output});
  }

  /// The looks printed so far as JSON, the one being printed left out.
  std::vector<Json> looks() {
    const std::string text = out();
    std::vector<Json> objects;
    for (const std::string& line : lines_of(text.substr(0, text.rfind('\n') + 1))) {
      objects.push_back(parsed(line));
    }
    return objects;
  }

  void expect_end_by_interrupt(Process& tool) {
    tool.signal(SIGINT);
    EXPECT_EQ(tool.wait(), (Exit{0, SIGINT}));
    EXPECT_EQ(err(), "");
  }
};

std::time_t time_of(const std::string& text) {
  std::tm parts{};
  const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  EXPECT_TRUE(end != nullptr && *end == '\0') << text;
  return timegm(&parts);
}

TEST_F(CtlStatus, WithoutADaemonAndWhileTheEngineStarts) {
  const Outcome table = ctl({"status"});
  EXPECT_EQ(table.exit, exit_not_running);
  EXPECT_EQ(table.out, "pelowatchd is not running\n");
  EXPECT_EQ(table.err, "");
  const Outcome json = ctl({"status", "--json"});
  EXPECT_EQ(json.exit, exit_not_running);
  EXPECT_EQ(parsed(json.out), Json::parse(R"({"running": false, "problems": []})"));
  EXPECT_EQ(json.err, "");
  script("wait vseGlobalInit " + work("go") + "\n");
  launch();
  wait_for_begin("vseGlobalInit");
  const std::string starting = printed({"status"});
  EXPECT_THAT(starting, StartsWith("pelowatchd is running since 20"));
  EXPECT_EQ(row(starting, "mounts"), "none: nothing is watched");
  EXPECT_EQ(row(starting, "problem"), std::nullopt);
  expect_refusal({"selftest"}, exit_failed, "no folder is watched; name one with --folder");
  release();
  wait_until_ready();
  EXPECT_EQ(ctl({"selftest"}).err, "");
}

// labels: essential
TEST_F(CtlStatus, TableAndObjectSayWhatTheAreaSays) {
  World::make_folder(watched("in"));
  World::make_folder(watched("not"));
  add("IncludeDirectory", watched("in"));
  add("ExcludeDirectory", watched("not"));
  const std::string bad = put_infected("bad");
  const std::time_t before = time(nullptr);
  start();
  const std::time_t after = time(nullptr);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(open_status(bad), EPERM);
  }
  const auto area = StatusArea::map();
  const Json json = status_beside(*area);
  EXPECT_EQ(json["answered"], area->answered());
  constexpr std::time_t clock_difference = 5;  // between that of the boot and that of the day
  EXPECT_GE(time_of(json["since"]), before - clock_difference);
  EXPECT_LE(time_of(json["since"]), after + clock_difference);
  for (const char* number : {"uptime_seconds", "answered_per_second", "denied_per_second"}) {
    EXPECT_GE(json[number], 0) << number;
  }
  EXPECT_THAT(area->mounts(), Not(IsEmpty()));
  const std::pair<const char*, Json> members[] = {{"denied", 3},
                                                  {"running", true},
                                                  {"pid", daemon().pid()},
                                                  {"trusted", Json::array()},
                                                  {"mounts", area->mounts()},
                                                  {"inclusions", area->inclusions()},
                                                  {"exclusions", Words{watched("not")}},
                                                  {"jobs", Json::array()},
                                                  {"problems", Json::array()}};
  for (const auto& [name, value] : members) {
    EXPECT_EQ(json[name], value) << name;
  }
  EXPECT_EQ(json["log"]["file"], log_file());
  EXPECT_EQ(json["log"]["bytes"], log().size());

  const std::string table = printed({"status"});
  expect_harmless(table);
  EXPECT_THAT(lines_of(table)[0],
              AllOf(StartsWith("pelowatchd is running since 20"), EndsWith(")")));
  EXPECT_EQ(lines_of(table)[1], "");
  constexpr const char* rate_pattern =
      ", [0-9]+\\.[0-9] a second over [0-9.]+ (minutes?|seconds).*";
  EXPECT_THAT(row(table, "answered").value_or(""), ContainsRegex(rate_pattern));
  EXPECT_THAT(row(table, "denied").value_or(""), MatchesRegex(std::string("3") + rate_pattern));
  EXPECT_THAT(row(table, "log").value_or(""), StartsWith(log_file() + ", "));
  const std::pair<const char*, std::string> rows[] = {{"process", std::to_string(daemon().pid())},
                                                      {"trusted", "only itself"},
                                                      {"excluded", watched("not")},
                                                      {"jobs", "none"}};
  for (const auto& [title, text] : rows) {
    EXPECT_EQ(row(table, title), text);
  }
  std::vector<std::string> paths = area->mounts();
  paths.insert(paths.end(), {watched(), watched("in")});
  for (const std::string& path : paths) {
    EXPECT_THAT(table, HasSubstr("  " + path + "\n"));
  }
  EXPECT_TRUE(row(table, "mounts") && row(table, "included"));
  EXPECT_EQ(row(table, "problem"), std::nullopt);
}

// labels: essential
TEST_F(CtlStatus, CountsGoOnBeyondThirtyTwoBits) {
  constexpr uint64_t open_count = 50;
  constexpr uint64_t first_count = (uint64_t{1} << 32) - open_count;
  const std::string bad = put_infected("bad");
  start();
  auto area = StatusArea::map();
  area->set_counts(first_count, first_count);
  const auto open_again_and_again = [&] {
    int allowed = 0;
    for (uint64_t i = 0; i < open_count; ++i) {
      allowed += try_open(bad) == EPERM ? 0 : 1;
    }
    return allowed;
  };
  Process first(open_again_and_again);
  Process second(open_again_and_again);
  EXPECT_EQ(first.status(patience), 0);
  EXPECT_EQ(second.status(patience), 0);
  const Json json = status_beside(*area);
  EXPECT_EQ(json["denied"], first_count + 2U * open_count);
  EXPECT_EQ(json["answered"], area->answered());
  EXPECT_GE(json["answered"], first_count + 2U * open_count);
  EXPECT_THAT(status_row("denied").value_or(""), StartsWith("4,294,967,346, "));
}

TEST_F(CtlStatus, TrustedProcessesHaveTheirNamesMadeHarmless) {
  start();
  Process trusted = bystander(0, "backup (nightly");
  Process hostile = bystander(0, "\x1b[2J\nevil\x7f");
  auto area = StatusArea::map();
  area->trust(0, hostile.pid());
  area->trust(2, trusted.pid());
  area->trust(5, dead_pid());
  const Json json = status();
  ASSERT_EQ(json["trusted"].size(), 3U) << json;
  EXPECT_EQ(json["trusted"][0]["name"], "\x1b[2J\nevil\x7f");
  EXPECT_EQ(json["trusted"][1]["pid"], trusted.pid());
  EXPECT_EQ(json["trusted"][1]["name"], "backup (nightly");
  EXPECT_EQ(json["trusted"][2]["name"], nullptr);
  const std::string table = ctl({"status"}).out;
  expect_harmless(table);
  EXPECT_EQ(row(table, "trusted"), std::to_string(hostile.pid()) + " (\\x1b[2J\\x0aevil\\x7f)");
  EXPECT_THAT(table, HasSubstr(std::to_string(trusted.pid()) + " (backup (nightly)\n"));
  EXPECT_THAT(table, HasSubstr(" (ended)\n"));
  for (const size_t slot : {size_t{0}, size_t{2}, size_t{5}}) {
    area->distrust(slot);
  }
  EXPECT_EQ(status()["trusted"], Json::array());
}

TEST_F(CtlStatus, WatchSeesTheDaemonComeAndGoWithTheRatesBetweenTwoLooks) {
  const std::string bad = put_infected("bad");
  Process tool = watch({"--json"});
  ASSERT_TRUE(eventually([&] { return looks().size() > 1; }));
  EXPECT_EQ(looks()[0]["running"], false);
  start();
  EXPECT_TRUE(eventually([&] { return looks().back().value("pid", 0) == daemon().pid(); }));
  const auto has_rates = [](const Json& look) {
    return look.value("denied_per_second", 0.0) > 0.0 && look["answered_per_second"] > 0.0 &&
           look["rates_over_seconds"] > 0.0 && look["denied"] > 0;
  };
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(open_status(bad), EPERM);
    return has_rates(looks().back());
  })) << out();
  EXPECT_TRUE(eventually([&] { return looks().back()["denied_per_second"] == 0.0; })) << out();
  stop();
  EXPECT_TRUE(eventually([&] { return looks().back()["running"] == false; }));
  expect_end_by_interrupt(tool);
  expect_harmless(out());
}

TEST_F(CtlStatus, WatchRefreshesInPlaceOnATerminalAndElsewhereOneTableStandsBelowTheOther) {
  Terminal terminal;
  Terminal dumb;
  Terminal objects;
  start();
  const auto watch_until = [&](Process tool, auto shown, const char* text) {
    EXPECT_TRUE(eventually([&] { return count_of(shown(), text) > 2; })) << shown();
    expect_end_by_interrupt(tool);
    return std::string(shown());
  };
  const char* const running_title = "pelowatchd is running since";
  EXPECT_THAT(
      watch_until(
          watch({}, terminal.descriptor()), [&] { return terminal.shown(); }, clear_screen),
      StartsWith(std::string(clear_screen) + "pelowatchd is \x1b[32mrunning\x1b[0m since "));
  expect_harmless(watch_until(
      watch({}, dumb.descriptor(), {{"TERM", "dumb"}}), [&] { return dumb.shown(); },
      running_title));
  expect_harmless(watch_until(
      watch({"--json"}, objects.descriptor()), [&] { return objects.shown(); }, "\"running\""));
  EXPECT_EQ(out(), "");
  expect_harmless(watch_until(
      watch(), [&] { return out(); }, running_title));
}

TEST_F(CtlStatus, OutputThatCannotBeWrittenIsNoSuccess) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  start();
  for (const Words& arguments : {Words{"status"}, Words{"mounts"}, Words{"metrics"},
                                 Words{"status", "--watch"}, Words{"--help"}}) {
    const Outcome outcome = run_tool({.arguments = arguments, .output = full});
    EXPECT_EQ(outcome.exit, exit_failed) << arguments[0];
    EXPECT_THAT(outcome.err, HasSubstr("cannot write to standard output")) << arguments[0];
  }
  close(full);
}

TEST_F(CtlStatus, WithoutPrivilegeShowsWhatCanBeSeen) {
  start();
  const Outcome table = run_tool({.arguments = {"status"}, .as_nobody = true});
  EXPECT_EQ(table.exit, exit_ok);
  EXPECT_EQ(table.err, "");
  EXPECT_EQ(row(table.out, "process"), std::to_string(daemon().pid()));
  EXPECT_EQ(row(table.out, "included"), watched());
  EXPECT_EQ(row(table.out, "log"), "not to be seen: ask as root");
  const Json json = parsed(run_tool({.arguments = {"status", "--json"}, .as_nobody = true}).out);
  EXPECT_EQ(json["pid"], daemon().pid());
  EXPECT_EQ(json["log"], nullptr);
  EXPECT_EQ(json["problems"], Json::array());
  EXPECT_EQ(lines_of(run_tool({.arguments = {"mounts"}, .as_nobody = true}).out),
            StatusArea::map()->mounts());
}

TEST_F(CtlStatus, PidFileAndLogThatTheDaemonHasLostAreProblems) {
  start();
  const std::string pid = world().read(pid_file);
  put_pid_file(std::to_string(dead_pid()) + "\n");
  const Outcome lost_pid = ctl({"status"});
  EXPECT_EQ(lost_pid.exit, exit_ok);
  EXPECT_EQ(row(lost_pid.out, "process"), std::to_string(daemon().pid()));
  EXPECT_THAT(row(lost_pid.out, "problem").value_or(""), HasSubstr("cannot be steered"));
  put_pid_file(pid);
  EXPECT_EQ(status_row("problem"), std::nullopt);

  ASSERT_EQ(unlink(log_file().c_str()), 0);
  const std::string problem =
      "the log file " + log_file() + " was removed, so what is logged is lost: restart pelowatchd";
  const Outcome table = ctl({"status"});
  EXPECT_EQ(table.exit, exit_ok);
  EXPECT_EQ(row(table.out, "log"), "none");
  EXPECT_EQ(row(table.out, "problem"), problem);
  EXPECT_EQ(status()["problems"], Json(Words{problem}));
  EXPECT_THAT(ctl({"selftest"}).out, HasSubstr("  FAILED  " + problem + "\n"));
  stop();

  World::make_folder(log_file());
  start();
  EXPECT_EQ(status()["problems"],
            Json(Words{"no log file is open, so nothing is logged: look at LogPath, and restart "
                       "pelowatchd"}));
  ASSERT_EQ(rmdir(log_file().c_str()), 0);
}

TEST_F(CtlStatus, NothingThatPelowatchctlDoesIsLogged) {
  World::make_folder(work("here"));
  World::make_folder(work("other"));
  world().put(work("other.conf"), "LogPath " + work("other") + "\nMaxThreads many\n");
  const Words looks[] = {
      {"status"}, {"jobs"}, {"mounts"}, {"metrics"}, {"check", "-c", work("other.conf")}};
  const Words others[] = {{"scan"},    {"update"}, {"--help"}, {"selftest", "--folder", work()},
                          {"unknown"}, {"stop"}};
  const auto logs_after = [&](std::span<const Words> commands) {
    for (const Words& command : commands) {
      (void)run_tool({.arguments = command, .folder = work("here")});
    }
    Words found;
    for (const std::string& root : {work(), std::string("/var/log"), std::string("/run")}) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.path().filename() == "pelowatchd.log") {
          found.push_back(entry.path());
        }
      }
    }
    return found;
  };
  EXPECT_THAT(logs_after(others), IsEmpty());
  EXPECT_THAT(logs_after(looks), IsEmpty());
  start();
  const std::string before = log();
  EXPECT_EQ(logs_after(looks), Words{log_file()});
  EXPECT_EQ(log(), before);
}

}  // namespace
}  // namespace e2e
