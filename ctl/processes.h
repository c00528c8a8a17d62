// Other processes, as /proc shows them. Everything may have ended by the time it is asked about.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "descriptor.h"

struct ProcessFacts {
  std::string name;               ///< at most 15 bytes, any of them: the process chooses it
  char state = '?';               ///< as /proc/PID/stat has it: Z is one that has ended
  std::uint64_t start_ticks = 0;  ///< after the boot; with the pid, it is one process for good
  std::time_t started = 0;
  double cpu_seconds = 0;  ///< user and system time
  std::uint64_t resident_bytes = 0;
};

/// Nothing when there is no such process. pid 0 and below name none.
std::optional<ProcessFacts> facts_of(pid_t pid);

/// Whether the process runs a program called pelowatchd, as root or as the caller. Without the
/// right to see which file it runs, its name decides.
bool is_pelowatchd(pid_t pid);

/// The words of its command line; empty when they cannot be read.
std::vector<std::string> command_line_of(pid_t pid);

/// The environment it was started with, "NAME=value" each. Nothing without the right to see it.
std::optional<std::vector<std::string>> environment_of(pid_t pid);

/// What its descriptors are open on, as the kernel names it. Nothing without the right to see them.
std::optional<std::vector<std::string>> open_files_of(pid_t pid);

/// What its threads call themselves: at most 15 bytes, which may be any. Empty without the right to
/// see.
std::vector<std::string> thread_names_of(pid_t pid);

/// One process that is meant for good: a later one with the same pid is not confused with it.
/// Not synchronised.
class ProcessHandle {
 public:
  /// Nothing, with errno, when it cannot be had: ESRCH when there is no such process.
  static std::optional<ProcessHandle> open(pid_t pid);

  pid_t pid() const { return pid_; }

  /// @return 0, or an errno value: ESRCH when it has ended, EPERM without the right
  int signal(int number) const;

  /// @return whether it ended within the bound
  bool wait_until_ended(std::chrono::milliseconds bound) const;

 private:
  ProcessHandle(pid_t pid, std::uint64_t start_ticks, Descriptor fd)
      : pid_(pid), start_ticks_(start_ticks), fd_(std::move(fd)) {}
  bool ended() const;

  pid_t pid_;
  std::uint64_t start_ticks_;
  Descriptor fd_;  ///< a pidfd; none before Linux 5.3, where the start time has to do
};
