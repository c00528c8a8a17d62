// The daemon's text files, read without waiting for anybody, and their lines as they are written.
// What a line means to the daemon is up to ConfParser and CommandParser.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// The content of a regular file of at most 16 MiB.
struct FileContent {
  std::optional<std::string> text;
  std::string why;       ///< there is no text
  bool missing = false;  ///< there is no text because there is no file
};
FileContent read_settings_file(const std::string& path);

/// Lines by their number, from 1. One that there is not is empty.
class FileLines {
 public:
  explicit FileLines(const std::string& content);

  /// Whether a comment begins right behind other text, without a blank between them.
  bool comment_touches(std::size_t line) const;

  /// Whether the line separates two commands of a commands file.
  bool separates(std::size_t line) const;

 private:
  std::string text(std::size_t line) const;

  std::vector<std::string> lines_;  ///< trimmed
};
