// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <vse.h>

#include <cstdint>
#include <string>

#include "detection.h"
#include "scan_context.h"
#include "shared_engine.h"

namespace clamav_engine {

/// What every call returns when it cannot do its work. As the result of a scan it is a code that
/// stands for no detection.
inline constexpr int failure = 3;

/// What a VSEHANDLE points to: the properties and the last result of one scanning session. Used by
/// one thread at a time. The meaning of the arguments and results is that of the calls in vse.h.
class Session {
 public:
  /// `engine` stays the caller's, and outlives the session.
  Session(SharedEngine& engine, vse_event_callback callback)
      : engine_(engine), callback_(callback) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  SharedEngine& engine() { return engine_; }

  int set(unsigned int property, unsigned int index, const void* value, unsigned int size);
  int get(unsigned int property, unsigned int index, void* buffer, unsigned int size) const;

  /// Opens and scans the file.
  int scan_path(const char* path);
  /// Scans `fd`, which stays the caller's, and reports it as `path`.
  int scan_fd(const char* path, int fd);

 private:
  ScanOutcome scan(const ScannedFile& file) const;
  int report_detection();

  SharedEngine& engine_;
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
