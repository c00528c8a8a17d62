// When a scheduled scan will run next, as far as can be told without the daemon's memory of its
// last run.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "commandparser.h"

/// A job as the status area lists it. The text is Command::ToString()'s; nothing when it is not.
std::optional<Command> parse_job(std::string_view text);

struct NextDue {
  std::optional<std::time_t> at;  ///< the earliest time; nothing when it will not run
  std::string words;              ///< "Monday 2026-11-23 02:30, in 1 day 12 hours"
};

/// @param now   any time
/// @param loaded the local time of day at which the daemon read its commands file
NextDue next_due(const Command& command, std::time_t now, const ConfParser::time_T& loaded);
