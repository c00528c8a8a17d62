// What is asked of the running daemon: a scan pass, a definition update, the end.
#pragma once

#include <chrono>
#include <iosfwd>

#include "exit_status.h"

/// Sends a signal to the daemon that the pid file names, and says so.
/// @param request what it asks for, as in "asked pelowatchd (process 7) for REQUEST"
ExitStatus send_request(int signal, const char* request, std::ostream& out, std::ostream& errors);

/// Asks the daemon to end and waits until it has, at most `bound`.
ExitStatus stop_daemon(std::chrono::milliseconds bound, std::ostream& out, std::ostream& errors);
