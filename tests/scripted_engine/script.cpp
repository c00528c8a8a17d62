#include "script.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "record.h"

namespace scripted {
namespace {

using Words = std::vector<std::string>;

/// Splits at blanks; a value in double quotes right after '=' may hold blanks.
Words split(std::string_view line) {
  Words words = {""};
  bool in_quotes = false;
  for (const char byte : line) {
    if (byte == '"' && (in_quotes || words.back().ends_with('='))) {
      in_quotes = !in_quotes;
    } else if (!in_quotes && (byte == ' ' || byte == '\t' || byte == '\r')) {
      words.emplace_back();
    } else {
      words.back() += byte;
    }
  }
  std::erase(words, "");
  return words;
}

/// A whole unsigned number, decimal or with 0x.
std::optional<uint64_t> number(const std::string& word) {
  char* end = nullptr;
  const uint64_t value = std::strtoull(word.c_str(), &end, 0);
  if (word.empty() || *end != '\0') {
    return std::nullopt;
  }
  return value;
}

/// "7" means the seventh call, "7+" the seventh and all later ones.
bool read_count(std::string word, Rule& rule) {
  const bool open_ended = !word.empty() && word.back() == '+';
  if (open_ended) {
    word.pop_back();
  }
  const auto count = number(word);
  if (!count || *count == 0) {
    return false;
  }
  rule.first = *count;
  rule.last = open_ended ? UINT64_MAX : *count;
  return true;
}

/// "vseInit", "vseSet:4", "vseExec:14".
bool read_call(const std::string& word, Rule& rule) {
  const auto colon = word.find(':');
  rule.call = word.substr(0, colon);
  if (colon == std::string::npos) {
    return true;
  }
  const auto id = number(word.substr(colon + 1));
  rule.id = static_cast<unsigned>(id.value_or(0));
  return id.has_value();
}

/// The last word of a rule or a directive: a number, or which file.
bool read_argument(const std::string& word, Action& action) {
  if (action.kind == Action::Kind::wait || action.kind == Action::Kind::open) {
    action.path = word;
    return word.front() == '/';
  }
  char* end = nullptr;
  action.number = static_cast<int>(std::strtol(word.c_str(), &end, 0));
  return *end == '\0';
}

// The tables are never destroyed: an engine that exits leaves other threads at them.

/// VERB CALL[:SELECTOR] [COUNT] [ARGUMENT]
bool read_rule(const Words& words, Script& script) {
  static const auto& verbs = *new const std::map<std::string, Action::Kind>{
      {"fail", Action::Kind::fail}, {"wait", Action::Kind::wait}, {"open", Action::Kind::open}};
  const auto verb = verbs.find(words[0]);
  Rule rule;
  if (verb == verbs.end() || words.size() < 2 || !read_call(words[1], rule)) {
    return false;
  }
  rule.action.kind = verb->second;
  const size_t arguments = rule.action.kind == Action::Kind::fail ? 0 : 1;
  if (words.size() < 2 + arguments || words.size() > 3 + arguments) {
    return false;
  }
  if (words.size() == 3 + arguments && !read_count(words[2], rule)) {
    return false;
  }
  if (arguments != 0 && !read_argument(words.back(), rule.action)) {
    return false;
  }
  script.rules.push_back(std::move(rule));
  return true;
}

bool read_script_line(const Words& words, Script& script) {
  if (words[0] == "handle-base" && words.size() == 2) {
    const auto base = number(words[1]);
    script.handle_base = static_cast<uintptr_t>(base.value_or(0));
    return base.has_value();
  }
  if (words[0] == "value" && words.size() == 3) {
    const auto property = number(words[1]);
    script.values[static_cast<unsigned>(property.value_or(0))] = words[2];
    return property.has_value();
  }
  return read_rule(words, script);
}

/// KEY=VALUE of "!detect".
bool read_detail(const std::string& word, Detection& detection) {
  static const auto& text_fields = *new const std::map<std::string, std::string Detection::*>{
      {"name", &Detection::name}, {"archive", &Detection::archive}};
  static const auto& number_fields =
      *new const std::map<std::string, int Detection::*>{{"type", &Detection::type},
                                                         {"accuracy", &Detection::accuracy},
                                                         {"result", &Detection::result},
                                                         {"code", &Detection::code}};
  const auto equals = word.find('=');
  const std::string key = word.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
  if (const auto text = text_fields.find(key); text != text_fields.end()) {
    detection.*(text->second) = value;
    return true;
  }
  const auto field = number_fields.find(key);
  if (field != number_fields.end()) {
    detection.*(field->second) = std::atoi(value.c_str());
  }
  return field != number_fields.end() && equals != std::string::npos;
}

bool read_directive(const Words& words, Action& action) {
  static const auto& verbs = *new const std::map<std::string, Action::Kind>{
      {"detect", Action::Kind::detect}, {"code", Action::Kind::code},
      {"sleep", Action::Kind::sleep},   {"wait", Action::Kind::wait},
      {"open", Action::Kind::open},     {"exit", Action::Kind::exit},
      {"throw", Action::Kind::throw_it}};
  const auto verb = words.empty() ? verbs.end() : verbs.find(words[0]);
  if (verb == verbs.end()) {
    return false;
  }
  action.kind = verb->second;
  if (action.kind == Action::Kind::detect) {
    return std::all_of(words.begin() + 1, words.end(), [&](const std::string& word) {
      return read_detail(word, action.detection);
    });
  }
  return words.size() == 2 && read_argument(words[1], action);
}

}  // namespace

Script read_script() {
  Script script;
  const char* path = std::getenv("PELO_TEST_ENGINE_SCRIPT");
  if (path == nullptr) {
    return script;
  }
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const Words words = split(line);
    if (words.empty() || words[0].front() == '#') {
      continue;
    }
    if (!read_script_line(words, script)) {
      record("script-error", "line=" + in_quotes(line));
    }
  }
  return script;
}

std::vector<Action> read_directives(std::string_view head) {
  std::vector<Action> directives;
  while (!head.empty() && head.front() == '!') {
    const auto end = head.find('\n');
    const std::string line(head.substr(0, end));
    Action directive;
    if (read_directive(split(std::string_view(line).substr(1)), directive)) {
      directives.push_back(std::move(directive));
    } else {
      record("directive-error", "line=" + in_quotes(line));
    }
    head = end == std::string_view::npos ? std::string_view() : head.substr(end + 1);
  }
  return directives;
}

}  // namespace scripted
