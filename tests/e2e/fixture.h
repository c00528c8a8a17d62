// What every end-to-end test stands on: a world of its own, the real daemon in it, and what daemon,
// engine and event library wrote down.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "process.h"
#include "status_area.h"
#include "world.h"

namespace e2e {

constexpr const char* pid_file = "/run/pelo/pelowatchd.pid";

/// Of what times promise: an emulated machine and sanitizers take so many times as long.
constexpr int slowdown = PELO_SLOW ? 10 : 1;

/// A stop takes less than three seconds. Sanitizers search the whole memory at the end, and in an
/// emulated machine, which other tests may leave little of the real one, the kernel alone can take
/// half a minute to dissolve a group.
constexpr Duration stop_bound = PELO_SLOW ? patience : std::chrono::seconds(3);

/// A mount that comes or goes is noticed within seven seconds.
#if PELO_SLOW
constexpr Duration mount_bound = std::chrono::seconds(20);
#else
constexpr Duration mount_bound = std::chrono::seconds(7);
#endif

/// How the daemon is started.
struct Launch {
  std::vector<std::string> arguments = {};              // empty: -n -c and the test's configuration
  std::vector<std::string> wrapper = {};                // a program to run it under
  std::map<std::string, std::string> environment = {};  // beside what every test's daemon gets
  rlim_t soft_descriptors = 0;                          // 0: as the test has them
  rlim_t hard_descriptors = 0;
  int output = -1;  // descriptor for both streams; -1: files in work()
};

class E2eTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// The last thing that SetUp() does, where end-to-end tests can run: what a fixture adds.
  virtual void prepare() {}

  World& world() { return *world_; }
  std::string watched(const std::string& name = "") const { return world_->watched(name); }
  std::string work(const std::string& name = "") const { return world_->work(name); }

  /// A file below watched(), made without an event. @return its path
  std::string put(const std::string& name, const std::string& content) const;

  /// A clean file, and one in which the engine finds something.
  std::string put_clean(const std::string& name) const { return put(name, "clean\n"); }
  std::string put_infected(const std::string& name, const std::string& details = "") const;

  /// The paths of files with a number behind the name; and the same with each file made.
  std::vector<std::string> names(const std::string& name, int count) const;
  std::vector<std::string> put_files(const std::string& name, int count,
                                     const std::string& content = "clean\n") const;

  /// What lets the engine wait with the scan of a file until release().
  std::string waiting() const { return "!wait " + work("go") + "\n"; }
  void release() const { touch(work("go")); }

  /// Opens a file whose scan waits for release(); returns when that has begun.
  Process open_waiting(const std::string& file);

  /// As many of those, each of which keeps a worker busy.
  std::vector<Process> stick_workers(int count);

  /// Creates an empty file without an event: what scripts and directives wait for.
  std::string touch(const std::string& path) const;

  // The configuration file, written when the daemon is started.
  void set(const std::string& key, const std::string& value);  // replaces
  void add(const std::string& key, const std::string& value);  // one more line
  void drop(const std::string& key);
  void set_threads(int number) { set("MaxThreads", std::to_string(number)); }

  /// The engine's script; a running engine reads it at the next new handle.
  void script(const std::string& lines) const;

  // The daemon.
  void launch(const Launch& launch = {});
  Process spawn(const Launch& launch);    // beside the test's own daemon
  void start(const Launch& launch = {});  // and waits until it answers
  void wait_until_ready();
  Process& daemon() { return *daemon_; }
  pid_t daemon_pid() const;  // as the status area names it

  /// SIGTERM; expects exit status 0 within the bound and nothing left behind. How long the kernel
  /// takes to dissolve a group depends on what else opens files on the machine, so only tests that
  /// run alone ask for stop_bound.
  void stop(Duration bound = patience);

  /// SIGKILL; what is left behind is then the test's affair.
  void kill_daemon();

  /// Puts definition files into the staging folder, so that SIGHUP applies an update.
  void stage_definitions() const;

  // What was written down.
  std::string log() const { return world_->read(work("log/pelowatchd.log")); }
  std::string output() const { return world_->read(work("stdout")); }
  std::string errors() const { return world_->read(work("stderr")); }
  bool logged(std::string_view text) const { return log().find(text) != std::string::npos; }
  void expect_logged(const std::string& text) const;  // soon

  /// Expects that the status area lists a mount soon, or no longer.
  static void expect_registered(const std::string& mount, Duration bound = patience);
  static void expect_forgotten(const std::string& mount, Duration bound = patience);

  /// The engine's record, and of its lines those of one call that hold all the texts. The call's
  /// name is whole: "vseExec" leaves the "vseExec-begin" lines out.
  std::string engine_record() const { return world_->read(work("engine.record")); }
  std::vector<std::string> engine_calls(const std::string& call,
                                        const std::vector<std::string>& texts = {}) const;

  /// Waits for the engine call number `count` of this name to have begun.
  void wait_for_begin(const std::string& call, size_t count = 1) const;

  /// Waits until so many workers have their first handles.
  void wait_for_handles(size_t count) const;

  /// Finished scans of one file, and scans begun.
  size_t scans(const std::string& path) const;
  size_t scans_begun(const std::string& path) const;

  /// The event library's record, line by line.
  std::vector<std::string> events() const;

  /// A value of the daemon's status in /proc, such as VmRSS; memory is in KiB.
  std::string daemon_status(const std::string& name) const;

  /// What the daemon's descriptors point to, sorted; and only those of files below watched().
  std::vector<std::string> descriptors() const;
  size_t held_descriptors() const;

  /// From now on the test answers for how the daemon ended and what it left behind.
  void expect_no_clean_end() { clean_end_ = false; }

  void expect_nothing_left() const;

  /// Makes an area of this owner and otherwise zero, as a daemon that died leaves it.
  static void leave_area(pid_t owner, off_t size = StatusArea::total_size);

  /// The pid of a process that has ended.
  static pid_t dead_pid();

 private:
  std::vector<std::string> command(const Launch& launch) const;
  void write_configuration() const;
  [[noreturn]] void run_daemon(const Launch& launch, int standard_output, int standard_error) const;
  void expect_faultless_records() const;
  void show_records() const;

  std::optional<World> world_;
  std::optional<Process> daemon_;
  std::vector<std::pair<std::string, std::string>> settings_;
  bool clean_end_ = true;
};

size_t count_of(std::string_view text, std::string_view part);

}  // namespace e2e
