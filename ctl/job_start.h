// What the daemon makes of a job's start, which need not be a time that a clock shows: nothing
// checks its range, and hours are compared before minutes.
#pragma once

#include <optional>

#include "confparser.h"

/// The first time of day that is not before the start; nothing when none is, or when no reading of
/// the commands file is early enough for it.
std::optional<ConfParser::time_T> first_run(const ConfParser::time_T& start);

/// The last time of day at which the commands file may be read for the job to run. Only for a start
/// with a first_run().
ConfParser::time_T latest_load(const ConfParser::time_T& start);
