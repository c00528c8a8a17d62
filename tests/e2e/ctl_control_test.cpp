// pelowatchctl scan, update, stop: what they make the daemon do, and whom they leave alone; and the
// command line of all commands.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* pid_file_as_told = "/var/run/pelo/pelowatchd.pid";

class CtlControl : public CtlTest {
 protected:
  /// scan, update and stop all refuse, with the same words.
  void expect_all_refuse(const Exit& status, const std::string& words) {
    for (const char* command : {"scan", "update", "stop"}) {
      expect_refusal({command}, status, words);
    }
  }

  /// Asks the daemon for something until it is done: a request that comes while the service thread
  /// is busy is dropped.
  void expect_done_when_asked(const char* command, const std::string& words,
                              const std::function<bool()>& done) {
    EXPECT_TRUE(eventually([&] {
      EXPECT_EQ(printed({command}), "asked " + daemon_text() + " for " + words + "\n");
      return eventually(done, std::chrono::seconds(3));
    })) << log();
  }

  void stop_daemon_by_signal() {
    daemon().signal(SIGSTOP);
    ASSERT_TRUE(eventually([&] { return daemon_status("State").starts_with("T"); }));
  }

  /// Whether the daemon, which stands still, has yet to take a signal.
  bool has_pending(int signal) {
    return (std::stoull(daemon_status("ShdPnd"), nullptr, 16) >> (signal - 1) & 1) != 0;
  }
};

TEST_F(CtlControl, ScanRunsAPassAndUpdateAppliesDefinitions) {
  World::make_folder(watched("share"));
  put_clean("share/file");
  stage_definitions();
  start_at_noon();
  write_jobs({due_job(watched("share"))});
  expect_done_when_asked("scan", "a pass of the scheduled scans",
                         [&] { return scans_completed() == 1; });
  EXPECT_EQ(count_of(log(), start_record(watched("share"))), 1U) << log();
  expect_done_when_asked("update", "a definition update",
                         [&] { return !engine_calls("vseExec", {"operation=14 "}).empty(); });
}

TEST_F(CtlControl, StopWaitsForTheEndOrSaysThatTheDaemonStillRuns) {
  start();
  EXPECT_THAT(printed({"stop"}), StartsWith(daemon_text() + " stopped after "));
  EXPECT_EQ(daemon().wait(Duration(0)), Exit{}) << "stop came back too early";
  expect_nothing_left();
  start();
  stop_daemon_by_signal();
  const Outcome outcome = ctl_aside({"stop", "--timeout", "0.2"});
  EXPECT_EQ(outcome.exit, exit_failed);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, StartsWith("pelowatchctl: " + daemon_text() +
                                      " still runs 0.2 seconds after it was asked to stop; "));
  EXPECT_EQ(count_of(outcome.err, "\n"), 1U);
  daemon().signal(SIGCONT);
  EXPECT_EQ(daemon().wait(), Exit{});
}

TEST_F(CtlControl, StopSaysThatThePidFileWasLeftBehind) {
  start();
  stop_daemon_by_signal();
  Process stop = start_tool({.arguments = {"stop"}, .beside_the_marks = true});
  ASSERT_TRUE(eventually([&] { return has_pending(SIGTERM); }));
  kill_daemon();
  EXPECT_EQ(stop.wait(), exit_failed);
  EXPECT_THAT(out(), HasSubstr(" stopped after "));
  EXPECT_THAT(err(), HasSubstr("it has left /var/run/pelo/pelowatchd.pid behind"));
  const pid_t pid = daemon().pid();
  expect_all_refuse(
      exit_not_running,
      "pelowatchd is not running: /var/run/pelo/pelowatchd.pid is left from process " +
          std::to_string(pid) + ", which has ended; the next pelowatchd does not replace it");
}

TEST_F(CtlControl, PidFileThatNamesNobodyOrAStranger) {
  const std::string nobody = std::string("there is no pid in ") + pid_file_as_told;
  expect_all_refuse(exit_not_running, "pelowatchd is not running: " + nobody);
  Process stranger = bystander(0, "stran\x1bger");  // whom pid 0 or -1 would mean too
  for (const char* content : {"", "\n", "0\n", "-1\n", "pelowatchd\n", "0x10\n",
                              "99999999999999999999\n", "\xff\xff\xff\xff"}) {
    put_pid_file(content);
    expect_all_refuse(exit_not_running, "pelowatchd is not running: " + nobody);
  }
  // By its name and its file a pelowatchd, but another user's.
  const std::string program = work("lib/pelowatchd");
  world().put(program, world().read("/bin/sleep"), 0755);
  Process impostor([&]() -> int {
    (void)!setresgid(nobody_id, nobody_id, nobody_id);
    (void)!setresuid(nobody_id, nobody_id, nobody_id);
    execute({program, "600"});
  });
  const std::string folder = "/proc/" + std::to_string(impostor.pid());
  ASSERT_TRUE(
      eventually([&] { return std::filesystem::read_symlink(folder + "/exe") == program; }));
  // The last is the first process of the namespace: were it signalled, nothing below would run.
  const std::pair<pid_t, const char*> strangers[] = {
      {stranger.pid(), "stran\\x1bger"}, {impostor.pid(), "pelowatchd"}, {1, "e2e_tests"}};
  for (const auto& [pid, name] : strangers) {
    put_pid_file(std::to_string(pid) + "\n");
    leave_area(pid);
    const std::string process = "process " + std::to_string(pid) + " (" + name + ")";
    expect_all_refuse(exit_failed, std::string(pid_file_as_told) + " names " + process +
                                       ", which is no pelowatchd; nothing was sent");
    EXPECT_EQ(status_row("problem"), "the status area belongs to " + process);
    EXPECT_THAT(printed({"metrics"}), HasSubstr("\npelowatchd_up 0\n"));
    unlink(StatusArea::path);
  }
  EXPECT_TRUE(stranger.running() && impostor.running());
}

TEST_F(CtlControl, DaemonThatThePidFileDoesNotNameIsLeftAlone) {
  start();
  const std::string refusal = "process " + std::to_string(daemon().pid()) +
                              " is a pelowatchd, but nothing was sent to it: ";
  const std::string dead = std::to_string(dead_pid());
  put_pid_file(dead + "\n");
  expect_all_refuse(exit_failed, refusal + pid_file_as_told + " is left from process " + dead +
                                     ", which has ended; the next pelowatchd does not replace it");
  unlink(pid_file);
  expect_all_refuse(exit_failed, refusal + "there is no pid in " + pid_file_as_told);
  EXPECT_TRUE(daemon().running());
  EXPECT_EQ(errors(), "") << "it was asked to end";
  put_pid_file(std::to_string(daemon().pid()) + "\n");
}

TEST_F(CtlControl, WithoutPrivilegeNothingIsSent) {
  start();
  for (const char* command : {"scan", "update", "stop"}) {
    const Outcome outcome = run_tool({.arguments = {command}, .as_nobody = true});
    EXPECT_EQ(outcome.exit, exit_failed) << command;
    EXPECT_EQ(outcome.out, "") << command;
    EXPECT_EQ(outcome.err,
              "pelowatchctl: cannot signal " + daemon_text() + ": Operation not permitted\n")
        << command;
  }
  EXPECT_TRUE(daemon().running());
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
}

// The command line: help for everything, and one line for what it does not understand.

constexpr const char* all_commands[] = {"status", "jobs", "mounts", "metrics", "scan",
                                        "update", "stop", "check",  "selftest"};

class CtlUsage : public CtlTest {
 protected:
  void expect_usage_error(const Words& arguments, const std::string& command, const char* word) {
    const std::string line = testing::PrintToString(arguments);
    const Outcome outcome = ctl(arguments);
    EXPECT_EQ(outcome.exit, exit_usage) << line;
    EXPECT_EQ(outcome.out.substr(0, 100), "") << line;
    EXPECT_EQ(count_of(outcome.err, "\n"), 1U) << line << outcome.err;
    EXPECT_THAT(outcome.err, StartsWith("pelowatchctl: ")) << line;
    EXPECT_THAT(outcome.err, HasSubstr(word)) << line;
    const std::string space = command.empty() ? "" : " ";
    EXPECT_THAT(outcome.err, EndsWith("try \"pelowatchctl " + command + space + "--help\"\n"))
        << line;
    expect_harmless(outcome.err);
  }
};

TEST_F(CtlUsage, HelpForAllAndForEveryCommand) {
  EXPECT_EQ(printed({"--version"}), "pelowatchctl 3.0\n");
  for (const char* option : {"--help", "-h"}) {
    const std::string help = printed({option});
    for (const char* command : all_commands) {
      EXPECT_THAT(help, HasSubstr(std::string("\n  ") + command + " "));
    }
    EXPECT_THAT(help, HasSubstr("Exit status: "));
  }
  for (const char* command : all_commands) {
    const std::string help = printed({command, "--help"});
    EXPECT_THAT(help, HasSubstr("\nUsage: pelowatchctl " + std::string(command) + " [OPTIONS]\n"));
    EXPECT_THAT(help, Not(HasSubstr("\x1b")));
  }
}

TEST_F(CtlUsage, WhatIsNotUnderstood) {
  expect_usage_error({}, "", ": A subcommand is required;");
  expect_usage_error({"unknown"}, "", "unknown");
  expect_usage_error({"statu"}, "", "statu");
  expect_usage_error({""}, "", "no command or option \"\"");
  expect_usage_error({"--unknown"}, "", "--unknown");
  expect_usage_error({"-x"}, "", "-x");
  expect_usage_error({"ev\x1b[31mil\n\xff"}, "", "ev\\x1b[31mil");
  expect_usage_error({"status", "--unknown"}, "status", "--unknown");
  expect_usage_error({"jobs", "more"}, "jobs", "more");
  expect_usage_error({"stop", "now\x1b[31m\n\n"}, "stop", "now\\x1b[31m");
  expect_usage_error({"scan", "--json"}, "scan", "--json");
}

TEST_F(CtlUsage, ValuesThatAreMissingOrWrong) {
  expect_usage_error({"metrics", "--output"}, "metrics", "--output");
  expect_usage_error({"selftest", "--folder"}, "selftest", "--folder");
  expect_usage_error({"stop", "--timeout"}, "stop", "--timeout");
  expect_usage_error({"status", "--interval", "1"}, "status", "--watch");
  for (const char* number :
       {"much", "", "0", "-1", "1e9", "nan", "inf", "0x", "0x1p3", "1s", "1 2"}) {
    expect_usage_error({"stop", "--timeout", number}, "stop", "--timeout");
    expect_usage_error({"selftest", "--timeout", number}, "selftest", "--timeout");
    expect_usage_error({"status", "--watch", "--interval", number}, "status", "--interval");
  }
}

TEST_F(CtlUsage, RefusedLinesDoNothing) {
  start();
  expect_usage_error({"stop", "--timeout", "much"}, "stop", "--timeout");
  expect_usage_error({"stop", "jobs", "--unknown"}, "stop", "not expected: --unknown jobs");
  EXPECT_TRUE(daemon().running());
  (void)printed({"stop", "--help"});
  EXPECT_TRUE(daemon().running());
  EXPECT_EQ(errors(), "") << "it was asked to end";
}

}  // namespace
}  // namespace e2e
