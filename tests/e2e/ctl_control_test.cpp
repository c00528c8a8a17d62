// pelowatchctl scan, update, stop: what they make the daemon do, and whom they leave alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kPidFileName = "/var/run/pelo/pelowatchd.pid";

class CtlControl : public CtlTest {
 protected:
  std::string daemon_text() {
    return "pelowatchd (process " + std::to_string(daemon().pid()) + ")";
  }

  /// scan, update and stop all refuse, with the same words.
  void expect_all_refuse(const Exit& status, const std::string& words) {
    for (const char* command : {"scan", "update", "stop"}) {
      const Outcome outcome = ctl({command});
      EXPECT_EQ(outcome.exit, status) << command;
      EXPECT_EQ(outcome.out, "") << command;
      EXPECT_EQ(outcome.err, "pelowatchctl: " + words + "\n") << command;
    }
  }
};

/// What /proc says of the process under this name.
std::string status_of(pid_t pid, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name + ":", 0) == 0) {
      return line.substr(name.size() + 2);
    }
  }
  return "";
}

bool has_pending(pid_t pid, int signal) {
  const std::string pending = status_of(pid, "ShdPnd");
  return !pending.empty() && (std::stoull(pending, nullptr, 16) >> (signal - 1) & 1) != 0;
}

bool is_stopped(pid_t pid) {
  return status_of(pid, "State").rfind('T', 0) == 0;
}

TEST_F(CtlControl, ScanRunsAPass) {
  World::make_folder(watched("share"));
  put_clean("share/file");
  start_at_noon();
  write_jobs({due_job(watched("share"))});
  // A request that comes while the service thread is busy is dropped, so it is made again.
  EXPECT_TRUE(eventually([&] {
    const Outcome outcome = ctl({"scan"});
    EXPECT_EQ(outcome.exit, kOk);
    EXPECT_EQ(outcome.out, "asked " + daemon_text() + " for a pass of the scheduled scans\n");
    EXPECT_EQ(outcome.err, "");
    return eventually([&] { return scans_completed() == 1; }, std::chrono::seconds(3));
  })) << log();
  EXPECT_EQ(count_of(log(), start_record(watched("share"))), 1U) << log();
}

TEST_F(CtlControl, UpdateAppliesDefinitions) {
  start();
  ASSERT_TRUE(eventually([&] { return !engine_calls("vseInit").empty(); }));
  stage_definitions();
  EXPECT_TRUE(eventually([&] {
    const Outcome outcome = ctl({"update"});
    EXPECT_EQ(outcome.exit, kOk);
    EXPECT_EQ(outcome.out, "asked " + daemon_text() + " for a definition update\n");
    EXPECT_EQ(outcome.err, "");
    return eventually([&] { return !engine_calls("vseExec", {"operation=14 "}).empty(); },
                      std::chrono::seconds(3));
  })) << engine_record();
}

TEST_F(CtlControl, StopWaitsForTheEndOrSaysThatTheDaemonStillRuns) {
  start();
  const Outcome stopped = ctl({"stop"});
  EXPECT_EQ(stopped.exit, kOk);
  EXPECT_THAT(stopped.out, StartsWith(daemon_text() + " stopped after "));
  EXPECT_EQ(stopped.err, "");
  EXPECT_EQ(daemon().wait(Duration(0)), Exit{}) << "stop came back too early";
  expect_nothing_left();
  start();
  daemon().signal(SIGSTOP);
  ASSERT_TRUE(eventually([&] { return is_stopped(daemon().pid()); }));
  const Outcome outcome = ctl_aside({"stop", "--timeout", "0.2"});
  EXPECT_EQ(outcome.exit, kFailed);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, StartsWith("pelowatchctl: " + daemon_text() +
                                      " still runs 0.2 seconds after it was asked to stop; "));
  EXPECT_EQ(count_of(outcome.err, "\n"), 1U);
  daemon().signal(SIGCONT);
  EXPECT_EQ(daemon().wait(), Exit{});
}

TEST_F(CtlControl, StopSaysThatThePidFileWasLeftBehind) {
  start();
  daemon().signal(SIGSTOP);
  ASSERT_TRUE(eventually([&] { return is_stopped(daemon().pid()); }));
  Process stop = start_tool({.arguments = {"stop"}, .beside_the_marks = true});
  ASSERT_TRUE(eventually([&] { return has_pending(daemon().pid(), SIGTERM); }));
  kill_daemon();
  EXPECT_EQ(stop.wait(), kFailed);
  EXPECT_THAT(out(), HasSubstr(" stopped after "));
  EXPECT_THAT(err(), HasSubstr("it has left /var/run/pelo/pelowatchd.pid behind"));
  const pid_t pid = daemon().pid();
  expect_all_refuse(
      kNotRunning, "pelowatchd is not running: /var/run/pelo/pelowatchd.pid is left from process " +
                       std::to_string(pid) +
                       ", which has ended; the next pelowatchd does not replace it");
}

TEST_F(CtlControl, StrangerThatTookTheNameIsRefused) {
  // By its name a program of root's, and by its name and its file one of another user's.
  world().put(work("lib/pelowatchd"), world().read("/bin/sleep"), 0755);
  Process as_root = bystander(0, "pelowatchd");
  Process as_nobody([&] {
    (void)!setresgid(kNobody, kNobody, kNobody);
    (void)!setresuid(kNobody, kNobody, kNobody);
    execl(work("lib/pelowatchd").c_str(), "pelowatchd", "600", nullptr);
    return 127;
  });
  const auto program = [&] {
    char target[4096] = {};
    const std::string link = "/proc/" + std::to_string(as_nobody.pid()) + "/exe";
    (void)!readlink(link.c_str(), target, sizeof(target) - 1);
    return std::string(target);
  };
  ASSERT_TRUE(eventually([&] { return program() == work("lib/pelowatchd"); }));
  for (Process* stranger : {&as_root, &as_nobody}) {
    put_pid_file(std::to_string(stranger->pid()) + "\n");
    leave_area(stranger->pid());
    expect_all_refuse(kFailed, "/var/run/pelo/pelowatchd.pid names process " +
                                   std::to_string(stranger->pid()) +
                                   " (pelowatchd), which is no pelowatchd; nothing was sent");
    EXPECT_TRUE(stranger->running());
    const Outcome table = ctl({"status"});
    EXPECT_EQ(table.exit, kNotRunning);
    EXPECT_EQ(row(table.out, "problem"), "the status area belongs to process " +
                                             std::to_string(stranger->pid()) + " (pelowatchd)");
    EXPECT_EQ(ctl({"jobs"}).exit, kNotRunning);
    EXPECT_EQ(ctl({"mounts"}).exit, kNotRunning);
    EXPECT_EQ(ctl({"metrics"}).exit, kOk);
    EXPECT_THAT(out(), HasSubstr("\npelowatchd_up 0\n"));
    unlink(StatusArea::kPath);
  }
}

TEST_F(CtlControl, PidFileThatNamesNobodyOrAStranger) {
  const std::string not_running = "pelowatchd is not running: ";
  expect_all_refuse(kNotRunning, not_running + "there is no pid in " + kPidFileName);
  Process stranger = bystander(0, "stran\x1bger");  // whom pid 0 or -1 would mean too
  for (const char* content : {"", "\n", "0\n", "-1\n", "pelowatchd\n", "0x10\n",
                              "99999999999999999999\n", "\xff\xff\xff\xff"}) {
    put_pid_file(content);
    expect_all_refuse(kNotRunning, not_running + "there is no pid in " + kPidFileName);
  }
  const std::string dead = std::to_string(dead_pid());
  put_pid_file(dead + "\n");
  expect_all_refuse(kNotRunning, not_running + kPidFileName + " is left from process " + dead +
                                     ", which has ended; the next pelowatchd does not replace it");
  // The second is the first process of the namespace: were it signalled, nothing below would run.
  const std::pair<std::string, const char*> strangers[] = {
      {std::to_string(stranger.pid()), "stran\\x1bger"}, {"1", "e2e_tests"}};
  for (const auto& [pid, name] : strangers) {
    put_pid_file(pid + "\n");
    expect_all_refuse(kFailed, std::string(kPidFileName) + " names process " + pid + " (" + name +
                                   "), which is no pelowatchd; nothing was sent");
  }
  EXPECT_TRUE(stranger.running());
  EXPECT_EQ(ctl({"status"}).exit, kNotRunning);
}

TEST_F(CtlControl, DaemonThatThePidFileDoesNotNameIsLeftAlone) {
  start();
  const std::string refusal = "process " + std::to_string(daemon().pid()) +
                              " is a pelowatchd, but nothing was sent to it: ";
  const std::string dead = std::to_string(dead_pid());
  put_pid_file(dead + "\n");
  expect_all_refuse(kFailed, refusal + kPidFileName + " is left from process " + dead +
                                 ", which has ended; the next pelowatchd does not replace it");
  remove_pid_file();
  expect_all_refuse(kFailed, refusal + "there is no pid in " + kPidFileName);
  EXPECT_TRUE(daemon().running());
  EXPECT_EQ(errors(), "") << "it was asked to end";
  put_pid_file(std::to_string(daemon().pid()) + "\n");
}

TEST_F(CtlControl, WithoutPrivilegeNothingIsSent) {
  start();
  for (const char* command : {"scan", "update", "stop"}) {
    const Outcome outcome = run_tool({.arguments = {command}, .as_nobody = true});
    EXPECT_EQ(outcome.exit, kFailed) << command;
    EXPECT_EQ(outcome.out, "") << command;
    EXPECT_EQ(outcome.err,
              "pelowatchctl: cannot signal " + daemon_text() + ": Operation not permitted\n")
        << command;
  }
  EXPECT_TRUE(daemon().running());
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
}

}  // namespace
}  // namespace e2e
