// The status as metrics, in the text format that Prometheus and its textfile collectors read.
#pragma once

#include <string>

#include "daemon_status.h"

/// Without a daemon this is pelowatchd_up 0 alone.
std::string metrics_text(const DaemonStatus& status);

/// Puts a file in its place whole: readers see the old one or the new one. Mode 0644, since the
/// collector is another user. SIGINT, SIGTERM and SIGHUP wait until it is done.
/// @return why it could not be done, empty otherwise; then the old file is as it was, and what is
///         no plain file, such as a folder, a device, a link, stays
std::string write_atomically(const std::string& path, const std::string& text);
