// What the tests of pelowatchctl share: runs of it, and pseudo-terminals for it to print on.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "schedule_fixture.h"

namespace e2e {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

constexpr uid_t nobody_id = 65534;

/// What pelowatchctl's exit statuses mean.
constexpr Exit exit_ok{};
constexpr Exit exit_failed{1, 0};
constexpr Exit exit_usage{2, 0};
constexpr Exit exit_not_running{3, 0};

/// How pelowatchctl is started. It has TERM=xterm and no NO_COLOR unless said otherwise.
struct Tool {
  Words arguments = {};
  std::map<std::string, std::string> environment = {};
  std::string folder = "/";  // where it is started
  int output = -1;           // descriptor of its standard output; -1: a file in work()
  bool beside_the_marks =
      false;               // with copies of all mounts, so that none of its opens is an event
  bool as_nobody = false;  // without any privilege
  rlim_t descriptors = 0;  // as many as it may have; 0: as the test has them
};

/// What became of a run.
struct Outcome {
  std::optional<Exit> exit;  // nothing when it did not end
  std::string out;
  std::string err;
};

/// A pseudo-terminal. Make it before the daemon is started, since it opens files.
class Terminal {
 public:
  Terminal();
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /// What programs print on.
  int descriptor() const { return inner_; }

  /// All that was printed so far.
  const std::string& shown();

 private:
  int outer_;
  int inner_;
  std::string shown_;
};

class CtlTest : public ScheduleTest {
 protected:
  void prepare() override;

  /// Starts pelowatchctl; what it prints goes to out() and err().
  Process start_tool(const Tool& tool);
  std::string out() { return world().read(work("ctl.out")); }
  std::string err() { return world().read(work("ctl.err")); }

  /// Runs pelowatchctl to its end.
  Outcome run_tool(const Tool& tool);
  Outcome ctl(const Words& arguments);

  /// The same without an event of its own, so that counters stand still.
  Outcome ctl_aside(const Words& arguments);

  /// Runs it, which must succeed and say nothing else. @return what it printed
  std::string printed(const Words& arguments);

  /// Runs it, which must print nothing but these words, as an error.
  void expect_refusal(const Words& arguments, const Exit& exit, const std::string& words);

  /// The row of the table of `status` with this title; nothing without that row.
  std::optional<std::string> status_row(const std::string& title);

  /// "pelowatchd (process PID)".
  std::string daemon_text() {
    return "pelowatchd (process " + std::to_string(daemon().pid()) + ")";
  }

  /// What `status --json` shows, which must be whole and succeed; without an event of its own.
  Json status();

  void put_pid_file(const std::string& content);

  /// A process that waits to be killed, of the given user and name.
  static Process bystander(uid_t user = 0, const std::string& name = "bystander");

 private:
  static int run_pelowatchctl(const Tool& tool, int output, int errors);
};

/// One row of the table of `status`: what stands behind the title; nothing without that row.
std::optional<std::string> row(const std::string& table, const std::string& title);

/// Expects nothing in the text that a terminal could obey, line ends apart, and only UTF-8.
void expect_harmless(const std::string& text);

/// Parses; a failure of the test, and null, when it is no JSON.
Json parsed(const std::string& text);

}  // namespace e2e
