#include "process_setup.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "daemon_config.h"
#include "daemonize.h"
#include "descriptor.h"

namespace {

constexpr rlim_t most_held = 16320;
constexpr rlim_t spare_descriptors = 64;  // for the log, the definitions, a folder scan
constexpr rlim_t spare_for_worker = 32;   // libclamav takes 17, one for each level of an archive

// A pipe or terminal is opened anew, since the process that passed it to us shares its flags. A
// socket cannot be opened anew, but one made by a service manager is ours alone.
void make_nonblocking(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0 || S_ISREG(status.st_mode)) {
    return;
  }
  if (S_ISSOCK(status.st_mode)) {
    (void)fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return;
  }
  char link[32];
  (void)std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const Descriptor again(open(link, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (again) {
    (void)dup2(again.get(), fd);
  }
}

void open_standard_streams() {
  int fd = -1;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  (void)close(fd);
}

}  // namespace

void prepare_process() {
  open_standard_streams();
  (void)umask(0);
  make_nonblocking(STDOUT_FILENO);
  make_nonblocking(STDERR_FILENO);
  (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
  for (const int ignored : {SIGPIPE, SIGXFSZ, SIGTSTP, SIGTTIN, SIGTTOU}) {
    (void)signal(ignored, SIG_IGN);
  }
  // If TZ is unset, the C library checks the zone file again whenever it converts a time.
  (void)setenv("TZ", ":/etc/localtime", 0);
  tzset();
}

void end_at_foreign_exit() {
  (void)std::atexit([] {
    if (gettid() != getpid()) {
      (void)remove_pidfile(pidfile_name);
      _exit(1);
    }
  });
}

int raise_descriptor_limit(int workers) {
  rlimit limit{};
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t spare = spare_descriptors + spare_for_worker * static_cast<rlim_t>(workers);
  const rlim_t left = limit.rlim_cur - std::min(spare, limit.rlim_cur / 2);
  return static_cast<int>(std::min(left, most_held));
}
