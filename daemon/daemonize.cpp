#include "daemonize.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr std::size_t path_size = 4096;

char basedir[path_size] = "/var/run";
char pidfile[path_size] = "";

// Cut at 4095 characters, where no path would open anyway.
void pidfile_path(const char* name, char (&path)[path_size]) {
  if (std::snprintf(path, sizeof path, "%s/%s.pid", basedir, name) < 0) {
    path[0] = '\0';
  }
}

// Other failures of stat are passed over: what is there already is not this function's to judge.
bool make_if_missing(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0 || errno != ENOENT || mkdir(path, 0755) == 0;
}

// What was sent to the parent and is held back would end with it.
void pass_on_signals(pid_t child) {
  sigset_t pending;
  if (sigpending(&pending) != 0) {
    return;
  }
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR2}) {
    if (sigismember(&pending, signal) == 1) {
      (void)kill(child, signal);
    }
  }
}

void close_standard_streams() {
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int fd : {STDERR_FILENO, STDOUT_FILENO, STDIN_FILENO}) {
    (void)dup2(nothing, fd);
  }
}

}  // namespace

int daemonize(int notdetach) {
  if (notdetach != 0) {
    (void)umask(0);
    return 0;
  }
  const pid_t child = fork();
  if (child < 0) {
    return -1;
  }
  if (child > 0) {
    pass_on_signals(child);
    _exit(0);  // the child owns what the process has built so far
  }
  (void)umask(0);
  if (setsid() < 0 || chdir("/") != 0) {
    std::exit(-1);
  }
  close_standard_streams();
  return 0;
}

int mkdirp(const char* path) {
  if (path == nullptr) {
    return -1;
  }
  const std::string whole(path);
  for (std::size_t slash = whole.find('/', 1); slash != std::string::npos;
       slash = whole.find('/', slash + 1)) {
    if (!make_if_missing(whole.substr(0, slash).c_str())) {
      return -1;
    }
  }
  return make_if_missing(path) ? 0 : -1;
}

int set_pidfile_dir(const char* dir) {
  if (mkdirp(dir) != 0) {
    return -1;
  }
  (void)std::snprintf(basedir, sizeof basedir, "%s", dir);
  return 0;
}

const char* create_pidfile(const char* name) {
  pidfile_path(name, pidfile);
  const int fd = open(pidfile, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    return nullptr;
  }
  char text[16];
  const int length = std::snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
  const bool written = write(fd, text, static_cast<std::size_t>(length)) == length;
  const int error = errno;
  (void)close(fd);
  errno = error;
  return written ? pidfile : nullptr;
}

int remove_pidfile(const char* name) {
  char path[path_size];
  pidfile_path(name, path);
  return unlink(path);
}

int get_pid(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return 0;
  }
  char text[80];
  const ssize_t length = read(fd, text, sizeof text - 1);
  (void)close(fd);
  if (length <= 0) {
    return 0;
  }
  text[length] = '\0';
  return static_cast<int>(std::strtol(text, nullptr, 10));
}
