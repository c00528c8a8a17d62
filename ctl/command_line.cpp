#include "command_line.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <functional>
#include <optional>
#include <string>

#include "check_command.h"
#include "control.h"
#include "exit_status.h"
#include "printing.h"
#include "selftest.h"
#include "status_command.h"

namespace {

constexpr double shortest_wait = 0.1;   // seconds
constexpr double longest_wait = 86400;  // seconds

// A number that CLI::Range would take too, but for nan, which is within every range.
std::string wrong_seconds(const std::string& text) {
  double seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, seconds);
  const bool number = error == std::errc() && rest == end;
  return number && seconds >= shortest_wait && seconds <= longest_wait
             ? ""
             : fmt::format("{} is no number from {} to {}", text, shortest_wait, longest_wait);
}

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(seconds));
}

// The commands with the values of their options; it must stay in its place while it is in use.
class Commands {
 public:
  Commands(std::ostream& out, std::ostream& errors) : out_(out), errors_(errors) {
    app_.require_subcommand(1);
    app_.set_help_all_flag();
    app_.failure_message(CLI::FailureMessage::simple);
    app_.set_version_flag("--version", "pelowatchctl " PELO_VERSION);
    app_.footer(
        "Exit status: 0 done; 1 it could not be done, or check has findings; 2 wrong usage, or\n"
        "check cannot read a file; 3 pelowatchd is not running.");
    add_views();
    add_requests();
    add_check();
    add_selftest();
  }
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  int run(int argc, char** argv) {
    try {
      app_.parse(argc, argv);
    } catch (const CLI::Success& success) {
      return app_.exit(success, out_, errors_);
    } catch (const CLI::ParseError& error) {
      const bool unknown = app_.get_subcommands().empty() && argc > 1;
      return explain(unknown ? fmt::format("there is no command or option \"{}\"", argv[1])
                             : error.what());
    }
    return action_();
  }

 private:
  // A command, and what it does once the line has been read.
  CLI::App* add(const char* name, const char* description, std::function<ExitStatus()> action) {
    CLI::App* command = app_.add_subcommand(name, description);
    command->callback([this, action = std::move(action)] { action_ = action; });
    return command;
  }

  void add_views() {
    CLI::App* status = add("status", "Show what the daemon does",
                           [this] { return show_status(status_options(), out_); });
    status->add_flag("--json", json_, "One JSON object, with --watch one a line");
    CLI::Option* watch = status->add_flag("--watch", watch_, "Show it again and again");
    add_seconds(status, "--interval", interval_, "Seconds between two looks")->needs(watch);
    add("jobs", "List the scheduled scans, one a line", [this] {
      return show_jobs(json_, out_, errors_);
    })->add_flag("--json", json_, "A JSON array");
    add("mounts", "List the mount points that are watched, one a line", [this] {
      return show_mounts(json_, out_, errors_);
    })->add_flag("--json", json_, "A JSON array");
    add("metrics", "Show metrics in Prometheus' text format",
        [this] { return show_metrics(output_, out_, errors_); })
        ->add_option("--output", output_, "Put them into this file, in one step")
        ->type_name("FILE");
  }

  void add_requests() {
    add("scan", "Ask for a pass of the scheduled scans now",
        [this] { return send_request(SIGUSR2, "a pass of the scheduled scans", out_, errors_); });
    add("update", "Ask for a definition update now",
        [this] { return send_request(SIGHUP, "a definition update", out_, errors_); });
    CLI::App* stop = add("stop", "Stop the daemon and wait until it has ended",
                         [this] { return stop_daemon(milliseconds(stop_bound_), out_, errors_); });
    add_seconds(stop, "--timeout", stop_bound_, "Seconds to wait");
  }

  void add_check() {
    CLI::App* check = add("check", "Report what the daemon would silently make of its files",
                          [this] { return run_check(check_, out_, errors_); });
    check->add_option("-c,--config-file", check_.config_file, "The configuration")
        ->type_name("FILE")
        ->capture_default_str();
    check
        ->add_option("--commands", check_.commands_file,
                     "The commands file, if not the one that the configuration names")
        ->type_name("FILE");
    check
        ->add_option_function<std::string>(
            "--loaded-at",
            [this](const std::string& text) { check_.loaded_at = time_of_day(text); },
            "When the daemon will read the commands file, if not now")
        ->type_name("HH:MM")
        ->check([](const std::string& text) {
          return time_of_day(text) ? std::string() : text + " is no time of day";
        });
    check->add_flag("--json", check_.json, "One JSON object");
  }

  void add_selftest() {
    CLI::App* selftest = add("selftest", "Show that the standard anti-virus test file is refused",
                             [this] { return self_test(self_test_options(), out_, errors_); });
    selftest->add_option("--folder", folder_, "A watched folder to put it into")
        ->type_name("FOLDER");
    add_seconds(selftest, "--timeout", open_bound_, "Seconds to wait for the daemon's answer");
  }

  static CLI::Option* add_seconds(CLI::App* command, const char* name, double& value,
                                  const char* description) {
    return command->add_option(name, value, description)
        ->type_name("SECONDS")
        ->check(wrong_seconds)
        ->capture_default_str();
  }

  StatusOptions status_options() const { return {json_, watch_, milliseconds(interval_)}; }
  SelfTestOptions self_test_options() const { return {folder_, milliseconds(open_bound_)}; }

  // One line and a hint, whatever the parser has to say.
  int explain(std::string message) {
    std::replace(message.begin(), message.end(), '\n', ' ');
    const std::vector<CLI::App*> chosen = app_.get_subcommands();
    const std::string command = chosen.empty() ? "" : chosen.front()->get_name() + " ";
    fmt::print(errors_, "pelowatchctl: {}; try \"pelowatchctl {}--help\"\n", printable(message),
               command);
    return exit_usage;
  }

  std::ostream& out_;
  std::ostream& errors_;
  CLI::App app_{"Shows what pelowatchd does, and steers it.", "pelowatchctl"};
  std::function<ExitStatus()> action_;

  CheckOptions check_;
  bool json_ = false;
  bool watch_ = false;
  double interval_ = 2;
  double stop_bound_ = 10;
  double open_bound_ = 60;
  std::optional<std::string> output_;
  std::optional<std::string> folder_;
};

}  // namespace

int run_pelowatchctl(int argc, char** argv, std::ostream& out, std::ostream& errors) {
  return Commands(out, errors).run(argc, argv);
}
