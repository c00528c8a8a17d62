// Processes of a test: openers, the daemon, and what became of them. Every wait has a bound.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/types.h>

#include <chrono>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "child_process.h"

namespace e2e {

using Duration = std::chrono::milliseconds;

/// For conditions that hold soon on a healthy system; long enough for sanitizers and emulation on a
/// busy machine.
constexpr Duration patience = generous_bound;

/// The status of a process that did not end within its bound.
constexpr int still_stuck = -1;

/// How a process ended.
struct Exit {
  int code = 0;    // exit status
  int signal = 0;  // the signal that ended it, 0 for none
  bool operator==(const Exit&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Exit& exit);

/// A process started by the test.
class Process : public ChildProcess {
 public:
  using ChildProcess::ChildProcess;

  /// Takes over a child of this process that something else made.
  static Process adopt(pid_t pid);

  bool running() { return !ended(); }

  /// @return how it ended; nothing when it still runs after `bound`
  std::optional<Exit> wait(Duration bound = patience);

  /// @return its exit status; 256 + the signal that ended it; still_stuck when it still runs
  int status(Duration bound = patience);

  void signal(int number) const;

 private:
  Process() = default;
};

/// What a process and those that it forks share; zero at first.
template <typename Value>
class Shared {
 public:
  Shared()
      : value_(new (mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                         -1, 0)) Value{}) {}
  ~Shared() { munmap(value_, sizeof(Value)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  Value* operator->() const { return value_; }
  Value& operator*() const { return *value_; }

 private:
  Value* value_;
};

/// The words as exec(2) takes them, as long as they live.
std::vector<char*> arguments_of(const std::vector<std::string>& words);

/// Becomes another program, found as a shell does; status 127 without it.
[[noreturn]] void execute(const std::vector<std::string>& words);

/// A value that /proc says of a process ("/proc/PID") or a thread in its status, such as VmRSS;
/// empty without it.
std::string status_value(const std::string& process, const std::string& name);

/// The status of each, in order.
std::vector<int> statuses(std::vector<Process>& processes);

/// The names in a folder, in no order; of what goes meanwhile some may be left out.
std::vector<std::string> names_in(const std::string& folder);

/// What the links in a folder point to, sorted: such as those of a process's descriptors.
std::vector<std::string> link_targets_in(const std::string& folder);

/// Where in the kernel each thread of a process is: its stack, or what is known of it.
std::string waits_of(pid_t pid);

/// Whether no thread of the process has a file below `folder` open or is closing one: the close of
/// a file that another process serves waits for that server, and not even SIGKILL ends it.
bool has_closed_all(pid_t pid, const std::string& folder);

/// Opens and closes a file in a process of its own.
/// @return 0, the errno of open(2), or still_stuck (the opener was killed)
int open_status(const std::string& path, int flags = O_RDONLY);

/// The same without waiting for it.
Process start_open(const std::string& path, int flags = O_RDONLY);

/// Opens for writing (made if missing, emptied if not), writes and closes, in its own process.
int write_status(const std::string& path, const std::string& content);

/// Opens in the calling process: for the bodies of processes.
int try_open(const std::string& path, int flags = O_RDONLY);

}  // namespace e2e
