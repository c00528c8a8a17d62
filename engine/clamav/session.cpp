// SPDX-License-Identifier: GPL-2.0-only
#include "session.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "descriptor.h"
#include "work_folder.h"

namespace clamav_engine {
namespace {

enum : std::uint32_t { action_disinfect = 1, action_delete = 2 };  // 0 only reports

constexpr std::uint64_t mebibyte = 1U << 20U;

/// Copies a value of exactly the type's size.
template <typename Value>
int read_value(const void* value, unsigned int size, std::type_identity_t<Value> max, Value& out) {
  Value wanted = 0;
  if (value == nullptr || size != sizeof wanted) {
    return failure;
  }
  std::memcpy(&wanted, value, sizeof wanted);
  if (wanted > max) {
    return failure;
  }
  out = wanted;
  return VSE_OK;
}

int write_number(std::uint32_t number, void* buffer, unsigned int size) {
  if (size != sizeof(number)) {
    return failure;
  }
  std::memcpy(buffer, &number, sizeof(number));
  return VSE_OK;
}

int write_text(std::string_view text, void* buffer, unsigned int size) {
  if (size == 0) {
    return failure;
  }
  const auto copied = text.copy(static_cast<char*>(buffer), size - 1);
  static_cast<char*>(buffer)[copied] = '\0';
  return VSE_OK;
}

}  // namespace

int Session::set(unsigned int property, unsigned int index, const void* value, unsigned int size) {
  constexpr std::uint32_t max_int = INT32_MAX;
  const unsigned int expected_index =
      property == VSE_PROP_DECOMPRESS ? unsigned{VSE_DECOMPRESS_LIMIT} : 0U;
  if (index != expected_index) {
    return failure;
  }
  switch (property) {
    case VSE_PROP_SCAN_ACTION:
      return read_value(value, size, action_delete, action_);
    case VSE_PROP_MAX_ARCHIVE_DEPTH:
      return read_value(value, size, max_int, max_archive_depth_);
    case VSE_PROP_DECOMPRESS:
      return read_value(value, size, max_int, decompress_limit_);
    case VSE_PROP_SESSION_OPTIONS:  // libclamav has nothing like them
      return value != nullptr && size == sizeof(std::uint32_t) ? VSE_OK : failure;
    case VSE_PROP_IGNORE_MASK:
      return read_value(value, size, UINT64_MAX, ignore_mask_);
    default:
      return failure;
  }
}

int Session::get(unsigned int property, unsigned int index, void* buffer, unsigned int size) const {
  if (buffer == nullptr || index != 0) {
    return failure;
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
      return failure;
  }
}

int Session::scan_path(const char* path) {
  if (path == nullptr) {
    return failure;
  }
  // Without O_NONBLOCK a pipe put in the file's place would hold the scan for ever.
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  return scan_fd(path, file.get());
}

int Session::scan_fd(const char* path, int fd) {
  object_name_ = path == nullptr ? "" : path;
  detection_ = {};
  result_ = VSE_RESULT_NOT_SCANNED;
  struct stat status {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return failure;
  }
  const ScanOutcome outcome =
      scan({fd, static_cast<std::uint64_t>(status.st_size), object_name_.c_str()});
  result_ = outcome.result;
  if (result_ == VSE_RESULT_ERROR) {
    return failure;
  }
  detection_ = outcome.detection;
  return detection_.type == 0 ? VSE_SCAN_CLEAN : report_detection();
}

// If the work folder was removed during the scan, the file is scanned once more: libclamav calls
// clean what it cannot unpack.
ScanOutcome Session::scan(const ScannedFile& file) const {
  const Engine engine = engine_.current();
  const ScanOptions options{max_archive_depth_, decompress_limit_ * mebibyte, ignore_mask_};
  const std::uint64_t folder = keep_work_folder();
  if (folder == 0) {
    return {VSE_RESULT_ERROR};
  }
  const ScanOutcome outcome = scan_file(engine.get(), file, options);
  const bool again = outcome.detection.type == 0 && keep_work_folder() != folder;
  return again ? scan_file(engine.get(), file, options) : outcome;
}

int Session::report_detection() {
  // libclamav cannot take a virus out of a file. The caller removes files, after answering.
  result_ = action_ == action_disinfect ? VSE_RESULT_DISINFECT_FAILED : VSE_RESULT_FOUND;
  if (callback_ != nullptr) {
    (void)callback_(this, vseEvIdDetect, nullptr);
  }
  return action_ == action_delete ? VSE_SCAN_REMOVE : VSE_SCAN_DETECTED;
}

}  // namespace clamav_engine
