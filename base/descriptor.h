// The owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

// So that who links one of these libraries may use the same name for a thing of their own.
inline namespace pelo_base {

/// Owns one descriptor, or none, which is -1. Closing keeps errno, so that an owner may go out of
/// scope between a call that fails and whoever asks why.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  /// Gives the descriptor up: it is the caller's. @return it, or -1
  int release() { return std::exchange(fd_, -1); }

  /// Closes the descriptor and owns another one, or none.
  void reset(int fd = -1) {
    const int before = std::exchange(fd_, fd);
    if (before >= 0 && before != fd) {
      const int error = errno;
      (void)close(before);
      errno = error;
    }
  }

 private:
  int fd_ = -1;
};

}  // namespace pelo_base
