// SPDX-License-Identifier: GPL-2.0-only
#ifndef PELOWATCHD_ENGINE_CLAMAV_UNIQUE_FD_H
#define PELOWATCHD_ENGINE_CLAMAV_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace clamav_engine {

/// Owns a descriptor, or none (-1).
class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) {
      (void)close(fd_);
    }
  }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_;
};

}  // namespace clamav_engine

#endif
