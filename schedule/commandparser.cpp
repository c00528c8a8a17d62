#include "commandparser.h"

#include <fstream>
#include <utility>

#include "logger.h"

namespace {

constexpr Command::Key all_keys[] = {
    {"start", &Command::start},   {"day", &Command::day},       {"repeat", &Command::repeat},
    {"folder", &Command::folder}, {"action", &Command::action}, {"recursive", &Command::recursive},
};

}  // namespace

std::span<const Command::Key> Command::keys() {
  return all_keys;
}

// A get that fails has logged why and left the default, which is all there is to do.
Command::Command(const ConfParser& settings) {
  for (const Key& key : keys()) {
    std::visit([&](auto field) { (void)settings.get(key.name, this->*field); }, key.field);
  }
}

std::string Command::ToString() const {
  std::ostringstream text;
  text << start.hour << ':' << start.minute << '|' << static_cast<int>(day) << '|'
       << static_cast<int>(repeat) << '|' << folder << '|' << static_cast<int>(action) << '|'
       << (recursive ? "true" : "false");
  return text.str();
}

// The comment is cut after the trimming: "scan # weekly" keeps a trailing blank and separates
// nothing, on purpose.
void CommandParser::parse(const std::string& filename) {
  Logger::log(2, __func__, "CommandParser::parse(): filename:" + filename);
  std::ifstream file(filename);
  std::stringstream block;
  bool separator_seen = false;
  std::string line;
  first_line_ = 1;
  for (std::size_t number = 1; std::getline(file, line); ++number) {
    ConfParser::trim(line, ConfParser::whitespace);
    ConfParser::erase_comment(line);
    block << line << '\n';
    if (line == separator) {
      if (separator_seen) {
        add_command(block);
        first_line_ = number + 1;
      }
      separator_seen = true;
    }
  }
  add_command(block);
}

void CommandParser::add_command(std::stringstream& block) {
  const std::string input = std::exchange(block, std::stringstream()).str();
  // The text ends with a line of its own.
  Logger::append(2, "add_command CommandParser::add_command(): input:\n" + input);
  std::istringstream lines(input);
  ConfParser settings;
  settings.parse(lines, first_line_);
  if (settings.values().size() == settings.values().count(separator)) {
    return;
  }
  commands_.emplace_back(settings);
  blocks_.push_back({std::move(settings), first_line_});
  Logger::log(
      3, __func__,
      "CommandParser::add_command(): adding command from config:" + commands_.back().ToString());
}
