// Reads the daemon's log file back, record by record.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "temp_directory.h"

/// The length of the record header that the text begins with; 0 when it begins with none.
inline std::size_t header_length(std::string_view text) {
  std::size_t at = 0;
  // "n" stands for a number, "d" for a digit. (std::regex takes a second to compile.)
  for (const char expected : std::string_view("\nAt n:n:n n/n/dddd\n")) {
    const std::size_t begin = at;
    const bool digits = expected == 'n' || expected == 'd';
    while (at < text.size() && (at == begin || expected == 'n') &&
           (digits ? text[at] >= '0' && text[at] <= '9' : text[at] == expected)) {
      ++at;
    }
    if (at == begin) {
      return 0;
    }
  }
  return at;
}

/// The texts of a log's records, without their headers. What stands before the first header comes
/// back as a text too, so that a log which does not begin with one never looks right. A header at
/// the very end gives no record.
inline std::vector<std::string> log_records(const std::string& log_file) {
  const std::string log = read_file(log_file);
  std::vector<std::string> records{""};
  for (std::size_t at = 0; at < log.size();) {
    const std::size_t header = header_length(std::string_view(log).substr(at));
    if (header > 0) {
      records.emplace_back();
      at += header;
    } else {
      records.back() += log[at++];
    }
  }
  if (records.back().empty()) {
    records.pop_back();
  }
  if (!records.empty() && records.front().empty()) {
    records.erase(records.begin());
  }
  return records;
}

/// How many of the records are exactly this text.
inline long count_record(const std::vector<std::string>& records, const std::string& text) {
  return std::count(records.begin(), records.end(), text);
}
