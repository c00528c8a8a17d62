#include "daemon_status.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <sstream>
#include <string_view>

#include "fsfilter.h"
#include "printing.h"

namespace {

std::vector<std::string> lines_of(std::string_view text) {
  std::istringstream stream{std::string(text)};
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// The paths of a set, of which its text shows those before the last that it had room for.
std::vector<std::string> paths_of(const char* set, std::string_view text, DaemonStatus& status) {
  constexpr std::size_t long_path = 256;
  if (text.size() + long_path > FSFILTER_TEXT_SIZE) {
    status.problems.push_back(fmt::format(
        "the list of {} has no room for more, so there may be some that it does not show", set));
  }
  return lines_of(text);
}

void take_lists(const fsfilter_status_struct& area, DaemonStatus& status) {
  for (const std::int32_t pid : area.trusted_pids) {
    if (pid > 0) {
      const std::optional<ProcessFacts> facts = facts_of(pid);
      status.trusted.push_back({pid, facts ? facts->name : ""});
    }
  }
  status.mounts = paths_of("mounts", area.mounts, status);
  status.inclusions = paths_of("inclusions", area.inclusions, status);
  status.exclusions = paths_of("exclusions", area.exclusions, status);
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
  status.counters = {area->answered, area->denied, Clock::now()};
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

void judge_area(DaemonStatus& status) {
  if (!status.has_area) {
    if (status.no_area.empty() && status.running()) {
      status.no_area = "there is no status area";
    }
    if (!status.no_area.empty()) {
      status.problems.push_back(status.no_area);
    }
    return;
  }
  if (status.owner_pid == status.pid) {
    return;
  }
  const std::optional<ProcessFacts> owner = facts_of(status.owner_pid);
  status.problems.push_back(
      owner ? fmt::format("the status area belongs to process {} ({})", status.owner_pid,
                          printable(owner->name))
            : fmt::format("the status area is left from process {}", status.owner_pid));
}

void read_log(DaemonStatus& status) {
  const std::variant<LogFile, NoLog> log = log_file_of(status.pid);
  if (const auto* file = std::get_if<LogFile>(&log)) {
    status.log = *file;
    return;
  }
  status.no_log = std::get<NoLog>(log);
  if (!status.no_log.hidden) {
    status.problems.push_back(status.no_log.reason);
  }
}

// The TZ by which the daemon reckons; nothing without the right to see it.
std::optional<std::string> time_zone_of(pid_t pid) {
  static constexpr std::string_view name = "TZ=";
  const std::optional<std::vector<std::string>> environment = environment_of(pid);
  if (!environment) {
    return std::nullopt;
  }
  const auto zone = std::find_if(environment->begin(), environment->end(),
                                 [](const std::string& word) { return word.starts_with(name); });
  return zone == environment->end() ? ":/etc/localtime" : zone->substr(name.size());
}

// While it lives, local times are those of the process, as far as its zone can be seen.
class LocalTimesOf {
 public:
  explicit LocalTimesOf(pid_t pid) {
    if (const char* zone = std::getenv("TZ")) {
      own_ = zone;
    }
    if (const std::optional<std::string> zone = time_zone_of(pid)) {
      set(zone);
    }
  }
  ~LocalTimesOf() { set(own_); }
  LocalTimesOf(const LocalTimesOf&) = delete;
  LocalTimesOf& operator=(const LocalTimesOf&) = delete;

 private:
  static void set(const std::optional<std::string>& zone) {
    (void)(zone ? setenv("TZ", zone->c_str(), 1) : unsetenv("TZ"));
    tzset();
  }

  std::optional<std::string> own_;
};

}  // namespace

DaemonStatus read_status() {
  DaemonStatus status;
  status.now = std::time(nullptr);
  read_area(status);
  find_process(status);
  judge_area(status);
  status.process = facts_of(status.pid);
  if (!status.process) {
    status.pid = 0;
    return status;
  }
  read_log(status);
  status.dropped_texts = dropped_texts_of(status.pid);
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
  const LocalTimesOf daemon(status.pid);
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
  if (!status.process || !status.has_area) {
    return {};
  }
  const auto span =
      static_cast<double>(std::max<std::time_t>(status.now - status.process->started, 1));
  return {static_cast<double>(status.counters.answered) / span,
          static_cast<double>(status.counters.denied) / span, span};
}
