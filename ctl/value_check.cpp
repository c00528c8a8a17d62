#include "value_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "findings.h"
#include "letters.h"
#include "printing.h"

namespace {

constexpr unsigned long long most_mebibytes = ~0ULL >> 20;

template <typename T>
bool converts(T (*convert)(const std::string&), const std::string& value) {
  try {
    (void)convert(value);
    return true;
  } catch (const std::invalid_argument&) {
    return false;
  }
}

// `what` the value is not, and what is used in its place.
Reading rejected(const std::string& value, std::string_view what, std::string_view used,
                 std::string_view instead) {
  const std::string is_none =
      value.empty() ? "has no value" : quoted(value) + " is no " + std::string(what);
  return {.applied = false,
          .complaint = fmt::format("{}, so {} is used", is_none, used),
          .instead = std::string(instead)};
}

Reading changed(const std::string& value, std::string_view read_as) {
  const std::string reads = value.empty() ? "has no value, which reads" : quoted(value) + " reads";
  return {.applied = true, .complaint = fmt::format("{} as {}", reads, read_as), .instead = ""};
}

bool is_one_of(const std::string& value, std::initializer_list<std::string_view> words) {
  return std::any_of(words.begin(), words.end(),
                     [&](std::string_view word) { return same_word(value, word); });
}

template <typename T>
Reading word_reading(const std::string& value, T (*convert)(const std::string&),
                     std::string_view what, T used, std::string_view instead) {
  return converts(convert, value) ? Reading{}
                                  : rejected(value, what, ConfParser::word(used), instead);
}

bool beyond_int(const std::string& value) {
  errno = 0;
  const long long number = std::strtoll(value.c_str(), nullptr, 10);
  return errno == ERANGE || number < INT_MIN || number > INT_MAX;
}

// Also what strtoull makes of a negative number.
bool beyond_mebibytes(const std::string& value) {
  errno = 0;
  const unsigned long long number = std::strtoull(value.c_str(), nullptr, 10);
  return errno == ERANGE || number > most_mebibytes || value.find('-') != std::string::npos;
}

}  // namespace

Reading reading_of(const std::string& value, int used) {
  if (!converts(&ConfParser::ToInt, value)) {
    return rejected(value, "whole number", std::to_string(used), "digits only");
  }
  if (value.empty()) {
    return changed(value, "0");
  }
  return beyond_int(value) ? changed(value, std::to_string(used)) : Reading{};
}

// The words for no are what they seem.
Reading reading_of(const std::string& value, bool used) {
  if (used || is_one_of(value, {"no", "0", "false", "off", "n", "disabled"})) {
    return {};
  }
  Reading reading = changed(value, "no");
  reading.instead = "yes or no";
  return reading;
}

Reading reading_of(const std::string& value, std::uint64_t used) {
  if (!converts(&ConfParser::ToULongLong, value)) {
    return rejected(value, "whole number", fmt::format("{} MiB", used >> 20), "digits only");
  }
  if (value.empty()) {
    return changed(value, "0");
  }
  return beyond_mebibytes(value) ? changed(value, fmt::format("{} MiB", used >> 20)) : Reading{};
}

Reading reading_of(const std::string& value, ConfParser::detect_action_t used) {
  return word_reading(value, &ConfParser::ToActionType, "action", used,
                      "REPORT, DISINFECT or DELETE");
}

Reading reading_of(const std::string& value, ConfParser::definition_type_t used) {
  return word_reading(value, &ConfParser::ToDefinitionType, "family of definitions", used,
                      "LEGACY, V1, V2 or V2S");
}

Reading reading_of(const std::string& value, ConfParser::days_t used) {
  return word_reading(value, &ConfParser::ToDaysType, "day", used, "one of SUN to SAT");
}

Reading reading_of(const std::string& value, ConfParser::repeat_t used) {
  return word_reading(value, &ConfParser::ToRepeatType, "period", used,
                      "NO, DAILY, WEEKLY, MONTHLY or QUARTERLY");
}

// Without a minute it is what it seems.
Reading reading_of(const std::string& value, ConfParser::time_T used) {
  if (!converts(&ConfParser::ToTime, value)) {
    return rejected(value, "time of day", clock_text(used), "hour:minute");
  }
  if (!value.starts_with(':')) {
    return {};
  }
  Reading reading = changed(value, clock_text(used));
  reading.instead = "hour:minute";
  return reading;
}

Reading reading_of(const std::string&, const std::string&) {
  return {};
}

Reading reading_of(const std::string&, const std::list<std::string>&) {
  return {};
}
