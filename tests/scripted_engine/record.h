// The file in which the scripted engine writes down what was done to it.
#pragma once

#include <string>
#include <string_view>

#include "in_quotes.h"

namespace scripted {

/// The quoted text; the bare word null for a null pointer.
std::string in_quotes_or_null(const char* text);

/// Opens (again) the file named by PELO_TEST_ENGINE_RECORD for appending; without that variable
/// nothing is recorded. Call it before any other thread is in the engine.
void open_record();

/// Appends "CALL thread=TID REST\n" with one write(2), so that lines of several threads and of
/// several processes never mix. Any thread.
void record(std::string_view call, std::string_view rest);

}  // namespace scripted
