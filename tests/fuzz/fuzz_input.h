// What the fuzz targets share.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

/// Ends the run as a finding, with the input that led here.
inline void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

/// The input as a file in memory, open at its beginning.
class InputFile {
 public:
  InputFile(const std::uint8_t* data, std::size_t size) : fd_(memfd_create("input", MFD_CLOEXEC)) {
    require(write(fd_, data, size) == static_cast<ssize_t>(size) && lseek(fd_, 0, SEEK_SET) == 0);
  }
  ~InputFile() { (void)close(fd_); }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  int fd() const { return fd_; }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};
