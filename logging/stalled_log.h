// A log file whose disk stalls, for the logger's tests.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "wait.h"

/// A pipe in place of the log file: it takes 4096 bytes and then holds up whoever writes to it,
/// until its reader takes them out.
class StalledLog {
 public:
  explicit StalledLog(const std::string& log_file) {
    EXPECT_EQ(mkfifo(log_file.c_str(), 0600), 0);
    fd_ = open(log_file.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GE(fd_, 0);
    EXPECT_EQ(fcntl(fd_, F_SETPIPE_SZ, capacity), capacity);
  }
  ~StalledLog() { close(fd_); }
  StalledLog(const StalledLog&) = delete;
  StalledLog& operator=(const StalledLog&) = delete;

  /// A text that no write gets through.
  static std::string too_long() { return std::string(4 * capacity, '#') + '\n'; }

  /// Waits until somebody has filled the pipe. @return false when that takes a minute
  bool wait_until_full() const {
    return eventually([this] { return waiting() >= capacity; }, std::chrono::minutes(1));
  }

  /// Reads on until the text has come, which ends what is returned, or nothing comes for a minute.
  std::string read_until(const std::string& text) const {
    std::string all;
    pollfd readable{fd_, POLLIN, 0};
    while (!all.ends_with(text) && poll(&readable, 1, 60'000) > 0) {
      char bytes[capacity];
      const ssize_t got = read(fd_, bytes, sizeof bytes);
      all.append(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    return all;
  }

  /// What is in the pipe now.
  int waiting() const {
    int bytes = 0;
    EXPECT_EQ(ioctl(fd_, FIONREAD, &bytes), 0);
    return bytes;
  }

 private:
  static constexpr int capacity = 4096;
  int fd_ = -1;
};
