#include "next_due.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <charconv>

#include "job_schedule.h"
#include "job_start.h"
#include "printing.h"

namespace {

constexpr int days_of_week = 7;
constexpr std::time_t still_now = 120;  // seconds after its start; a pass comes once a minute

std::tm local(std::time_t at) {
  std::tm time{};
  (void)localtime_r(&at, &time);
  return time;
}

// Takes the number before the separator off the text, or the whole of it for '\0'.
bool take_number(std::string_view& text, char separator, int& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end == text.data() + text.size() || *end != separator) {
    return false;
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()) + 1);
  return true;
}

// A time of day on the day that begins `days` after today's midnight.
std::tm on_day(const ConfParser::time_T& time_of_day, std::time_t now, int days) {
  std::tm time = local(now);
  time.tm_mday += days;
  time.tm_hour = time_of_day.hour;
  time.tm_min = time_of_day.minute;
  time.tm_sec = 0;
  time.tm_isdst = -1;
  return time;
}

std::optional<std::time_t> next_start(const ConfParser::time_T& start, ConfParser::days_t day,
                                      std::time_t now) {
  for (int days = 0; days <= days_of_week; ++days) {
    std::tm time = on_day(start, now, days);
    const std::time_t at = std::mktime(&time);
    if (at > now && time.tm_wday == day) {
      return at;
    }
  }
  return std::nullopt;
}

// Whether the pass that runs it is to be expected now. One that repeats has run at the first pass
// after its start; one that does not would be gone from the list.
bool due_now(const Command& command, const ConfParser::time_T& start, std::time_t now,
             const ConfParser::time_T& loaded) {
  if (!is_due(command, local(now), loaded, nullptr)) {
    return false;
  }
  std::tm today = on_day(start, now, 0);
  return command.repeat == ConfParser::NO || now - std::mktime(&today) < still_now;
}

std::string in_words(std::time_t at, std::time_t now) {
  return fmt::format("{:%A %Y-%m-%d %H:%M}, in {}", local(at), duration_in_words(at - now));
}

}  // namespace

std::optional<Command> parse_job(std::string_view text) {
  Command command;
  int day = 0;
  int repeat = 0;
  if (!take_number(text, ':', command.start.hour) ||
      !take_number(text, '|', command.start.minute) || !take_number(text, '|', day) ||
      !take_number(text, '|', repeat)) {
    return std::nullopt;
  }
  // From the end, since a folder's name may hold the separator.
  const std::size_t last = text.rfind('|');
  const std::size_t before = last == 0 ? last : text.rfind('|', last - 1);
  if (last == std::string_view::npos || before == std::string_view::npos) {
    return std::nullopt;
  }
  int action = 0;
  std::string_view rest = text.substr(before + 1);
  if (!take_number(rest, '|', action) || (rest != "true" && rest != "false")) {
    return std::nullopt;
  }
  command.day = static_cast<ConfParser::days_t>(day);
  command.repeat = static_cast<ConfParser::repeat_t>(repeat);
  command.action = static_cast<ConfParser::detect_action_t>(action);
  command.folder = text.substr(0, before);
  command.recursive = rest == "true";
  return command;
}

NextDue next_due(const Command& command, std::time_t now, const ConfParser::time_T& loaded) {
  const std::optional<ConfParser::time_T> start = first_run(command.start);
  if (!start) {
    return {std::nullopt, "never: no day has a " + clock_text(command.start)};
  }
  if (command.start < loaded) {
    return {std::nullopt, "not until the commands file is read again, at or before " +
                              clock_text(latest_load(command.start))};
  }
  if (due_now(command, *start, now, loaded)) {
    return {now, "now"};
  }
  const std::optional<std::time_t> at = next_start(*start, command.day, now);
  if (!at) {
    return {std::nullopt,
            fmt::format("never: there is no weekday {}", static_cast<int>(command.day))};
  }
  const bool period_unknown =
      command.repeat == ConfParser::MONTHLY || command.repeat == ConfParser::QUARTERLY;
  return {at, in_words(*at, now) + (period_unknown ? " at the earliest" : "")};
}
