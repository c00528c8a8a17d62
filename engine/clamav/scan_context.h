// SPDX-License-Identifier: GPL-2.0-only
// One scan of one file. The limits that a handle sets hold for its own scans only, while
// libclamav's limits belong to an engine that other threads scan with. So what a scan has reached
// is kept here, and libclamav is steered by what its callbacks answer.
#pragma once

#include <cstdint>

#include "detection.h"

struct cl_engine;

namespace clamav_engine {

/// A regular file, open for reading; its position may change.
struct ScannedFile {
  int fd;
  std::uint64_t size;
  const char* name;  ///< what libclamav shows it as
};

struct ScanOptions {
  std::uint32_t archive_depth;   ///< archives within archives that are looked into; 0 is none
  std::uint64_t unpacked_bytes;  ///< what may be unpacked in all; 0 leaves it to libclamav
  std::uint64_t ignore_mask;     ///< bit N: a match of type N is no detection
};

struct ScanOutcome {
  std::uint32_t
      result;  ///< VSE_RESULT_ERROR if the scan failed, else what holds if nothing was found
  Detection detection{};  ///< of type 0 when there is none
};

/// Makes `engine` report to this module during scans. Due before the engine is compiled.
void install_scan_callbacks(cl_engine* engine);

/// Scans a file with all that is in it. Any number of threads may scan with one engine at once.
ScanOutcome scan_file(const cl_engine* engine, const ScannedFile& file, const ScanOptions& options);

}  // namespace clamav_engine
