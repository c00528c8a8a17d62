// What holds for the lines of a configuration file and for those of a block of a commands file
// alike: keys, and values that are not what they seem.
#pragma once

#include <list>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "confparser.h"
#include "findings.h"
#include "letters.h"
#include "settings_file.h"
#include "value_check.h"

/// The key whose values are shown to nobody.
inline constexpr std::string_view secret_key = "CloudAccessKey";

/// The line of the first value of a key; `otherwise` without one.
std::size_t line_of(const ConfParser& settings, const char* key, std::size_t otherwise);

/// A line whose key is none of the known ones.
void report_unknown(const ConfParser::Values::value_type& setting,
                    const std::vector<std::string_view>& known, FileReport& report);

/// A value that does not read as what it looks like.
void report_reading(const ConfParser::Values::value_type& setting, const Reading& reading,
                    FileReport& report);

/// A text that ends where a comment begins, without a blank between them.
void report_cut_text(const ConfParser::Values::value_type& setting, const FileLines& lines,
                     FileReport& report);

/// Reports what is odd about the known keys of a record: Record has keys(), of things with a `name`
/// and a `field`.
/// @param record as the daemon has it after reading the settings
/// @param lines of the file
template <typename Record>
void check_record(const Record& record, const ConfParser& settings, const FileLines& lines,
                  FileReport& report) {
  const auto check = [&](const char* key, auto field) {
    using Type = std::decay_t<decltype(record.*field)>;
    constexpr bool is_list = std::is_same_v<Type, std::list<std::string>>;
    const auto [first, last] = settings.values().equal_range(key);
    for (auto setting = first; setting != last; ++setting) {
      if (!is_list && setting != first) {
        report.add(
            setting->second.line, key,
            "ignored: only the first value counts, of line " + std::to_string(first->second.line));
        continue;
      }
      if constexpr (!is_list) {
        report_reading(*setting, reading_of(setting->second.text, record.*field), report);
      }
      if constexpr (is_list || std::is_same_v<Type, std::string>) {
        report_cut_text(*setting, lines, report);
      }
    }
  };
  for (const auto& key : Record::keys()) {
    std::visit([&](auto field) { check(key.name, field); }, key.field);
  }
}

/// Reports the keys that the record does not have.
/// @param other one that is not reported either, in any capitals
template <typename Record>
void check_unknown(const ConfParser& settings, std::string_view other, FileReport& report) {
  std::vector<std::string_view> known;
  for (const auto& key : Record::keys()) {
    known.emplace_back(key.name);
  }
  for (const auto& setting : settings.values()) {
    if (!same_word(setting.first, other)) {
      report_unknown(setting, known, report);
    }
  }
}
