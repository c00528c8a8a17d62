// A system log that tests can read: a program that links recorded_syslog.cpp logs to it instead of
// the machine's.
#pragma once

#include <string>
#include <vector>

/// The calls so far, in order: "openlog IDENT OPTION FACILITY", "syslog PRIORITY TEXT", "closelog".
std::vector<std::string> syslog_calls();
