#include "value_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "findings.h"
#include "letters.h"
#include "printing.h"

namespace {

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
      value.empty() ? "has no value" : quote(value) + " is no " + std::string(what);
  return {.applied = false,
          .complaint = fmt::format("{}, so {} is used", is_none, used),
          .instead = std::string(instead)};
}

Reading changed(const std::string& value, std::string_view read_as, const char* instead = "") {
  const std::string reads = value.empty() ? "has no value, which reads" : quote(value) + " reads";
  return {
      .applied = true, .complaint = fmt::format("{} as {}", reads, read_as), .instead = instead};
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

Reading number_reading(const std::string& value, bool converted, bool as_written,
                       std::string_view used) {
  if (!converted) {
    return rejected(value, "whole number", used, "digits only");
  }
  if (value.empty()) {
    return changed(value, "0");
  }
  return as_written ? Reading{} : changed(value, used);
}

}  // namespace

Reading reading_of(const std::string& value, int used) {
  return number_reading(value, converts(&ConfParser::ToInt, value),
                        std::strtoll(value.c_str(), nullptr, 10) == used, std::to_string(used));
}

Reading reading_of(const std::string& value, std::uint64_t used) {
  const std::uint64_t mebibytes = used >> 20;
  return number_reading(value, converts(&ConfParser::ToULongLong, value),
                        std::strtoull(value.c_str(), nullptr, 10) == mebibytes,
                        fmt::format("{} MiB", mebibytes));
}

// A word for "no" is read as what it seems.
Reading reading_of(const std::string& value, bool used) {
  if (used || is_one_of(value, {"no", "0", "false", "off", "n", "disabled"})) {
    return {};
  }
  return changed(value, "no", "yes or no");
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
  return value.starts_with(':') ? changed(value, clock_text(used), "hour:minute") : Reading{};
}
