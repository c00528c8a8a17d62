// JSON as pelowatchctl writes it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

/// The text of it and a newline. Names from files and other processes may be any bytes: what is no
/// UTF-8 becomes U+FFFD, and all beyond ASCII, where there are controls that a terminal obeys, is
/// written as \u.
/// @param indent blanks a level; -1 for all on one line
inline std::string json_text(const nlohmann::ordered_json& json, int indent) {
  return json.dump(indent, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}
