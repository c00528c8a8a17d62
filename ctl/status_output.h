// The status in the forms in which it is shown.
#pragma once

#include <string>

#include "daemon_status.h"
#include "printing.h"

/// The table for people; ends with a newline.
std::string status_text(const DaemonStatus& status, const Rates& rates, const Colours& colours);

/// One JSON object. Names that are no UTF-8 have U+FFFD in the place of what is not.
/// @param indent blanks a level; -1 for all on one line
std::string status_json(const DaemonStatus& status, const Rates& rates, int indent);

/// One job or mount point a line.
std::string jobs_text(const DaemonStatus& status);
std::string mounts_text(const DaemonStatus& status);

/// Arrays of the same.
std::string jobs_json(const DaemonStatus& status);
std::string mounts_json(const DaemonStatus& status);
