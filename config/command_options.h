// The command line of the daemon, for itself and for whoever reads it from outside.
#pragma once

#include <getopt.h>

/// For getopt_long.
inline constexpr const char* short_options = "vhc:k:nl:";
inline constexpr option long_options[] = {
    {"version", no_argument, nullptr, 'v'},
    {"help", no_argument, nullptr, 'h'},
    {"config-file", required_argument, nullptr, 'c'},
    {"cloudaccess-key", required_argument, nullptr, 'k'},
    {"attach", no_argument, nullptr, 'n'},
    {"log-level", required_argument, nullptr, 'l'},
    {nullptr, 0, nullptr, 0},
};
