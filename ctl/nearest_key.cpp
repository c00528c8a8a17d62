#include "nearest_key.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <optional>

#include "confparser.h"
#include "findings.h"
#include "letters.h"

namespace {

constexpr std::size_t longest_compared = 64;  // letters; no key is half as long
constexpr std::size_t shortest_beginning = 5;
constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
constexpr const char* ignored = "no such key, so the line is ignored";

bool begins_with(std::string_view text, std::string_view beginning) {
  return text.size() >= beginning.size() &&
         std::equal(beginning.begin(), beginning.end(), text.begin(), same_letter);
}

// How unlike a key a word is; nothing when it is another word. One that is cut short is less unlike
// than its missing letters.
std::optional<std::size_t> unlikeness(std::string_view word, std::string_view key) {
  const std::size_t distance = edit_distance(word, key);
  if (word.size() >= shortest_beginning && begins_with(key, word)) {
    return std::min<std::size_t>(distance, 2);
  }
  const std::size_t most = std::max<std::size_t>(1, std::max(word.size(), key.size()) / 3);
  return distance <= most ? std::optional(distance) : std::nullopt;
}

// "MaxThreads=8", "MaxThreads= 8", "MaxThreads =8": what should have been written.
std::string without_sign(const FileLine& line, const KeyNames& known) {
  const std::size_t sign = line.key.find('=');
  if (sign == std::string::npos) {
    return "";
  }
  const std::string_view key = nearest_key(std::string_view(line.key).substr(0, sign), known);
  if (key.empty()) {
    return "";
  }
  std::string value = line.key.substr(sign + 1) + " " + line.value;
  ConfParser::trim(value, ConfParser::whitespace);
  return fmt::format("{} {}", key, value);
}

}  // namespace

// Rows of the usual table; the one before the last is kept for swapped neighbours.
std::size_t edit_distance(std::string_view one, std::string_view other) {
  one = one.substr(0, longest_compared);
  other = other.substr(0, longest_compared);
  using Row = std::array<std::size_t, longest_compared + 1>;
  Row before{};
  Row last{};
  Row row{};
  for (std::size_t j = 0; j <= other.size(); ++j) {
    row[j] = j;
  }
  for (std::size_t i = 1; i <= one.size(); ++i) {
    before = last;
    last = row;
    row[0] = i;
    for (std::size_t j = 1; j <= other.size(); ++j) {
      const bool same = same_letter(one[i - 1], other[j - 1]);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (same ? 0 : 1)});
      if (i > 1 && j > 1 && same_letter(one[i - 1], other[j - 2]) &&
          same_letter(one[i - 2], other[j - 1])) {
        row[j] = std::min(row[j], before[j - 2] + 1);
      }
    }
  }
  return row[other.size()];
}

std::string_view nearest_key(std::string_view word, const KeyNames& known) {
  std::string_view nearest;
  std::size_t least = longest_compared;
  if (word.size() > longest_compared) {
    return nearest;
  }
  for (const std::string_view key : known) {
    const std::optional<std::size_t> distance = unlikeness(word, key);
    if (distance && *distance < least) {
      nearest = key;
      least = *distance;
    }
  }
  return nearest;
}

std::string about_unknown_key(const FileLine& line, const KeyNames& known) {
  if (line.key.starts_with(byte_order_mark)) {
    return fmt::format("{}: a byte order mark stands before it; save the file without one",
                       ignored);
  }
  if (const std::string better = without_sign(line, known); !better.empty()) {
    return fmt::format("{}; there is no \"=\": write {}", ignored, quoted(better));
  }
  const std::string_view nearest = nearest_key(line.key, known);
  if (nearest.empty()) {
    return ignored;
  }
  if (same_word(line.key, nearest)) {
    return fmt::format("{}; write \"{}\": capitals count", ignored, nearest);
  }
  return fmt::format("{}; the nearest key is \"{}\"", ignored, nearest);
}
