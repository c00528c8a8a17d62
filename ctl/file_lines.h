// The daemon's text files line by line, for saying where something stands. What it means to the
// daemon is up to ConfParser and CommandParser.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// A line that holds a setting, split as ConfParser does it.
struct FileLine {
  std::size_t number = 0;  ///< from 1
  std::string key;
  std::string value;
  bool bare = false;     ///< the key and nothing else, not even a blank before a comment
  bool touched = false;  ///< the comment begins right after other text, without a blank
};

/// The lines of a file's content that are not empty to the parser, in their order.
std::vector<FileLine> setting_lines(const std::string& content);

/// The content of a regular file of at most 16 MiB.
/// @return nothing when it cannot be had; `why` then says so and `missing` whether there is none
struct FileContent {
  std::optional<std::string> text;
  std::string why;
  bool missing = false;
};
FileContent read_settings_file(const std::string& path);
