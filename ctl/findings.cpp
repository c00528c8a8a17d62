#include "findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t most_findings = 1000;

bool continues_a_character(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80;
}

}  // namespace

// Not within a character of UTF-8, unless it is none.
std::string cut(std::string_view text) {
  if (text.size() <= longest_shown) {
    return std::string(text);
  }
  std::size_t length = longest_shown;
  while (length > longest_shown - 4 && continues_a_character(text[length])) {
    --length;
  }
  return std::string(text.substr(0, length)) + "...";
}

std::string quote(std::string_view text) {
  return '"' + cut(text) + '"';
}

void FileReport::add(std::size_t line, std::string_view key, std::string text) {
  if (findings_.size() < most_findings) {
    findings_.push_back({file_, line, cut(key), std::move(text)});
  } else {
    ++more_;
  }
}

Findings FileReport::take() {
  if (more_ > 0) {
    findings_.push_back({file_, 0, "", fmt::format("{} more findings are not shown", more_)});
  }
  std::stable_sort(findings_.begin(), findings_.end(),
                   [](const Finding& one, const Finding& other) { return one.line < other.line; });
  return std::move(findings_);
}
