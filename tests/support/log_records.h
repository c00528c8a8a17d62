// Reads the daemon's log file back, record by record.
#pragma once

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "temp_directory.h"

/// The texts of a log's records, without their headers. What stands before the first header comes
/// back as a text too, so that a log which does not begin with one never looks right.
inline std::vector<std::string> log_records(const std::string& log_file) {
  static const std::regex header("\nAt [0-9]+:[0-9]+:[0-9]+ [0-9]+/[0-9]+/[0-9]{4}\n");
  const std::string log = read_file(log_file);
  std::vector<std::string> records(std::sregex_token_iterator(log.begin(), log.end(), header, -1),
                                   std::sregex_token_iterator());
  if (!records.empty() && records.front().empty()) {
    records.erase(records.begin());
  }
  return records;
}

/// How many of the records are exactly this text.
inline long count_record(const std::vector<std::string>& records, const std::string& text) {
  return std::count(records.begin(), records.end(), text);
}
