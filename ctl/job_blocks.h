// The blocks of a commands file, each of which is a job, with the lines they are on.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "file_lines.h"
#include "record_check.h"

struct JobBlock {
  std::size_t line = 0;            ///< of the "scan" before it, or of its first setting
  std::vector<FileLine> settings;  ///< never empty; without lines whose key is "scan"
};

/// Cuts the file into blocks as CommandParser does, so the nth block is its nth command, and
/// reports lines that look like "scan" and separate nothing.
std::vector<JobBlock> job_blocks(const std::string& content, Report& report);

/// "scan" in any capitals. Only the one in small letters, alone on its line, separates.
bool looks_like_separator(const FileLine& line);
