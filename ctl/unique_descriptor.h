// A file descriptor with an owner.
#pragma once

#include <unistd.h>

#include <utility>

/// Closes its descriptor, if it has one.
class UniqueDescriptor {
 public:
  explicit UniqueDescriptor(int fd = -1) : fd_(fd) {}
  UniqueDescriptor(UniqueDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~UniqueDescriptor() {
    if (fd_ >= 0) {
      (void)close(fd_);
    }
  }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_;
};
