#include "printing.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

namespace {

// The bytes of the UTF-8 character that the text begins with; 0 when it begins with none, or with
// one that is longer than it need be, a surrogate, or beyond the last.
std::size_t utf8_length(std::string_view text) {
  const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const std::size_t length = byte(0) < 0x80   ? 1
                             : byte(0) < 0xc2 ? 0
                             : byte(0) < 0xe0 ? 2
                             : byte(0) < 0xf0 ? 3
                             : byte(0) < 0xf5 ? 4
                                              : 0;
  if (length == 0 || length > text.size()) {
    return 0;
  }
  for (std::size_t at = 1; at < length; ++at) {
    if ((byte(at) & 0xc0U) != 0x80) {
      return 0;
    }
  }
  const bool outside = (byte(0) == 0xe0 && byte(1) < 0xa0) || (byte(0) == 0xed && byte(1) > 0x9f) ||
                       (byte(0) == 0xf0 && byte(1) < 0x90) || (byte(0) == 0xf4 && byte(1) > 0x8f);
  return outside ? 0 : length;
}

// What a terminal obeys (C0 and C1 controls, DEL), what ends a line or turns the order of the text
// around it, and the backslash, so that the written form has one meaning.
bool harmless(std::string_view character) {
  if (character.size() == 1) {
    return character[0] >= ' ' && character[0] != 0x7f && character[0] != '\\';
  }
  const bool c1_control = character[0] == '\xc2' && character[1] < '\xa0';
  static constexpr std::string_view misleading[] = {
      "\u061c", "\u200e", "\u200f", "\u2028", "\u2029", "\u202a", "\u202b",
      "\u202c", "\u202d", "\u202e", "\u2066", "\u2067", "\u2068", "\u2069"};
  return !c1_control &&
         std::find(std::begin(misleading), std::end(misleading), character) == std::end(misleading);
}

void append_escaped(std::string& out, std::string_view bytes) {
  for (const char byte : bytes) {
    out += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
  }
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t length = utf8_length(text);
    const std::string_view piece = text.substr(0, std::max<std::size_t>(length, 1));
    if (length != 0 && harmless(piece)) {
      out += piece;
    } else {
      append_escaped(out, piece);
    }
    text.remove_prefix(piece.size());
  }
  return out;
}

bool obeys_escapes(int fd) {
  const char* terminal = std::getenv("TERM");
  const bool dumb = terminal == nullptr || std::strcmp(terminal, "dumb") == 0;
  return !dumb && isatty(fd) == 1;
}

Colours Colours::for_descriptor(int fd) {
  const char* no_colour = std::getenv("NO_COLOR");
  const bool refused = no_colour != nullptr && *no_colour != '\0';
  return Colours(!refused && obeys_escapes(fd));
}

std::string Colours::in(const char* code, const std::string& text) const {
  return on_ ? fmt::format("\x1b[{}m{}\x1b[0m", code, text) : text;
}

std::string columns(const std::vector<std::pair<std::string, std::string>>& rows) {
  std::size_t width = 0;
  for (const auto& [title, text] : rows) {
    width = std::max(width, title.size());
  }
  std::string out;
  for (const auto& [title, text] : rows) {
    out += fmt::format("{:<{}}  {}\n", title, width, text);
  }
  return out;
}

std::string grouped(std::uint64_t number) {
  std::string digits = fmt::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) {
    at -= 3;
    digits.insert(at, 1, ',');
  }
  return digits;
}

std::string counted(std::uint64_t number, const char* unit) {
  return fmt::format("{} {}{}", number, unit, number == 1 ? "" : "s");
}

std::string clock_text(const ConfParser::time_T& time) {
  return fmt::format("{:02}:{:02}", time.hour, time.minute);
}

std::string size_in_words(std::uint64_t bytes) {
  static constexpr std::array units{"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) {
    return counted(bytes, "byte");
  }
  double size = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (size >= 1024 && unit + 1 < units.size()) {
    size /= 1024;
    ++unit;
  }
  return fmt::format("{:.1f} {}", size, units[unit]);
}

std::string duration_in_words(std::time_t seconds) {
  struct Unit {
    const char* name;
    std::uint64_t seconds;
  };
  static constexpr std::array units{Unit{"day", 86400}, Unit{"hour", 3600}, Unit{"minute", 60},
                                    Unit{"second", 1}};
  const auto whole = static_cast<std::uint64_t>(std::max<std::time_t>(seconds, 0));
  const auto* greatest = std::find_if(units.begin(), units.end() - 1,
                                      [whole](const Unit& unit) { return whole >= unit.seconds; });
  std::string words = counted(whole / greatest->seconds, greatest->name);
  const std::uint64_t rest = whole % greatest->seconds;
  const auto* next = greatest + 1;
  if (next != units.end() && rest >= next->seconds) {
    words += " " + counted(rest / next->seconds, next->name);
  }
  return words;
}

std::string local_time(std::time_t at) {
  std::tm time{};
  (void)localtime_r(&at, &time);
  return fmt::format("{:%Y-%m-%d %H:%M:%S}", time);
}

std::string utc_time(std::time_t at) {
  std::tm time{};
  (void)gmtime_r(&at, &time);
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", time);
}
