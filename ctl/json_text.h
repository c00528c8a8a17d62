// JSON as pelowatchctl writes it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "commandparser.h"
#include "printing.h"

/// The text of it and a newline. Names from files and other processes may be any bytes: what is no
/// UTF-8 becomes U+FFFD, and all beyond ASCII, where there are controls that a terminal obeys, is
/// written as \u.
/// @param indent blanks a level; -1 for all on one line
inline std::string json_text(const nlohmann::ordered_json& json, int indent) {
  return json.dump(indent, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

/// What a job does, added to an object.
inline void add_command(nlohmann::ordered_json& json, const Command& command) {
  json["folder"] = command.folder;
  json["day"] = ConfParser::word(command.day);
  json["start"] = clock_text(command.start);
  json["repeat"] = ConfParser::word(command.repeat);
  json["action"] = ConfParser::word(command.action);
  json["recursive"] = command.recursive;
}
