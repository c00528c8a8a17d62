// What holds for the lines of a configuration file and for those of a block of a commands file
// alike: keys, and values that are not what they seem.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "file_lines.h"
#include "findings.h"
#include "nearest_key.h"
#include "value_check.h"

/// The key whose values are shown to nobody.
inline constexpr std::string_view secret_key = "CloudAccessKey";

/// The lines of each known key, in their order. Points into the lines it is made of.
class LinesByKey {
 public:
  LinesByKey(const std::vector<FileLine>& lines, const KeyNames& known);

  /// Those of one key; none when there is none.
  const std::vector<const FileLine*>& of(std::string_view key) const;

  /// The one that counts; null when there is none.
  const FileLine* first(std::string_view key) const;

 private:
  std::map<std::string_view, std::vector<const FileLine*>> lines_;
};

/// Collects what is found in one file.
class Report {
 public:
  /// @param file must outlive the report
  explicit Report(const std::string& file) : file_(file) {}

  void add(std::size_t line, std::string_view key, std::string text);
  void add(const FileLine& line, std::string text) { add(line.number, line.key, std::move(text)); }

  /// Everything added, by line; of very many only those added first, and how many more there are.
  Findings take();

 private:
  const std::string& file_;
  Findings findings_;
  std::size_t more_ = 0;  ///< that are not kept
};

void report_unknown(const FileLine& line, const KeyNames& known, Report& report);

/// Lines after the first, of a key that has one value.
void report_repeated(const std::vector<const FileLine*>& lines, Report& report);

/// A text that ends where a comment begins, without a blank between them.
void report_cut_text(const FileLine& line, Report& report);

/// A value that does not read as what it looks like.
void report_reading(const FileLine& line, const Reading& reading, Report& report);

/// The names of a record's keys: Record has keys(), of things with a `name` and a `field`.
template <typename Record>
KeyNames key_names() {
  KeyNames names;
  for (const auto& key : Record::keys()) {
    names.emplace_back(key.name);
  }
  return names;
}

/// Whether the values of a field are texts, and whether it takes more than one.
template <typename Record, typename T>
constexpr bool is_text(T Record::*) {
  return std::is_same_v<T, std::string> || std::is_same_v<T, std::list<std::string>>;
}
template <typename Record, typename T>
constexpr bool is_list(T Record::*) {
  return std::is_same_v<T, std::list<std::string>>;
}

/// Reports what is odd about the known keys of a record.
/// @param record as the daemon has it after reading the lines
template <typename Record>
void check_record(const Record& record, const LinesByKey& lines, Report& report) {
  for (const auto& key : Record::keys()) {
    const std::vector<const FileLine*>& found = lines.of(key.name);
    std::visit(
        [&](auto field) {
          if (found.empty()) {
            return;
          }
          if (is_list(field)) {
            for (const FileLine* line : found) {
              report_cut_text(*line, report);
            }
            return;
          }
          report_repeated(found, report);
          report_reading(*found.front(), reading_of(found.front()->value, record.*field), report);
          if (is_text(field)) {
            report_cut_text(*found.front(), report);
          }
        },
        key.field);
  }
}
