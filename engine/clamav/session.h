// SPDX-License-Identifier: GPL-2.0-only
#ifndef PELOWATCHD_ENGINE_CLAMAV_SESSION_H
#define PELOWATCHD_ENGINE_CLAMAV_SESSION_H

#include <vse.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "compiled_engine.h"
#include "definitions.h"
#include "detection.h"

namespace clamav_engine {

/// What every call returns when it cannot do its work. As the result of a scan it is a code that
/// stands for no detection.
inline constexpr int kFailure = 3;

/// What a VSEHANDLE points to: the properties and the last result of one scanning session, on an
/// engine that it shares with others. Used by one thread at a time. The meaning of the arguments
/// and results is that of the calls in vse.h.
class Session {
 public:
  /// `definitions` is what `engine` was loaded from.
  Session(std::shared_ptr<const CompiledEngine> engine, Definitions definitions,
          vse_event_callback callback)
      : engine_(std::move(engine)), definitions_(std::move(definitions)), callback_(callback) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const Definitions& definitions() const { return definitions_; }

  int set(unsigned int property, unsigned int index, const void* value, unsigned int size);
  int get(unsigned int property, unsigned int index, void* buffer, unsigned int size) const;

  /// Opens and scans the file.
  int scan_path(const char* path);
  /// Scans `fd`, which stays the caller's, and reports it as `path`.
  int scan_fd(const char* path, int fd);

 private:
  ScanOutcome run_scan(int fd);
  ScanOutcome scan_with(int fd, const ScanOptions& options, DetectionFilter& filter);
  int report_detection();

  std::shared_ptr<const CompiledEngine> engine_;
  Definitions definitions_;
  vse_event_callback callback_;

  std::uint32_t action_ = 0;
  std::uint32_t max_archive_depth_ = 17;  // libclamav's own
  std::uint32_t decompress_limit_ = 0;
  std::uint64_t ignore_mask_ = 0;

  // The last scan, for get().
  std::string object_name_;
  Detection detection_;
  std::uint32_t result_ = VSE_RESULT_NOT_SCANNED;
};

}  // namespace clamav_engine

#endif
