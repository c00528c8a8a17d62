// When a scheduled scan is due. Arithmetic on local broken-down times: no clock, no state.
#pragma once

#include <ctime>

#include "commandparser.h"

/// Whether a job is due.
/// @param now the local time of the pass
/// @param loaded the local time of day at which the commands file was loaded: a job that starts
///        earlier in the day waits for another load
/// @param last the local time of the pass that last ran the job; null when none did
bool is_due(const Command& command, const std::tm& now, const ConfParser::time_T& loaded,
            const std::tm* last);
