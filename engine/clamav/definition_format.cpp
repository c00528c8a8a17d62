// SPDX-License-Identifier: GPL-2.0-only
#include "definition_format.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace clamav_engine {
namespace {

constexpr std::string_view kContainerMark = "ClamAV-VDB:";
constexpr std::size_t kLooked = 65536;
constexpr std::string_view kBlanks = " \t\r\n\f\v";

std::string first_bytes(int fd) {
  std::string text(kLooked, '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t count =
        pread(fd, text.data() + size, text.size() - size, static_cast<off_t>(size));
    if (count == 0 || (count < 0 && errno != EINTR)) {
      break;
    }
    size += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  text.resize(size);
  return text;
}

/// Takes everything up to and including `end` off `text`; all of it when there is no `end`.
void drop_through(std::string_view end, std::string_view& text) {
  const std::size_t at = text.find(end);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + end.size());
}

/// The first line that is neither empty nor a comment: "#" in signatures, "//" and "/*" in rules.
std::string_view first_line(std::string_view text) {
  for (;;) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    if (text.starts_with('#') || text.starts_with("//")) {
      drop_through("\n", text);
    } else if (text.starts_with("/*")) {
      drop_through("*/", text);
    } else {
      break;
    }
  }
  const std::string_view line = text.substr(0, text.find('\n'));
  return line.substr(0, line.find_last_not_of(kBlanks) + 1);
}

std::vector<std::string_view> split(std::string_view line, char separator) {
  std::vector<std::string_view> fields;
  for (;;) {
    const std::size_t end = line.find(separator);
    fields.push_back(line.substr(0, end));
    if (end == std::string_view::npos) {
      return fields;
    }
    line.remove_prefix(end + 1);
  }
}

bool is_number(std::string_view field) {
  return !field.empty() && std::all_of(field.begin(), field.end(),
                                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

bool is_number_or_any(std::string_view field) {
  return field == "*" || is_number(field);
}

bool is_hex(std::string_view field) {
  return std::all_of(field.begin(), field.end(),
                     [](unsigned char c) { return std::isxdigit(c) != 0; });
}

bool is_md5(std::string_view field) {
  return field.size() == 32 && is_hex(field);
}

bool is_sha(std::string_view field) {
  return (field.size() == 40 || field.size() == 64) && is_hex(field);
}

bool is_rule(std::string_view line) {
  constexpr std::array<std::string_view, 5> kWords = {"rule", "private", "global", "import",
                                                      "include"};
  const std::string_view word = line.substr(0, line.find_first_of(" \t\""));
  return word.size() < line.size() && std::find(kWords.begin(), kWords.end(), word) != kWords.end();
}

// Name;Engine:51-255,Target:0;0&1;hex;hex
bool is_logical(std::string_view line) {
  const std::vector<std::string_view> fields = split(line, ';');
  return fields.size() >= 4 && fields[1].find("Target:") != std::string_view::npos;
}

// hash:size:name of whole files, size:hash:name of sections of programs.
const char* hash_ending(const std::vector<std::string_view>& fields) {
  if (is_number_or_any(fields[1])) {
    return is_md5(fields[0]) ? ".hdb" : is_sha(fields[0]) ? ".hsb" : nullptr;
  }
  if (is_number_or_any(fields[0])) {
    return is_md5(fields[1]) ? ".mdb" : is_sha(fields[1]) ? ".msb" : nullptr;
  }
  return nullptr;
}

const char* text_ending(std::string_view line) {
  if (is_rule(line)) {
    return ".yar";
  }
  if (is_logical(line)) {
    return ".ldb";
  }
  const std::vector<std::string_view> fields = split(line, ':');
  if (fields.size() < 3) {
    return nullptr;
  }
  if (const char* ending = hash_ending(fields)) {
    return ending;
  }
  // Name:target:offset:hex
  return fields.size() >= 4 && is_number_or_any(fields[1]) ? ".ndb" : nullptr;
}

}  // namespace

const char* database_ending(int fd) {
  const std::string text = first_bytes(fd);
  return text.starts_with(kContainerMark) ? ".cvd" : text_ending(first_line(text));
}

}  // namespace clamav_engine
