#include "control.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <csignal>
#include <cstring>

#include "clock.h"
#include "running_daemon.h"

namespace {

ExitStatus refuse(const NoDaemon& none, std::ostream& errors) {
  fmt::print(errors, "pelowatchctl: {}{}\n",
             none.running ? "" : "pelowatchd is not running: ", none.reason);
  return none.running ? exit_failed : exit_not_running;
}

// Sends the signal to the daemon, or says why it could not, and goes on with the daemon.
template <typename Next>
ExitStatus signal_daemon(int signal, std::ostream& errors, Next next) {
  const std::variant<ProcessHandle, NoDaemon> found = find_daemon();
  if (const auto* none = std::get_if<NoDaemon>(&found)) {
    return refuse(*none, errors);
  }
  const auto& daemon = std::get<ProcessHandle>(found);
  const int error = daemon.signal(signal);
  if (error == 0) {
    return next(daemon);
  }
  fmt::print(errors, "pelowatchctl: cannot signal pelowatchd (process {}): {}\n", daemon.pid(),
             std::strerror(error));
  return error == ESRCH ? exit_not_running : exit_failed;
}

ExitStatus wait_for_end(const ProcessHandle& daemon, std::chrono::milliseconds bound,
                        std::ostream& out, std::ostream& errors) {
  const auto begin = Clock::now();
  if (!daemon.wait_until_ended(bound)) {
    fmt::print(errors,
               "pelowatchctl: pelowatchd (process {}) still runs {:g} seconds after it was asked "
               "to stop; it may wait in the kernel for a file system that does not answer\n",
               daemon.pid(), std::chrono::duration<double>(bound).count());
    return exit_failed;
  }
  const std::chrono::duration<double> took = Clock::now() - begin;
  fmt::print(out, "pelowatchd (process {}) stopped after {:.1f} seconds\n", daemon.pid(),
             took.count());
  if (pid_in_file() == daemon.pid()) {
    fmt::print(errors, "pelowatchctl: it has left {} behind; remove it before the next start\n",
               pid_file);
    return exit_failed;
  }
  return exit_ok;
}

}  // namespace

ExitStatus send_request(int signal, const char* request, std::ostream& out, std::ostream& errors) {
  return signal_daemon(signal, errors, [&](const ProcessHandle& daemon) {
    fmt::print(out, "asked pelowatchd (process {}) for {}\n", daemon.pid(), request);
    return exit_ok;
  });
}

ExitStatus stop_daemon(std::chrono::milliseconds bound, std::ostream& out, std::ostream& errors) {
  return signal_daemon(SIGTERM, errors, [&](const ProcessHandle& daemon) {
    return wait_for_end(daemon, bound, out, errors);
  });
}
