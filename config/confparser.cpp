#include "confparser.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <istream>
#include <iterator>
#include <stdexcept>

#include "logger.h"

namespace {

template <typename T>
struct Word {
  const char* text;
  T value;
};

constexpr Word<ConfParser::detect_action_t> action_words[] = {
    {"REPORT", ConfParser::REPORT},
    {"DISINFECT", ConfParser::DISINFECT},
    {"DELETE", ConfParser::DELETE},
};
constexpr Word<ConfParser::definition_type_t> definition_words[] = {
    {"LEGACY", ConfParser::LEGACY},
    {"V1", ConfParser::V1},
    {"V2", ConfParser::V2},
    {"V2S", ConfParser::V2S},
};
constexpr Word<ConfParser::days_t> day_words[] = {
    {"SUN", ConfParser::SUN}, {"MON", ConfParser::MON}, {"TUE", ConfParser::TUE},
    {"WED", ConfParser::WED}, {"THU", ConfParser::THU}, {"FRI", ConfParser::FRI},
    {"SAT", ConfParser::SAT},
};
constexpr Word<ConfParser::repeat_t> repeat_words[] = {
    {"NO", ConfParser::NO},
    {"DAILY", ConfParser::DAILY},
    {"WEEKLY", ConfParser::WEEKLY},
    {"MONTHLY", ConfParser::MONTHLY},
    {"QUARTERLY", ConfParser::QUARTERLY},
};

// ASCII only, whatever the locale: the words are ours.
std::string upper_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return text;
}

[[noreturn]] void reject() {
  throw std::invalid_argument("");
}

template <typename T, std::size_t N>
T find_word(const Word<T> (&words)[N], const std::string& text) {
  const std::string wanted = upper_case(text);
  for (const Word<T>& word : words) {
    if (wanted == word.text) {
      return word.value;
    }
  }
  reject();
}

template <typename T, std::size_t N>
const char* first_word(const Word<T> (&words)[N], T value) {
  const auto* const found =
      std::find_if(std::begin(words), std::end(words),
                   [value](const Word<T>& word) { return word.value == value; });
  return found == std::end(words) ? "?" : found->text;
}

// The number of the whole text, as one of the strtol family reads it.
template <typename Number>
Number whole_number(const std::string& text, Number (*read)(const char*, char**, int)) {
  char* end = nullptr;
  const Number number = read(text.c_str(), &end, 10);
  if (end != text.c_str() + text.size()) {
    reject();
  }
  return number;
}

void log_missing(const std::string& key) {
  Logger::append(1, "get ConfParser::get(): " + key + " does not exist in the config\n");
}

}  // namespace

ConfParser::time_T::time_T(std::time_t t) {
  std::tm local{};
  if (localtime_r(&t, &local) != nullptr) {
    hour = local.tm_hour;
    minute = local.tm_min;
  }
}

bool ConfParser::time_T::operator<(const time_T& other) const {
  return hour != other.hour ? hour < other.hour : minute < other.minute;
}

void ConfParser::parse(const std::string& file_name) {
  std::ifstream file(file_name);
  if (file) {
    parse(file);
  }
}

void ConfParser::parse(std::istream& input) {
  std::string line;
  std::pair<std::string, std::string> setting;
  while (std::getline(input, line)) {
    trim(line, whitespace);
    erase_comment(line);
    if (!line.empty()) {
      parse_line(line, setting);
      values_.insert(setting);
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

const std::string* ConfParser::peek(const std::string& key) const {
  const auto found = values_.lower_bound(key);
  return found == values_.end() || found->first != key ? nullptr : &found->second;
}

bool ConfParser::has_key_besides(const std::string& key) const {
  return values_.size() > values_.count(key);
}

bool ConfParser::get(const std::string& key, std::string& out) const {
  const std::string* value = peek(key);
  if (value == nullptr) {
    log_missing(key);
    return false;
  }
  if (values_.count(key) > 1) {
    Logger::append(
        1, "get ConfParser::get(): multiple values exist in the config. First value used\n");
  }
  out = *value;
  return true;
}

template <typename T>
bool ConfParser::get_converted(const std::string& key, T& out, T (*convert)(const std::string&),
                               std::string* text) const {
  if (!get(key, *text)) {
    log_missing(key);
    return false;
  }
  try {
    out = convert(*text);
    return true;
  } catch (const std::exception& error) {
    Logger::append(1, std::string("get ConfParser::get(): Exception: ") + error.what() + "\n");
    return false;
  }
}

bool ConfParser::get(const std::string& key, bool& out) const {
  std::string text;
  const bool written = get_converted(key, out, &ConfParser::ToBool, &text);
  if (written) {
    Logger::append(2, "get ConfParser::get(): " + key + " = " + text + "\n");
  }
  return written;
}

bool ConfParser::get(const std::string& key, definition_type_t& out) const {
  std::string text;
  const bool written = get_converted(key, out, &ConfParser::ToDefinitionType, &text);
  if (written) {
    Logger::append(1, "get ConfParser::get(): " + text + "\n");
  }
  return written;
}

bool ConfParser::get(const std::string& key, int& out) const {
  std::string text;
  return get_converted(key, out, &ConfParser::ToInt, &text);
}

bool ConfParser::get(const std::string& key, unsigned long long& out) const {
  std::string text;
  return get_converted(key, out, &ConfParser::ToULongLong, &text);
}

bool ConfParser::get(const std::string& key, detect_action_t& out) const {
  std::string text;
  return get_converted(key, out, &ConfParser::ToActionType, &text);
}

bool ConfParser::get(const std::string& key, days_t& out) const {
  std::string text;
  return get_converted(key, out, &ConfParser::ToDaysType, &text);
}

bool ConfParser::get(const std::string& key, repeat_t& out) const {
  std::string text;
  return get_converted(key, out, &ConfParser::ToRepeatType, &text);
}

bool ConfParser::get(const std::string& key, time_T& out) const {
  std::string text;
  return get_converted(key, out, &ConfParser::ToTime, &text);
}

bool ConfParser::get(const std::string& key, std::list<std::string>& out) const {
  const auto [first, last] = values_.equal_range(key);
  if (first == last) {
    Logger::append(1, "get \n");
    return false;
  }
  for (auto entry = first; entry != last; ++entry) {
    out.push_back(entry->second);
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
  return find_word(action_words, text);
}

ConfParser::definition_type_t ConfParser::ToDefinitionType(const std::string& text) {
  return find_word(definition_words, text);
}

ConfParser::days_t ConfParser::ToDaysType(const std::string& text) {
  return find_word(day_words, text);
}

ConfParser::repeat_t ConfParser::ToRepeatType(const std::string& text) {
  return find_word(repeat_words, text);
}

ConfParser::time_T ConfParser::ToTime(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) {
    reject();
  }
  return {ToInt(text.substr(0, colon)), ToInt(text.substr(colon + 1))};
}

const char* ConfParser::word(detect_action_t value) {
  return first_word(action_words, value);
}

const char* ConfParser::word(definition_type_t value) {
  return first_word(definition_words, value);
}

const char* ConfParser::word(days_t value) {
  return first_word(day_words, value);
}

const char* ConfParser::word(repeat_t value) {
  return first_word(repeat_words, value);
}
