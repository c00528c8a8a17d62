#include "daemon_status.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sstream>
#include <string_view>

#include "fsfilter.h"
#include "printing.h"

namespace {

std::vector<std::string> lines_of(const char* text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

void take_lists(const fsfilter_status_struct& area, DaemonStatus& status) {
  for (const std::int32_t pid : area.trusted_pids) {
    if (pid > 0) {
      const std::optional<ProcessFacts> facts = facts_of(pid);
      status.trusted.push_back({pid, facts ? facts->name : ""});
    }
  }
  status.mounts = lines_of(area.mounts);
  status.inclusions = lines_of(area.inclusions);
  status.exclusions = lines_of(area.exclusions);
  for (const std::string& line : lines_of(area.jobs)) {
    status.jobs.push_back({line, parse_job(line), {}});
  }
}

void read_area(DaemonStatus& status) {
  const auto area = std::make_unique<fsfilter_status_struct>();
  if (fsfilter_read_status(area.get()) != 0) {
    if (errno != ENOENT) {
      status.no_area = fmt::format("the status area cannot be read: {}", std::strerror(errno));
    }
    return;
  }
  status.has_area = true;
  status.owner_pid = area->owner_pid;
  status.counters = {area->answered, area->denied, std::chrono::steady_clock::now()};
  take_lists(*area, status);
}

// The pid file is root's, the area anybody's; a pid file that was left behind stays, though, while
// the area is made anew.
void find_process(DaemonStatus& status) {
  const pid_t by_file = pid_in_file();
  if (is_pelowatchd(by_file)) {
    status.pid = by_file;
  } else if (status.has_area && is_pelowatchd(status.owner_pid)) {
    status.pid = status.owner_pid;
    status.problems.push_back(fmt::format(
        "{} does not name it, so that it cannot be steered: remove the file and restart it",
        pid_file));
  }
}

void judge_missing_area(DaemonStatus& status) {
  if (status.no_area.empty() && status.running()) {
    status.no_area = "there is no status area";
  }
  if (!status.no_area.empty()) {
    status.problems.push_back(status.no_area);
  }
}

void compare_owner(DaemonStatus& status) {
  if (status.owner_pid == status.pid) {
    return;
  }
  const std::optional<ProcessFacts> owner = facts_of(status.owner_pid);
  status.problems.push_back(
      owner ? fmt::format("the status area belongs to process {} ({})", status.owner_pid,
                          printable(owner->name))
            : fmt::format("the status area is left from process {}", status.owner_pid));
}

}  // namespace

DaemonStatus read_status() {
  DaemonStatus status;
  status.now = std::time(nullptr);
  read_area(status);
  find_process(status);
  status.has_area ? compare_owner(status) : judge_missing_area(status);
  status.process = facts_of(status.pid);
  if (!status.process) {
    status.pid = 0;
    return status;
  }
  status.log = log_file_of(status.pid);
  return status;
}

ExitStatus require_area(const DaemonStatus& status, std::ostream& errors) {
  if (!status.running()) {
    fmt::print(errors, "pelowatchctl: pelowatchd is not running\n");
    return exit_not_running;
  }
  if (!status.has_area) {
    fmt::print(errors, "pelowatchctl: pelowatchd (process {}) runs, but {}\n", status.pid,
               status.no_area);
    return exit_failed;
  }
  return exit_ok;
}

void work_out_jobs(DaemonStatus& status) {
  if (!status.process || status.jobs.empty()) {
    return;
  }
  const ConfParser::time_T loaded = commands_loaded(status.pid, status.process->started);
  for (ListedJob& job : status.jobs) {
    if (job.command) {
      job.next = next_due(*job.command, status.now, loaded);
    } else {
      job.next.words = "unknown: this is no job's text";
    }
  }
}

Rates rates_between(const Counters& before, const Counters& after) {
  const double seconds = std::chrono::duration<double>(after.at - before.at).count();
  const bool unknown = before.at == Counters{}.at || after.at == Counters{}.at;
  const bool anew = after.answered < before.answered || after.denied < before.denied;
  if (unknown || anew || seconds <= 0) {
    return {};
  }
  return {static_cast<double>(after.answered - before.answered) / seconds,
          static_cast<double>(after.denied - before.denied) / seconds, seconds};
}

Rates rates_since_start(const DaemonStatus& status) {
  const std::time_t seconds = status.process ? status.now - status.process->started : 0;
  if (seconds <= 0) {
    return {};
  }
  const auto span = static_cast<double>(seconds);
  return {static_cast<double>(status.counters.answered) / span,
          static_cast<double>(status.counters.denied) / span, span};
}
