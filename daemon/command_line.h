// The command line, applied to the settings option by option as it is written.
#pragma once

/// 1 once -n was given: stay in the foreground.
extern int notdetach;

/// Reads the options into the settings. Options act in the order given, so a later one wins; what
/// is no option is ignored. Exits the process for -h, -v and unknown options (status 0) and for a
/// rejected configuration file (status -1).
void parse_arguments(int argc, char** argv);

void print_help();
void print_version();
