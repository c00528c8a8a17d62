#include "confparser.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <istream>
#include <stdexcept>
#include <tuple>
#include <type_traits>

#include "logger.h"

namespace {

// ASCII only, whatever the locale: the words are ours.
std::string upper_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return text;
}

template <typename T>
T find_word(std::span<const char* const> words, const std::string& text) {
  const auto found = std::find(words.begin(), words.end(), upper_case(text));
  if (found == words.end()) {
    throw std::invalid_argument("");
  }
  return static_cast<T>(found - words.begin());
}

// The number of the whole text, as one of the strtol family reads it.
template <typename Number>
Number whole_number(const std::string& text, Number (*read)(const char*, char**, int)) {
  char* end = nullptr;
  const Number number = read(text.c_str(), &end, 10);
  if (end != text.c_str() + text.size()) {
    throw std::invalid_argument("");
  }
  return number;
}

// One for each type of value.
constexpr std::tuple conversions{&ConfParser::ToBool,           &ConfParser::ToInt,
                                 &ConfParser::ToULongLong,      &ConfParser::ToActionType,
                                 &ConfParser::ToDefinitionType, &ConfParser::ToDaysType,
                                 &ConfParser::ToRepeatType,     &ConfParser::ToTime};

std::string missing(const std::string& key) {
  return "ConfParser::get(): " + key + " does not exist in the config";
}

}  // namespace

ConfParser::time_T::time_T(std::time_t t) {
  std::tm local{};
  (void)localtime_r(&t, &local);
  hour = local.tm_hour;
  minute = local.tm_min;
}

void ConfParser::parse(const std::string& file_name) {
  std::ifstream file(file_name);
  parse(file);
}

void ConfParser::parse(std::istream& input, std::size_t first_line) {
  std::pair<std::string, std::string> setting;
  std::string line;
  for (std::size_t number = first_line; std::getline(input, line); ++number) {
    trim(line, whitespace);
    erase_comment(line);
    if (!line.empty()) {
      parse_line(line, setting);
      values_.insert({setting.first, {setting.second, number}});
    }
  }
}

void ConfParser::parse_line(const std::string& line, std::pair<std::string, std::string>& out) {
  const std::size_t end_of_key = line.find_first_of(whitespace);
  out.first = line.substr(0, end_of_key);
  out.second = end_of_key == std::string::npos ? std::string() : line.substr(end_of_key);
  trim(out.second, whitespace);
}

void ConfParser::trim(std::string& text, const char* characters) {
  text.erase(0, std::min(text.find_first_not_of(characters), text.size()));
  text.erase(text.find_last_not_of(characters) + 1);
}

void ConfParser::erase_comment(std::string& text) {
  text.erase(std::min(text.find('#'), text.size()));
}

const ConfParser::Value* ConfParser::peek(const std::string& key) const {
  const auto [first, last] = values_.equal_range(key);
  return first == last ? nullptr : &first->second;
}

bool ConfParser::get(const std::string& key, std::string& out) const {
  const Value* value = peek(key);
  if (value == nullptr) {
    Logger::log(1, __func__, missing(key));
    return false;
  }
  if (values_.count(key) > 1) {
    Logger::log(1, __func__,
                "ConfParser::get(): multiple values exist in the config. First value used");
  }
  out = value->text;
  return true;
}

template <typename T>
bool ConfParser::get(const std::string& key, T& out) const {
  std::string text;
  if (!get(key, text)) {
    Logger::log(1, __func__, missing(key));
    return false;
  }
  try {
    out = std::get<T (*)(const std::string&)>(conversions)(text);
  } catch (const std::exception& error) {
    Logger::log(1, __func__, std::string("ConfParser::get(): Exception: ") + error.what());
    return false;
  }
  if constexpr (std::is_same_v<T, bool>) {
    Logger::log(2, __func__, "ConfParser::get(): " + key + " = " + text);
  } else if constexpr (std::is_same_v<T, definition_type_t>) {
    Logger::log(1, __func__, "ConfParser::get(): " + text);
  }
  return true;
}

template bool ConfParser::get(const std::string& key, bool& out) const;
template bool ConfParser::get(const std::string& key, int& out) const;
template bool ConfParser::get(const std::string& key, unsigned long long& out) const;
template bool ConfParser::get(const std::string& key, detect_action_t& out) const;
template bool ConfParser::get(const std::string& key, definition_type_t& out) const;
template bool ConfParser::get(const std::string& key, days_t& out) const;
template bool ConfParser::get(const std::string& key, repeat_t& out) const;
template bool ConfParser::get(const std::string& key, time_T& out) const;

bool ConfParser::get(const std::string& key, std::list<std::string>& out) const {
  const auto [first, last] = values_.equal_range(key);
  if (first == last) {
    Logger::log(1, __func__, "");
    return false;
  }
  for (auto entry = first; entry != last; ++entry) {
    out.push_back(entry->second.text);
  }
  return true;
}

bool ConfParser::ToBool(const std::string& text) {
  return upper_case(text) == "YES" || text == "1";
}

int ConfParser::ToInt(const std::string& text) {
  return static_cast<int>(std::clamp<long>(whole_number(text, &std::strtol), INT_MIN, INT_MAX));
}

unsigned long long ConfParser::ToULongLong(const std::string& text) {
  return whole_number(text, &std::strtoull);
}

ConfParser::detect_action_t ConfParser::ToActionType(const std::string& text) {
  return find_word<detect_action_t>(action_words, text);
}

ConfParser::definition_type_t ConfParser::ToDefinitionType(const std::string& text) {
  return upper_case(text) == "V1" ? V1 : find_word<definition_type_t>(definition_words, text);
}

ConfParser::days_t ConfParser::ToDaysType(const std::string& text) {
  return find_word<days_t>(day_words, text);
}

ConfParser::repeat_t ConfParser::ToRepeatType(const std::string& text) {
  return find_word<repeat_t>(repeat_words, text);
}

ConfParser::time_T ConfParser::ToTime(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) {
    throw std::invalid_argument("");
  }
  return {ToInt(text.substr(0, colon)), ToInt(text.substr(colon + 1))};
}

// Whoever writes to the status area chooses the value.
const char* ConfParser::word_at(std::span<const char* const> words, int value) {
  const auto index = static_cast<std::size_t>(value);
  return index < words.size() ? words[index] : "?";
}
