#include "commandparser.h"

#include <fstream>

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
  Logger::append(2, "parse CommandParser::parse(): filename:" + filename + "\n");
  std::ifstream file(filename);
  std::stringstream block;
  bool separator_seen = false;
  std::string line;
  while (std::getline(file, line)) {
    ConfParser::trim(line, ConfParser::whitespace);
    ConfParser::erase_comment(line);
    block << line << '\n';
    if (line == separator) {
      if (separator_seen) {
        add_command(block);
      }
      separator_seen = true;
    }
  }
  add_command(block);
}

void CommandParser::add_command(std::stringstream& block) {
  const std::string input = block.str();
  Logger::append(2, "add_command CommandParser::add_command(): input:\n" + input);
  block.clear();
  (void)block.seekg(0);
  ConfParser settings;
  settings.parse(block);
  block.str("");
  block.clear();
  if (!settings.has_key_besides(separator)) {
    return;
  }
  commands_.emplace_back(settings);
  Logger::append(3, "add_command CommandParser::add_command(): adding command from config:" +
                        commands_.back().ToString() + "\n");
}
