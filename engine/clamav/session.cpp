// SPDX-License-Identifier: GPL-2.0-only
#include "session.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include "unique_fd.h"
#include "work_folder.h"

namespace clamav_engine {
namespace {

enum : std::uint32_t { kDisinfect = 1, kDelete = 2 };  // 0 only reports

constexpr std::uint64_t kMebibyte = 1U << 20U;

/// Copies a value of exactly the type's size.
template <typename Value>
int read_value(const void* value, unsigned int size, Value& out) {
  if (value == nullptr || size != sizeof(Value)) {
    return kFailure;
  }
  std::memcpy(&out, value, sizeof(Value));
  return VSE_OK;
}

int read_bounded(const void* value, unsigned int size, std::uint32_t max, std::uint32_t& out) {
  std::uint32_t wanted = 0;
  if (read_value(value, size, wanted) != VSE_OK || wanted > max) {
    return kFailure;
  }
  out = wanted;
  return VSE_OK;
}

int write_number(std::uint32_t number, void* buffer, unsigned int size) {
  if (size != sizeof(number)) {
    return kFailure;
  }
  std::memcpy(buffer, &number, sizeof(number));
  return VSE_OK;
}

int write_text(std::string_view text, void* buffer, unsigned int size) {
  if (size == 0) {
    return kFailure;
  }
  const auto copied = text.copy(static_cast<char*>(buffer), size - 1);
  static_cast<char*>(buffer)[copied] = '\0';
  return VSE_OK;
}

bool is_regular_file(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

int Session::set(unsigned int property, unsigned int index, const void* value, unsigned int size) {
  constexpr std::uint32_t kMaxInt = INT32_MAX;
  const unsigned int expected_index =
      property == VSE_PROP_DECOMPRESS ? unsigned{VSE_DECOMPRESS_LIMIT} : 0U;
  if (index != expected_index) {
    return kFailure;
  }
  switch (property) {
    case VSE_PROP_SCAN_ACTION:
      return read_bounded(value, size, kDelete, action_);
    case VSE_PROP_MAX_ARCHIVE_DEPTH:
      return read_bounded(value, size, kMaxInt, max_archive_depth_);
    case VSE_PROP_DECOMPRESS:
      return read_bounded(value, size, kMaxInt, decompress_limit_);
    case VSE_PROP_SESSION_OPTIONS:  // libclamav has nothing like them
      return value != nullptr && size == sizeof(std::uint32_t) ? VSE_OK : kFailure;
    case VSE_PROP_IGNORE_MASK:
      return read_value(value, size, ignore_mask_);
    default:
      return kFailure;
  }
}

int Session::get(unsigned int property, unsigned int index, void* buffer, unsigned int size) const {
  if (buffer == nullptr || index != 0) {
    return kFailure;
  }
  switch (property) {
    case VSE_PROP_SCAN_RESULT:
      return write_number(result_, buffer, size);
    case VSE_PROP_DETECTION_TYPE:
      return write_number(detection_.type, buffer, size);
    case VSE_PROP_DETECTION_ACCURACY:
      return write_number(detection_.accuracy, buffer, size);
    case VSE_PROP_DETECTION_NAME:
      return write_text(detection_.name.data(), buffer, size);
    case VSE_PROP_ARCHIVE_NAME:
      return write_text(detection_.member.data(), buffer, size);
    case VSE_PROP_OBJECT_NAME:
      return write_text(object_name_, buffer, size);
    default:
      return kFailure;
  }
}

int Session::scan_path(const char* path) {
  if (path == nullptr) {
    return kFailure;
  }
  // Without O_NONBLOCK a pipe put in the file's place would hold the scan for ever.
  const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  return scan_fd(path, file.get());
}

int Session::scan_fd(const char* path, int fd) {
  object_name_ = path == nullptr ? "" : path;
  detection_ = {};
  result_ = VSE_RESULT_NOT_SCANNED;
  if (!is_regular_file(fd)) {
    return kFailure;
  }
  const ScanOutcome outcome = run_scan(fd);
  switch (outcome.status) {
    case ScanStatus::kMatched:
      return report_detection();
    case ScanStatus::kClean:
      result_ = outcome.result;
      return VSE_SCAN_CLEAN;
    case ScanStatus::kFailed:
      break;
  }
  result_ = VSE_RESULT_ERROR;
  return kFailure;
}

// A scan ends at its first match. Where that one is ignored the file is scanned again for all of
// them, since another may count.
ScanOutcome Session::run_scan(int fd) {
  ScanOptions options;
  options.archive_depth = max_archive_depth_;
  options.unpacked_bytes = decompress_limit_ * kMebibyte;
  DetectionFilter filter(ignore_mask_);
  ScanOutcome outcome = scan_with(fd, options, filter);
  if (outcome.status == ScanStatus::kMatched && !filter.found()) {
    options.all_matches = true;
    outcome = scan_with(fd, options, filter);
  }
  if (filter.found()) {
    // Also when the scan failed after its match, at a limit for instance.
    detection_ = filter.detection();
    outcome.status = ScanStatus::kMatched;
  } else if (outcome.status == ScanStatus::kMatched) {
    outcome.status = ScanStatus::kClean;
  }
  return outcome;
}

// Twice where it fails: the work folder may have been removed, or been full for a moment, and a
// file that could not be scanned is allowed.
ScanOutcome Session::scan_with(int fd, const ScanOptions& options, DetectionFilter& filter) {
  const ScanOutcome outcome = engine_->scan(fd, object_name_.c_str(), options, filter);
  const bool again = outcome.status == ScanStatus::kFailed && keep_work_folder();
  return again ? engine_->scan(fd, object_name_.c_str(), options, filter) : outcome;
}

int Session::report_detection() {
  // libclamav cannot take a virus out of a file. The caller removes files, after answering.
  result_ = action_ == kDisinfect ? VSE_RESULT_DISINFECT_FAILED : VSE_RESULT_FOUND;
  if (callback_ != nullptr) {
    (void)callback_(this, VSE_EVENT_DETECT, nullptr);
  }
  return action_ == kDelete ? VSE_SCAN_REMOVE : VSE_SCAN_DETECTED;
}

}  // namespace clamav_engine
