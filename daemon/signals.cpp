#include "signals.h"

#include <unistd.h>

#include <cerrno>

#include "filter_service.h"
#include "fservice.h"
#include "fsfilter.h"
#include "logger.h"

namespace {

struct Handler {
  int signal;
  void (*function)(int);
  int flags;
};

constexpr Handler handlers[] = {
    {SIGTERM, terminate, 0},           {SIGINT, terminate, 0},
    {SIGUSR2, startscan, SA_RESTART},  {SIGALRM, startscan, SA_RESTART},
    {SIGHUP, reconfigure, SA_RESTART},
};

sigset_t handled_signals() {
  sigset_t signals;
  (void)sigemptyset(&signals);
  for (const Handler& handler : handlers) {
    (void)sigaddset(&signals, handler.signal);
  }
  return signals;
}

// The interrupted code may be about to read errno.
class ErrnoKept {
 public:
  ErrnoKept() = default;
  ~ErrnoKept() { errno = error_; }
  ErrnoKept(const ErrnoKept&) = delete;
  ErrnoKept& operator=(const ErrnoKept&) = delete;

 private:
  int error_ = errno;
};

}  // namespace

void hold_signals() {
  const sigset_t signals = handled_signals();
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void release_signals() {
  const sigset_t signals = handled_signals();
  (void)pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void setsignals() {
  (void)fsfilter::get();
  (void)Logger::getLogger();
  for (const Handler& handler : handlers) {
    struct sigaction action {};
    action.sa_handler = handler.function;
    action.sa_flags = handler.flags;
    (void)sigemptyset(&action.sa_mask);
    (void)sigaction(handler.signal, &action, nullptr);
  }
  struct sigaction fault {};
  fault.sa_sigaction = area_lost;
  fault.sa_flags = SA_SIGINFO;
  (void)sigemptyset(&fault.sa_mask);
  (void)sigaction(SIGBUS, &fault, nullptr);

  release_signals();
}

void area_lost(int, siginfo_t* info, void*) {
  const ErrnoKept errno_kept;
  const bool fault = info->si_code > 0;
  if (!fault || fsfilter_restore_area(info->si_addr) == 0) {
    (void)signal(SIGBUS, SIG_DFL);  // the access is repeated, and ends the process
  }
  if (!fault) {
    (void)raise(SIGBUS);  // somebody sent it; it comes when this handler returns
  }
}

void terminate(int) {
  const ErrnoKept errno_kept;
  static constexpr char message[] = "terminate signal\n";
  Logger::disable();
  fsfilter::get()->stop();
  (void)!write(STDERR_FILENO, message, sizeof message - 1);  // last: the file may be on a dead disk
}

void startscan(int) {
  const ErrnoKept errno_kept;
  fservice::start_scanner();
}

void reconfigure(int) {
  const ErrnoKept errno_kept;
  fservice::reload_avdb();
}
