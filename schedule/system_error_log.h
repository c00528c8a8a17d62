// Records of a failed call, with the system's text.
#pragma once

#include <cstring>
#include <string>

#include "logger.h"

/// Logs at level 1 what a function failed at, and why.
inline void log_system_error(const char* function, const std::string& message, int error) {
  char text[200] = "";
  Logger::log(1, function,
              std::string(function) + ":" + message + " " + strerror_r(error, text, sizeof text));
}
