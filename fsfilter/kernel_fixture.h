// For the tests against the real kernel, on mounts of the test's own. The opener is always another
// process, since the filter's own accesses are never held.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>

#include "child_process.h"
#include "fsfilter.h"
#include "fsfilter_context.h"
#include "private_mounts.h"
#include "temp_directory.h"

/// A process that opens one file when it is told to, reads or writes a byte of it and closes it. It
/// ends with the open's errno, or with 255 when it could not read or write.
class Opener {
 public:
  explicit Opener(std::string path, int flags = O_RDONLY, int directory = AT_FDCWD)
      : process_([this, path = std::move(path), flags, directory] {
          go_.wait();
          const int file = openat(directory, path.c_str(), flags, 0644);
          const int error = errno;
          char byte = 'x';
          const bool used = (flags & O_DIRECTORY) != 0 ||
                            (flags == O_RDONLY ? read(file, &byte, 1) : write(file, &byte, 1)) == 1;
          // A copy of the group's descriptor would keep its holds alive without the parent.
          (void)close_range(3, ~0U, 0);
          return file < 0 ? error : used ? 0 : 255;
        }) {}

  Opener& go() {
    go_.open();
    return *this;
  }
  pid_t pid() const { return process_.pid(); }
  bool ended() { return process_.ended(); }
  int result() { return process_.wait(); }
  void kill_and_reap() { process_.kill_and_reap(); }

 private:
  Gate go_;
  ChildProcess process_;
};

/// What a program does to survive an area that another process has cut off.
inline void restore_area_when_it_faults() {
  struct sigaction action {};
  action.sa_flags = SA_SIGINFO;
  action.sa_sigaction = [](int, siginfo_t* info, void*) {
    if (fsfilter_restore_area(info->si_addr) == 0) {
      _exit(1);
    }
  };
  (void)sigaction(SIGBUS, &action, nullptr);
}

class KernelTest : public PrivateMountsTest {
 protected:
  void prepare() override {
    watched_ = mount_tmpfs("watched");
    std::ofstream(file()) << "content";
  }
  void TearDown() override {
    if (filter_ != nullptr) {
      EXPECT_EQ(unregister_filter(filter_), 0);
    }
  }

  std::string file() const { return watched_ + "/file"; }

  /// Registers the filter and marks the watched mount. Openers are made before: a process forked
  /// later would hold a copy of the group's descriptor.
  void watch() {
    ASSERT_EQ(register_filter(&filter_), 0) << std::strerror(errno);
    ASSERT_EQ(register_mounting_point(filter_, watched_.c_str(), "tmpfs"), 0);
  }

  /// Watches, and takes the event of an opener.
  void hold(Opener& opener) {
    watch();
    opener.go();
    ASSERT_TRUE(next_event());
  }

  int group() const { return cast(filter_)->group.get(); }

  /// Whether every event has been read.
  bool group_is_empty() const {
    pollfd readable{group(), POLLIN, 0};
    return poll(&readable, 1, 0) == 0;
  }

  /// The next event to decide, within the bound.
  bool next_event() { return request_event(filter_, &event_, 30) == 0; }

  int answer(int verdict) {
    event_.result = verdict;
    return set_result(filter_, &event_);
  }

  /// Lets the library answer what it answers itself, until the opener has ended.
  /// @return whether an event was handed out meanwhile
  bool handed_out_until_ended(Opener& opener) {
    while (!opener.ended()) {
      if (request_event(filter_, &event_, 0) == 0) {
        (void)answer(0);
        return true;
      }
    }
    return false;
  }

  std::string watched_;
  fsfilter_handle_t filter_ = nullptr;
  fsfilter_event_struct event_{};
};
