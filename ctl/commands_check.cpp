#include "commands_check.h"

#include <fmt/format.h>

#include <array>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "at_or_above.h"
#include "fsfilter.h"
#include "job_start.h"
#include "letters.h"
#include "printing.h"
#include "record_check.h"

namespace {

constexpr std::size_t days_of_week = 7;

class CommandsChecker {
 public:
  CommandsChecker(const std::string& file, const std::string& content, const LoadTime& loaded,
                  const JobSettings& settings)
      : lines_(content), loaded_(loaded), settings_(settings), report_(file) {}

  CommandsCheck run(const std::string& file) {
    CommandParser parser;
    parser.parse(file);
    note_daily_days(parser.getCommands());
    auto block = parser.blocks().begin();
    for (const Command& command : parser.getCommands()) {
      check(*block++, command);
    }
    check_jobs_text();
    return {std::move(jobs_), report_.take()};
  }

 private:
  void check(const CommandParser::Block& block, const Command& command) {
    const ConfParser& settings = block.settings;
    check_separators(settings);
    const std::size_t line =
        block.first_line > 1 ? block.first_line - 1 : check_beginning(settings);
    check_unknown<Command>(settings, CommandParser::separator, report_);
    check_record(command, settings, lines_, report_);
    check_missing(settings, line);
    check_recursive(line_of(settings, "recursive", line), command);
    check_start(line_of(settings, "start", line), command);
    check_repeat(line_of(settings, "repeat", line), command);
    check_folder(line_of(settings, "folder", line), command.folder);
    add_job(command, line);
  }

  // Only "scan" in small letters, alone on its line, separates.
  void check_separators(const ConfParser& settings) {
    for (const auto& [key, value] : settings.values()) {
      if (!same_word(key, CommandParser::separator) || lines_.separates(value.line)) {
        continue;
      }
      report_.add(
          value.line, key,
          fmt::format("separates no jobs{}: what stands below belongs to the same job as what "
                      "stands above; write \"scan\" {}",
                      key != CommandParser::separator ? ""
                      : value.text.empty()            ? ", because a comment follows"
                                           : fmt::format(", because {} follows", quote(value.text)),
                      key == CommandParser::separator ? "alone on its line" : "in small letters"));
    }
  }

  // The first separator closes nothing: what stands before it belongs to the job that it opens.
  // @return the line of the job
  std::size_t check_beginning(const ConfParser& settings) {
    const std::pair<const std::string, ConfParser::Value>* first = nullptr;
    std::size_t separator = 0;
    for (const auto& setting : settings.values()) {
      const std::size_t line = setting.second.line;
      if (lines_.separates(line)) {
        separator = separator == 0 ? line : separator;  // equal keys keep their order
      } else if (setting.first != CommandParser::separator &&
                 (first == nullptr || line < first->second.line)) {
        first = &setting;
      }
    }
    if (first->second.line > separator) {
      return separator == 0 ? first->second.line : separator;
    }
    report_.add(first->second.line, first->first,
                fmt::format("stands before the first \"scan\", so it belongs to the same job as "
                            "what follows line {}",
                            separator));
    return first->second.line;
  }

  void check_missing(const ConfParser& settings, std::size_t line) {
    constexpr std::pair<const char*, const char*> consequences[] = {
        {"start", "missing, so 00:00 is used; write hour:minute"},
        {"day", "missing, so SUN is used; write one of SUN to SAT"},
        {"repeat",
         "missing, so the job runs once, and then not until the file is read again; "
         "write NO, DAILY, WEEKLY, MONTHLY or QUARTERLY"},
    };
    for (const auto& [key, consequence] : consequences) {
      if (settings.peek(key) == nullptr) {
        report_.add(line, key, consequence);
      }
    }
  }

  void check_start(std::size_t line, const Command& command) {
    const std::optional<ConfParser::time_T> first = first_run(command.start);
    if (!first) {
      report_.add(line, "start",
                  "the clock never shows such a time, so the job never runs; write 00:00 to 23:59");
      return;
    }
    if (command.start < *first || *first < command.start) {
      report_.add(line, "start",
                  fmt::format("the clock never shows such a time, so the job runs from {} on",
                              clock_text(*first)));
    }
    if (command.start < loaded_.time) {
      report_.add(
          line, "start",
          fmt::format("if the daemon reads the file {}at {}, the job does not run until the "
                      "file is read again at or before {}: touch the file by then, or let "
                      "the job start later",
                      loaded_.now ? "now, " : "", clock_text(loaded_.time),
                      clock_text(latest_load(command.start))));
    }
    if (!(*first < ConfParser::time_T(23, 59))) {
      report_.add(line, "start",
                  "the daemon looks for due jobs a little less often than once a minute, so it may "
                  "pass over the last minute of the day; write an earlier one");
    }
  }

  void check_repeat(std::size_t line, const Command& command) {
    if (command.repeat == ConfParser::DAILY &&
        daily_days_[without_day(command)].size() < days_of_week) {
      report_.add(line, "repeat",
                  fmt::format("the job runs on {0} only, since its day counts for every period; "
                              "write WEEKLY for every {0}, and one job for each day for every day",
                              ConfParser::word(command.day)));
    }
    if (command.repeat == ConfParser::MONTHLY) {
      report_.add(
          line, "repeat",
          fmt::format("until the daemon is restarted, no run comes earlier in the month than "
                      "the run before it, so runs move towards the end of the month, and "
                      "from the 29th on whole months pass without one; write WEEKLY for "
                      "every {}, or QUARTERLY, which runs every 13 or 14 weeks",
                      ConfParser::word(command.day)));
    }
  }

  void check_recursive(std::size_t line, const Command& command) {
    if (command.recursive && settings_.max_recursion == 0) {
      report_.add(line, "recursive",
                  fmt::format("has no effect: with the MaxRecursion 0 of {} scans look into the "
                              "folder alone",
                              cut(settings_.file)));
    }
  }

  void check_folder(std::size_t line, const std::string& folder) {
    if (folder.empty()) {
      report_.add(line, "folder", "no folder is given, so the job scans nothing");
    } else if (folder.starts_with('=')) {
      return;  // has been reported
    } else if (const auto problem = no_directory(folder, "the job scans nothing")) {
      report_.add(line, "folder", *problem);
    } else {
      check_exclusion(line, folder);
    }
  }

  void check_exclusion(std::size_t line, const std::string& folder) {
    const std::string real = real_path(folder);
    const auto above = find_at_or_above(settings_.exclusions, real.empty() ? folder : real);
    if (above != settings_.exclusions.end()) {
      report_.add(line, "folder",
                  fmt::format("scanned although {}:{} excludes {}: exclusions do not hold for "
                              "scheduled scans",
                              cut(settings_.file), above->second, quote(above->first)));
    }
  }

  void add_job(const Command& command, std::size_t line) {
    const auto [first, added] = lines_of_jobs_.emplace(command.ToString(), line);
    if (added) {
      jobs_.push_back({command, line});
    } else {
      report_.add(line, "",
                  fmt::format("the same as the job of line {}, so the two are one", first->second));
    }
  }

  // Those who want a scan every day write one job for each.
  void note_daily_days(const std::list<Command>& commands) {
    for (const Command& command : commands) {
      if (command.repeat == ConfParser::DAILY) {
        daily_days_[without_day(command)].insert(command.day);
      }
    }
  }

  static std::string without_day(Command command) {
    command.day = ConfParser::SUN;
    return command.ToString();
  }

  void check_jobs_text() {
    const std::size_t size = bytes_in_area(lines_of_jobs_);
    if (size > FSFILTER_TEXT_SIZE) {
      report_.add(0, "",
                  fmt::format("the list of these jobs takes {} bytes: the status area holds {} and "
                              "goes on showing the jobs before; write fewer jobs",
                              size, static_cast<int>(FSFILTER_TEXT_SIZE)));
    }
  }

  const FileLines lines_;
  const LoadTime& loaded_;
  const JobSettings& settings_;
  FileReport report_;
  std::vector<CheckedJob> jobs_;
  LinesOfTexts lines_of_jobs_;
  std::map<std::string, std::set<ConfParser::days_t>> daily_days_;
};

const char* day_in_words(ConfParser::days_t day) {
  constexpr std::array names = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                "Thursday", "Friday", "Saturday"};
  return names[static_cast<std::size_t>(day)];
}

const char* period_in_words(ConfParser::repeat_t repeat) {
  constexpr std::array names = {"once", "every week", "every week", "at most once a month",
                                "every 13 or 14 weeks"};
  return names[static_cast<std::size_t>(repeat)];
}

}  // namespace

CommandsCheck check_commands(const std::string& file, const std::string& content,
                             const LoadTime& loaded, const JobSettings& settings) {
  return CommandsChecker(file, content, loaded, settings).run(file);
}

std::string in_words(const Command& command) {
  return fmt::format(
      "{}{}, on {} from {} on, {}; {}", command.folder.empty() ? "no folder" : cut(command.folder),
      command.recursive ? " and what is below it" : "", day_in_words(command.day),
      clock_text(command.start), period_in_words(command.repeat), ConfParser::word(command.action));
}
