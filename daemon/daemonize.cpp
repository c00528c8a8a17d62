#include "daemonize.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "descriptor.h"

namespace {

constexpr std::size_t path_size = 4096;

char basedir[path_size] = "/var/run";
char pidfile[path_size] = "";

// Cut at 4095 characters: a longer path would not open anyway.
std::string pidfile_path(const char* name) {
  return (std::string(basedir) + "/" + name + ".pid").substr(0, path_size - 1);
}

// Signals that are pending in the parent would be lost when it ends.
void pass_on_signals(pid_t child) {
  sigset_t pending{};
  (void)sigpending(&pending);
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

int daemonize(int attached) {
  if (attached != 0) {
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

// Fails only if a missing directory cannot be made; other errors of stat() are ignored.
int mkdirp(const char* path) {
  if (path == nullptr) {
    return -1;
  }
  const std::string whole(path);
  for (std::size_t end = 0; end != std::string::npos;) {
    end = whole.find('/', end + 1);
    const std::string part = whole.substr(0, end);
    struct stat status {};
    if (stat(part.c_str(), &status) != 0 && errno == ENOENT && mkdir(part.c_str(), 0755) != 0) {
      return -1;
    }
  }
  return 0;
}

int set_pidfile_dir(const char* dir) {
  if (mkdirp(dir) != 0) {
    return -1;
  }
  (void)std::snprintf(basedir, sizeof basedir, "%s", dir);
  return 0;
}

const char* create_pidfile(const char* name) {
  (void)std::snprintf(pidfile, sizeof pidfile, "%s", pidfile_path(name).c_str());
  const Descriptor file(open(pidfile, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!file) {
    return nullptr;
  }
  const std::string text = std::to_string(getpid()) + "\n";
  const ssize_t written = write(file.get(), text.data(), text.size());
  return written == static_cast<ssize_t>(text.size()) ? pidfile : nullptr;
}

// The main thread and the lookout may both run this at the same time.
int remove_pidfile(const char* name) {
  return unlink(pidfile_path(name).c_str());
}

int get_pid(const char* path) {
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  char text[80] = "";
  (void)!read(file.get(), text, sizeof text - 1);
  return static_cast<int>(std::strtol(text, nullptr, 10));
}
