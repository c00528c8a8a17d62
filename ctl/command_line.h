// The commands of pelowatchctl and their options.
#pragma once

#include <iosfwd>

/// Reads the command line and runs the command. What is asked for goes to `out`, everything else
/// to `errors`.
/// @return an ExitStatus
int run_pelowatchctl(int argc, char** argv, std::ostream& out, std::ostream& errors);
