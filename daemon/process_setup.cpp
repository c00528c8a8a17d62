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

namespace {

constexpr rlim_t most_descriptors = 16384;
constexpr rlim_t spare_descriptors = 64;  // for the log, the engine's files, the service thread

// A pipe or terminal is opened anew, since its flags are shared with whoever gave it to us. A
// socket cannot be; it is ours alone where a service manager made it.
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
  const int again = open(link, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (again >= 0) {
    (void)dup2(again, fd);
    (void)close(again);
  }
}

}  // namespace

void open_standard_streams() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) {
    fd = open("/dev/null", O_RDWR);
  }
  if (fd >= 0) {
    (void)close(fd);
  }
}

void prepare_process() {
  make_nonblocking(STDOUT_FILENO);
  make_nonblocking(STDERR_FILENO);
  (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
  (void)signal(SIGPIPE, SIG_IGN);
  // With TZ unset the C library looks at the zone file again whenever it converts a time.
  (void)setenv("TZ", ":/etc/localtime", 0);
  tzset();
}

int raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return static_cast<int>(spare_descriptors);
  }
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    limit.rlim_cur = before;
  }
  const rlim_t usable = std::min(limit.rlim_cur, most_descriptors);
  return static_cast<int>(std::max(usable, spare_descriptors + 1) - spare_descriptors);
}
