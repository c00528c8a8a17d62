// Signals that wait until something is done.
#pragma once

#include <poll.h>
#include <sys/signalfd.h>

#include <chrono>
#include <csignal>

#include "descriptor.h"

/// Collects SIGINT, SIGTERM and SIGHUP while it lives, so that files which nobody else would remove
/// are gone before one of them ends the program; it does so when this object goes. For a program
/// with one thread.
class HeldSignals {
 public:
  HeldSignals() {
    (void)sigemptyset(&signals_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      (void)sigaddset(&signals_, signal);
    }
    (void)sigprocmask(SIG_BLOCK, &signals_, &before_);
    fd_ = Descriptor(signalfd(-1, &signals_, SFD_CLOEXEC));
  }
  ~HeldSignals() { (void)sigprocmask(SIG_SETMASK, &before_, nullptr); }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

  /// Readable once one has arrived.
  int fd() const { return fd_.get(); }

  /// Whether one has arrived, or arrives within the bound.
  bool arrived(std::chrono::milliseconds bound) const {
    pollfd ready{fd(), POLLIN, 0};
    return poll(&ready, 1, static_cast<int>(bound.count())) > 0;
  }

 private:
  sigset_t signals_{};
  sigset_t before_{};
  Descriptor fd_;
};
