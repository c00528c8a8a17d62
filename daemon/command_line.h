// The command line, applied to the settings one option after the other.
#pragma once

/// 1 if -n was given: stay in the foreground.
extern int notdetach;

/// Reads the options into the settings, in the order given, so a later one wins. Arguments that are
/// no options are ignored. Exits the process for -h, -v and unknown options (status 0) and for a
/// rejected configuration file (status -1).
void parse_arguments(int argc, char** argv);
