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

// @param how SIG_BLOCK or SIG_UNBLOCK
void change_mask(int how) {
  sigset_t signals{};
  for (const Handler& handler : handlers) {
    (void)sigaddset(&signals, handler.signal);
  }
  (void)pthread_sigmask(how, &signals, nullptr);
}

// A handler must not change errno, which the interrupted code may be about to read.
template <typename Act>
void with_errno_kept(Act act) {
  const int error = errno;
  act();
  errno = error;
}

}  // namespace

void hold_signals() {
  change_mask(SIG_BLOCK);
}

void take_signals() {
  change_mask(SIG_UNBLOCK);
}

// No further signal is blocked while a handler runs.
void setsignals() {
  (void)fsfilter::get();
  (void)Logger::getLogger();
  for (const Handler& handler : handlers) {
    struct sigaction action {};
    action.sa_handler = handler.function;
    action.sa_flags = handler.flags;
    (void)sigaction(handler.signal, &action, nullptr);
  }
  struct sigaction fault {};
  fault.sa_sigaction = area_lost;
  fault.sa_flags = SA_SIGINFO;
  (void)sigaction(SIGBUS, &fault, nullptr);
}

void area_lost(int, siginfo_t* info, void*) {
  with_errno_kept([info] {
    const bool fault = info->si_code > 0;
    if (!fault || fsfilter_restore_area(info->si_addr) == 0) {
      (void)signal(SIGBUS, SIG_DFL);  // the access is repeated, and ends the process
    }
    if (!fault) {
      (void)raise(SIGBUS);  // somebody sent it; it takes effect when this handler returns
    }
  });
}

void terminate(int) {
  with_errno_kept([] {
    static constexpr char message[] = "terminate signal\n";
    Logger::disable_for_good();
    fsfilter::get()->stop();
    (void)!write(STDERR_FILENO, message, sizeof message - 1);  // last: it may be on a dead disk
  });
}

void startscan(int) {
  with_errno_kept(fservice::start_scanner);
}

void reconfigure(int) {
  with_errno_kept(fservice::reload_avdb);
}
