// SPDX-License-Identifier: GPL-2.0-only
#include "definition_format.h"

#include <regex.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace clamav_engine {
namespace {

constexpr std::string_view container_mark = "ClamAV-VDB:";
constexpr std::size_t looked_at = 65536;
constexpr std::string_view blanks = " \t\r\n\f\v";

/// What the first signature of a database begins with; the first row that matches decides.
struct TextFormat {
  const char* beginning;
  const char* ending;
};
constexpr TextFormat text_formats[] = {
    {"^(rule|private|global|import|include)[ \t\"]", ".yar"},
    {"^[^;]*;[^;]*Target:[^;]*;[^;]*;", ".ldb"},  // name;Target:0;0&1;hex;hex
    {"^[[:xdigit:]]{32}:([*]|[0-9]+):", ".hdb"},  // hash:size:name, of a file
    {"^([[:xdigit:]]{40}|[[:xdigit:]]{64}):([*]|[0-9]+):", ".hsb"},
    {"^([*]|[0-9]+):[[:xdigit:]]{32}:", ".mdb"},  // size:hash:name, of a program's section
    {"^([*]|[0-9]+):([[:xdigit:]]{40}|[[:xdigit:]]{64}):", ".msb"},
    {"^[^:]*:([*]|[0-9]+):[^:]*:", ".ndb"},  // name:target:offset:hex
};

std::string first_bytes(int fd) {
  std::string text(looked_at, '\0');
  const ssize_t count = pread(fd, text.data(), text.size(), 0);
  text.resize(static_cast<std::size_t>(std::max(count, ssize_t{0})));
  return text;
}

/// Takes everything up to and including `end` off `text`; all of it when there is no `end`.
void drop_through(std::string_view end, std::string_view& text) {
  const std::size_t at = text.find(end);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + end.size());
}

/// The first line that is neither empty nor a comment: "#" in signatures, "//" and "/*" in rules.
std::string first_line(std::string_view text) {
  for (;;) {
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    if (text.starts_with('#') || text.starts_with("//")) {
      drop_through("\n", text);
    } else if (text.starts_with("/*")) {
      drop_through("*/", text);
    } else {
      return std::string(text.substr(0, text.find('\n')));
    }
  }
}

bool matches(const std::string& line, const char* expression) {
  regex_t compiled;
  if (regcomp(&compiled, expression, REG_EXTENDED | REG_NOSUB) != 0) {
    return false;
  }
  const bool matched = regexec(&compiled, line.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return matched;
}

}  // namespace

const char* database_ending(int fd) {
  const std::string text = first_bytes(fd);
  if (text.starts_with(container_mark)) {
    return ".cvd";
  }
  const std::string line = first_line(text);
  const auto* const format =
      std::find_if(std::begin(text_formats), std::end(text_formats),
                   [&](const TextFormat& row) { return matches(line, row.beginning); });
  return format == std::end(text_formats) ? nullptr : format->ending;
}

}  // namespace clamav_engine
