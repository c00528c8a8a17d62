// What the daemon makes of a value, compared with what it looks like.
#pragma once

#include <cstdint>
#include <string>

#include "confparser.h"

/// One value as the daemon reads it.
struct Reading {
  bool applied = true;    ///< false when it does not convert: the setting stays as it is without it
  std::string complaint;  ///< what differs from what is written; empty when nothing does
  std::string instead;    ///< what to write; may be empty
};

/// How a value reads for a setting of the type of `used`, which is what the daemon holds after it.
/// The 64-bit number is one of bytes, given in MiB. Texts read as they are.
Reading reading_of(const std::string& value, int used);
Reading reading_of(const std::string& value, bool used);
Reading reading_of(const std::string& value, std::uint64_t used);
Reading reading_of(const std::string& value, ConfParser::detect_action_t used);
Reading reading_of(const std::string& value, ConfParser::definition_type_t used);
Reading reading_of(const std::string& value, ConfParser::days_t used);
Reading reading_of(const std::string& value, ConfParser::repeat_t used);
Reading reading_of(const std::string& value, ConfParser::time_T used);
inline Reading reading_of(const std::string&, const std::string&) {
  return {};
}
