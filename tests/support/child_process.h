// A second process for a test, which never outlives it.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "wait.h"

/// Runs a function in a forked process. The process ends with the function's result, without the
/// parent's exit handlers; it is killed and waited for when the object dies.
class ChildProcess {
 public:
  template <typename Body>
  explicit ChildProcess(Body body) {
    (void)std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
      _exit(body());
    }
  }
  ChildProcess(ChildProcess&& other) noexcept { *this = std::move(other); }
  ChildProcess& operator=(ChildProcess&& other) noexcept {
    std::swap(pid_, other.pid_);
    std::swap(status_, other.status_);
    std::swap(ended_, other.ended_);
    return *this;
  }
  ~ChildProcess() { kill_and_reap(); }

  pid_t pid() const { return pid_; }

  /// Whether the process has ended; it is waited for once.
  bool ended() {
    if (!ended_) {
      ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
    }
    return ended_;
  }

  /// @return the exit status; -1 when a signal ended it, -2 when it has not ended within the bound
  int wait() {
    if (!eventually([this] { return ended(); })) {
      return -2;
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }

  void kill_and_reap() {
    if (pid_ > 0 && !ended()) {
      (void)::kill(pid_, SIGKILL);
      ended_ = waitpid(pid_, &status_, 0) == pid_;
    }
  }

 protected:
  ChildProcess() = default;

  pid_t pid_ = -1;
  int status_ = 0;  // as waitpid(2) gives it, once it has ended
  bool ended_ = false;
};

/// Where one process waits for another's word. Made before the fork, used once.
class Gate {
 public:
  Gate() { (void)!pipe(ends_); }
  ~Gate() {
    (void)close(ends_[0]);
    (void)close(ends_[1]);
  }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  void open() { (void)!write(ends_[1], "", 1); }
  void wait() {
    char byte;
    (void)!read(ends_[0], &byte, 1);
  }

 private:
  int ends_[2] = {-1, -1};
};
