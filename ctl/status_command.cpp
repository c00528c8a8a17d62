#include "status_command.h"

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <unistd.h>

#include <thread>

#include "daemon_status.h"
#include "metrics.h"
#include "printing.h"
#include "status_output.h"

namespace {

constexpr const char* home_and_clear = "\x1b[H\x1b[2J";

DaemonStatus read_status_with_jobs() {
  DaemonStatus status = read_status();
  work_out_jobs(status);
  return status;
}

std::string rendered(const StatusOptions& options, const DaemonStatus& status, const Rates& rates) {
  return options.json ? status_json(status, rates, options.watch ? -1 : 2)
                      : status_text(status, rates, Colours::for_descriptor(STDOUT_FILENO));
}

// Until output fails; SIGINT ends the program here as anywhere else.
ExitStatus watch_status(const StatusOptions& options, std::ostream& out) {
  const bool in_place = !options.json && obeys_escapes(STDOUT_FILENO);
  DaemonStatus status = read_status_with_jobs();
  Rates rates = rates_since_start(status);
  for (;;) {
    const std::string text = rendered(options, status, rates);
    out << (in_place ? home_and_clear : "") << text << (options.json || in_place ? "" : "\n");
    if (!out.flush()) {
      return exit_failed;
    }
    std::this_thread::sleep_for(options.interval);  // the rhythm that was asked for
    const Counters before = status.counters;
    status = read_status_with_jobs();
    rates = rates_between(before, status.counters);
  }
}

// Shows a list of the area if there is a daemon that keeps it.
ExitStatus show_list(const DaemonStatus& status, std::string (*render)(const DaemonStatus&),
                     std::ostream& out, std::ostream& errors) {
  const ExitStatus readable = require_area(status, errors);
  if (readable == exit_ok) {
    out << render(status);
  }
  return readable;
}

}  // namespace

ExitStatus show_status(const StatusOptions& options, std::ostream& out) {
  if (options.watch) {
    return watch_status(options, out);
  }
  const DaemonStatus status = read_status_with_jobs();
  out << rendered(options, status, rates_since_start(status));
  return status.running() ? exit_ok : exit_not_running;
}

ExitStatus show_jobs(bool json, std::ostream& out, std::ostream& errors) {
  return show_list(read_status_with_jobs(), json ? jobs_json : jobs_text, out, errors);
}

ExitStatus show_mounts(bool json, std::ostream& out, std::ostream& errors) {
  return show_list(read_status(), json ? mounts_json : mounts_text, out, errors);
}

ExitStatus show_metrics(const std::optional<std::string>& file, std::ostream& out,
                        std::ostream& errors) {
  const std::string text = metrics_text(read_status());
  if (!file) {
    out << text;
    return exit_ok;
  }
  const std::string problem = write_atomically(*file, text);
  if (!problem.empty()) {
    fmt::print(errors, "pelowatchctl: cannot write {}: {}\n", printable(*file), problem);
    return exit_failed;
  }
  return exit_ok;
}
