// The status for people.
#include <fmt/format.h>

#include "status_output.h"

namespace {

using Rows = std::vector<std::pair<std::string, std::string>>;

std::string job_line(const ListedJob& job) {
  if (!job.command) {
    return fmt::format("{}  {}", job.text, job.next.words);
  }
  const Command& command = *job.command;
  return fmt::format("{}{}  {} {}, {}, {}  next: {}", command.folder,
                     command.recursive ? " and below" : "", ConfParser::word(command.day),
                     clock_text(command.start), ConfParser::word(command.repeat),
                     ConfParser::word(command.action), job.next.words);
}

// A list under one title.
void add_list(Rows& rows, const char* title, const std::vector<std::string>& texts,
              const char* none) {
  if (texts.empty()) {
    rows.emplace_back(title, none);
  }
  for (const std::string& text : texts) {
    rows.emplace_back(title, printable(text));
    title = "";
  }
}

// A count and its rate; the rate is left out when it is not known.
std::string rate_text(std::uint64_t count, double rate, double seconds) {
  constexpr double short_time = 60;
  if (seconds <= 0) {
    return grouped(count);
  }
  return fmt::format("{}, {:.1f} a second over {}", grouped(count), rate,
                     seconds < short_time ? fmt::format("{:.1f} seconds", seconds)
                                          : duration_in_words(static_cast<std::time_t>(seconds)));
}

void add_area(Rows& rows, const DaemonStatus& status, const Rates& rates) {
  rows.emplace_back("answered", rate_text(status.counters.answered, rates.answered, rates.seconds));
  rows.emplace_back("denied", rate_text(status.counters.denied, rates.denied, rates.seconds));
  std::vector<std::string> texts;
  for (const TrustedProcess& process : status.trusted) {
    texts.push_back(
        fmt::format("{} ({})", process.pid, process.name.empty() ? "ended" : process.name));
  }
  add_list(rows, "trusted", texts, "only itself");
  add_list(rows, "mounts", status.mounts, "none: nothing is watched");
  add_list(rows, "included", status.inclusions, "everything");
  add_list(rows, "excluded", status.exclusions, "nothing");
}

void add_jobs(Rows& rows, const DaemonStatus& status) {
  std::vector<std::string> lines;
  for (const ListedJob& job : status.jobs) {
    lines.push_back(job_line(job));
  }
  add_list(rows, "jobs", lines, "none");
}

std::string log_text(const DaemonStatus& status) {
  if (!status.log) {
    return status.no_log.hidden ? "not to be seen: ask as root" : "none";
  }
  return fmt::format("{}, {}", printable(status.log->path), size_in_words(status.log->bytes));
}

}  // namespace

std::string status_text(const DaemonStatus& status, const Rates& rates, const Colours& colours) {
  std::string text;
  Rows rows;
  if (status.running()) {
    const std::time_t started = status.process->started;
    text = fmt::format("pelowatchd is {} since {} ({})\n\n", colours.good("running"),
                       local_time(started), duration_in_words(status.now - started));
    rows.emplace_back("process", std::to_string(status.pid));
    if (status.has_area) {
      add_area(rows, status, rates);
      add_jobs(rows, status);
    }
    rows.emplace_back("log", log_text(status));
    if (status.dropped_texts > 0) {
      rows.emplace_back("log texts dropped", grouped(status.dropped_texts));
    }
  } else {
    text = fmt::format("pelowatchd is {}\n", colours.bad("not running"));
  }
  for (const std::string& problem : status.problems) {
    rows.emplace_back("problem", problem);
  }
  return text + columns(rows);
}

std::string jobs_text(const DaemonStatus& status) {
  std::string text;
  for (const ListedJob& job : status.jobs) {
    text += printable(job_line(job)) + "\n";
  }
  return text;
}

std::string mounts_text(const DaemonStatus& status) {
  std::string text;
  for (const std::string& mount : status.mounts) {
    text += printable(mount) + "\n";
  }
  return text;
}
