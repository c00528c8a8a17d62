#include "isolation.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace e2e {
namespace {

std::string missing;
std::string base;

std::string because(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

/// Tries what the daemon needs: a mount mark with permission events, on the private mount `folder`.
std::string try_permission_events(const std::string& folder) {
  const int group = fanotify_init(FAN_CLASS_CONTENT | FAN_UNLIMITED_QUEUE, O_RDONLY);
  if (group < 0) {
    return because("fanotify_init");
  }
  const int marked =
      fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_PERM, AT_FDCWD, folder.c_str());
  const std::string result = marked == 0 ? "" : because("no permission events: fanotify_mark");
  close(group);
  return result;
}

/// Makes the mount namespace of the calling process its own and tries it out.
std::string make_mounts_private() {
  if (unshare(CLONE_NEWNS) != 0) {
    return because("unshare");
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return because("private mounts");
  }
  if (mount("proc", "/proc", "proc", 0, nullptr) != 0) {
    return because("mount of /proc");
  }
  if (mount("tmpfs", base.c_str(), "tmpfs", 0, nullptr) != 0) {
    return because("mount of a tmpfs");
  }
  const std::string result = try_permission_events(base);
  umount2(base.c_str(), MNT_DETACH);
  return result;
}

int run_child(const std::function<int()>& body) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  missing = make_mounts_private();
  return body();
}

/// Ends the process without the search for leaks that sanitizers make at exit(): it does not work
/// in the first process of a pid namespace, nor in one whose children's namespace has ended. It is
/// the daemon's leaks that matter.
[[noreturn]] void leave(int result) {
  std::fflush(nullptr);
  _exit(result);
}

int result_of(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) {
    return WEXITSTATUS(status);
  }
  std::fprintf(stderr, "the test process was ended by signal %d\n", WTERMSIG(status));
  return 1;
}

}  // namespace

int run_isolated(const std::function<int()>& body) {
  char folder[] = "/tmp/pelo-e2e-XXXXXX";
  if (geteuid() != 0) {
    missing = "not run as root";
  } else if (mkdtemp(folder) == nullptr) {
    missing = because("mkdtemp");
  } else if (unshare(CLONE_NEWPID) != 0) {
    missing = because("unshare of the pid namespace");
    rmdir(folder);
  }
  if (!missing.empty()) {
    return body();
  }
  base = folder;
  const pid_t child = fork();
  if (child == 0) {
    leave(run_child(body));
  }
  const int result = child < 0 ? 1 : result_of(child);
  rmdir(folder);
  leave(result);
}

const std::string& missing_privilege() {
  return missing;
}

const std::string& base_folder() {
  return base;
}

}  // namespace e2e
