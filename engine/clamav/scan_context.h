// SPDX-License-Identifier: GPL-2.0-only
// One scan of one file. The limits that a handle sets hold for its own scans only, while
// libclamav's limits belong to an engine that other threads scan with. So what a scan has reached
// is kept here, and libclamav is steered by what its callbacks answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "detection.h"
#include "layers.h"

struct cl_engine;
struct cl_scan_options;

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
  bool scanned = false;      ///< false when the scan failed
  std::uint32_t result = 0;  ///< vse_scan_result of a file in which nothing was found
  Detection detection;       ///< of type 0 when there is none
};

/// Makes `engine` report to this module during scans. Due before the engine is compiled.
void install_scan_callbacks(cl_engine* engine);

/// Scans a file with all that is in it. Any number of threads may scan with one engine at once.
ScanOutcome scan_file(const cl_engine* engine, const ScannedFile& file, const ScanOptions& options);

/// What libclamav's callbacks of one pass over a file work on. Used by one thread. The callbacks
/// are called by libclamav's C code, so nothing in them throws.
class ScanContext {
 public:
  /// All of it outlives the pass. `without_parts`: the file is scanned without what is in it.
  /// `around`: where the file lies that is scanned, if it is a part of another one.
  ScanContext(const cl_engine* engine, const ScanOptions& options, DetectionFilter& filter,
              bool without_parts = false, const Layers* around = nullptr)
      : engine_(engine),
        options_(options),
        filter_(filter),
        without_parts_(without_parts),
        around_(around) {}
  ScanContext(const ScanContext&) = delete;
  ScanContext& operator=(const ScanContext&) = delete;

  /// Scans a file. @return false when that failed.
  bool scan(const ScannedFile& file);

  /// True when the scan ended because too much was unpacked.
  bool stopped() const { return stopped_; }
  /// True when what was unpacked then is out of all proportion to what it came from.
  bool is_bomb() const { return bomb_; }
  /// The vse_scan_result of this file when nothing was found.
  std::uint32_t clean_result() const;

  /// What libclamav is about to scan.
  struct Part {
    const char* type;
    const char* name;  ///< null when it has none
    const char* content;
    std::size_t size;
    std::size_t size_around;  ///< of what it lies directly in
    std::uint32_t level;      ///< 0 is the file itself
  };

  // The callbacks. enter() returns what libclamav is told.
  int enter(const Part& part);
  void leave(const char* signature);
  void see_member(const char* archive_type, bool encrypted);
  void see_match(const char* signature);

 private:
  cl_scan_options libclamav_options() const;
  bool judge(int libclamav_result, const char* signature);
  /// @return whether that is too much.
  bool add_unpacked(std::uint64_t size, std::uint64_t packed);
  void see_limit(std::string_view name);
  void match_closed(const Part& part);

  const cl_engine* engine_;
  const ScanOptions& options_;
  DetectionFilter& filter_;
  const bool without_parts_;
  const Layers* const around_;

  Layers layers_;
  std::uint64_t file_size_ = 0;
  std::uint64_t unpacked_ = 0;
  bool entered_ = false;
  bool stopped_ = false;
  bool bomb_ = false;
  bool limited_ = false;  // by a limit of libclamav's own
  bool encrypted_ = false;
  bool too_deep_ = false;
};

}  // namespace clamav_engine
