// The commands file: which folder is scanned when, and what happens to detections.
//
// Plain text, one setting a line as in the configuration file. A line that is exactly "scan"
// separates commands; what stands before the first one belongs to the first command.
#pragma once

#include <cstddef>
#include <list>
#include <span>
#include <sstream>
#include <string>
#include <variant>

#include "confparser.h"

/// One scheduled folder scan; a value.
struct Command {
  /// A key of a block and the field it sets; the type of the field is the type of the value.
  struct Key {
    const char* name;
    std::variant<ConfParser::time_T Command::*, ConfParser::days_t Command::*,
                 ConfParser::repeat_t Command::*, std::string Command::*,
                 ConfParser::detect_action_t Command::*, bool Command::*>
        field;
  };

  /// The six keys, in the order in which they are read.
  static std::span<const Key> keys();

  Command() = default;

  /// Reads the six settings of one block. What is missing, or does not convert, is logged by the
  /// parser and keeps its default.
  explicit Command(const ConfParser& settings);

  /// The command's identity: every field in order, "2:30|1|2|/data/share|0|true". Commands that
  /// differ in any field are different jobs.
  std::string ToString() const;

  ConfParser::time_T start;                  ///< runs at or after this time of day
  ConfParser::days_t day = ConfParser::SUN;  ///< and on this weekday, whatever the period
  ConfParser::repeat_t repeat = ConfParser::NO;
  std::string folder;
  ConfParser::detect_action_t action = ConfParser::REPORT;
  bool recursive = false;
};

/// Reads commands files. Not synchronised.
class CommandParser {
 public:
  /// The line between two commands.
  static constexpr const char* separator = "scan";

  /// Adds the commands of a file, in file order. A file that cannot be opened adds none.
  void parse(const std::string& filename);

  /// Turns one block of lines into a command and empties the block. A block without any setting
  /// gives none.
  void add_command(std::stringstream& block);

  const std::list<Command>& getCommands() const { return commands_; }

  /// What a command was read from.
  struct Block {
    ConfParser settings;  ///< separators too: that before the first command, and those that end
    std::size_t first_line = 1;  ///< in the file, from 1: the one behind the separator, if any
  };

  /// That of each command.
  const std::list<Block>& blocks() const { return blocks_; }

 private:
  std::list<Command> commands_;
  std::list<Block> blocks_;
  std::size_t first_line_ = 1;  ///< of the block that is being read
};
