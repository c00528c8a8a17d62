// The status as metrics, in the text format that Prometheus and its textfile collectors read.
#pragma once

#include <string>

#include "daemon_status.h"

/// Without a daemon this is pelowatchd_up 0 alone.
std::string metrics_text(const DaemonStatus& status);

/// Puts a file in its place whole: readers see the old one or the new one. Mode 0644, since the
/// collector is another user.
/// @return 0, or an errno value; then the old file is as it was. EINVAL when the path names a
///         folder, a device, a link: anything but a plain file
int write_atomically(const std::string& path, const std::string& text);
