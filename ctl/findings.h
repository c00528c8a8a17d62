// What a check of the daemon's files reports.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// One thing the daemon would do without a word. A value. The texts hold names as the files have
/// them, any byte included, but cut: they are made printable where they are printed.
struct Finding {
  std::string file;
  std::size_t line = 0;  ///< from 1; 0 is the file as a whole
  std::string key;       ///< what it is about, as the file has it; may be empty
  std::string text;      ///< what the daemon does, and what to write instead
};

using Findings = std::vector<Finding>;

/// How much of a name is shown, in bytes.
inline constexpr std::size_t longest_shown = 120;

/// The text, or its beginning and "..." when it is longer than `longest_shown`.
std::string cut(std::string_view text);

/// The cut text in quotation marks.
std::string quote(std::string_view text);

/// Collects what is found in one file.
class FileReport {
 public:
  /// @param file must outlive the report
  explicit FileReport(const std::string& file) : file_(file) {}

  void add(std::size_t line, std::string_view key, std::string text);

  /// Everything added, by line; of very many only those added first, and how many more there are.
  Findings take();

 private:
  const std::string& file_;
  Findings findings_;
  std::size_t more_ = 0;  ///< that are not kept
};
