// SPDX-License-Identifier: GPL-2.0-only
// One scan of one file. The limits that a handle sets hold for its own scans only, while
// libclamav's limits belong to an engine that other threads scan with. So what a scan has reached
// is kept here, and libclamav is steered by what its callbacks answer.
#ifndef PELOWATCHD_ENGINE_CLAMAV_SCAN_CONTEXT_H
#define PELOWATCHD_ENGINE_CLAMAV_SCAN_CONTEXT_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "detection.h"
#include "layers.h"

struct cl_engine;
struct cl_scan_options;

namespace clamav_engine {

struct ScanOptions {
  std::uint32_t archive_depth = 17;  ///< archives within archives that are looked into; 0 is none
  std::uint64_t unpacked_bytes = 0;  ///< what may be unpacked in all; 0 leaves it to libclamav
  bool all_matches = false;          ///< report every match, not only the first
};

enum class ScanStatus { kClean, kMatched, kFailed };

struct ScanOutcome {
  ScanStatus status = ScanStatus::kClean;
  std::uint32_t result = 0;  ///< a clean file's vse_scan_result: why it, or a part, was not scanned
};

/// Makes `engine` report to this module during scans. Due before the engine is compiled.
void install_scan_callbacks(cl_engine* engine);

/// Scans the regular file `fd`, which stays the caller's; its position may change. `name` is what
/// libclamav shows the file as. Every match is handed to `filter`. Any number of threads may scan
/// with one engine at once.
/// @return kMatched when there was a match, whether or not the filter kept it.
ScanOutcome scan_file(const cl_engine* engine, int fd, const char* name, const ScanOptions& options,
                      DetectionFilter& filter);

/// What libclamav's callbacks of one scan work on. Used by one thread; nothing in it throws, since
/// libclamav's C code calls it.
class ScanContext {
 public:
  ScanContext(const cl_engine* engine, const ScanOptions& options, DetectionFilter& filter) noexcept
      : engine_(engine), options_(options), filter_(filter) {}
  ScanContext(const ScanContext&) = delete;
  ScanContext& operator=(const ScanContext&) = delete;

  /// Scans a file with all that is in it.
  ScanStatus scan(int fd, const char* name) noexcept;
  /// Scans a file without what is in it.
  ScanStatus scan_without_parts(int fd, const char* name) noexcept;

  /// True when the scan ended because too much was unpacked.
  bool stopped() const noexcept { return stopped_; }
  /// True when what was unpacked then is out of all proportion to what it came from.
  bool is_bomb() const noexcept { return bomb_; }
  /// The vse_scan_result of this file when nothing was found.
  std::uint32_t clean_result() const noexcept;

  /// What libclamav is about to scan.
  struct Part {
    const char* type;
    const char* name;  ///< null when it has none
    const char* content;
    std::size_t size;
    std::size_t size_around;  ///< of what it lies directly in
    std::uint32_t level;      ///< 0 is the file itself
  };
  enum class Verdict { kScan, kSkip, kStop };

  // The callbacks.
  Verdict enter(const Part& part) noexcept;
  void leave(const char* signature) noexcept;
  void see_member(const char* archive_type, bool encrypted) noexcept;
  void see_match(const char* signature) noexcept;

 private:
  cl_scan_options libclamav_options() const noexcept;
  ScanStatus judge(int libclamav_result, const char* signature) noexcept;
  bool is_of_scannable_size(int fd) const noexcept;
  std::uint64_t longest_part() const noexcept;
  /// @return whether that is too much.
  bool add_unpacked(std::uint64_t size, std::uint64_t packed) noexcept;
  void see_limit(std::string_view name) noexcept;
  ScanStatus scan_without_parts(const char* content, std::size_t size, const char* name) noexcept;
  Verdict leave_closed(const Part& part, LayerKind kind) noexcept;

  const cl_engine* engine_;
  ScanOptions options_;
  DetectionFilter& filter_;
  const Layers* around_ = nullptr;  // where the file lies that is scanned
  bool without_parts_ = false;

  Layers layers_;
  std::uint64_t file_size_ = 0;
  std::uint64_t unpacked_ = 0;
  bool entered_ = false;
  bool matched_ = false;
  bool stopped_ = false;
  bool bomb_ = false;
  bool limited_ = false;  // by a limit of libclamav's own
  bool encrypted_ = false;
  bool too_deep_ = false;
};

}  // namespace clamav_engine

#endif
