#include "process.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "temp_directory.h"

namespace e2e {
namespace {

/// For a kernel that shows no stack of another thread, as on ARM: the function that waits. Of what
/// it waits in, tests ask about FUSE alone: an open, or the filter's read, which opens the file of
/// an event.
std::string wait_without_stack(const std::string& folder) {
  std::string functions = read_file(folder + "wchan") + "\n";
  if (functions.find("fuse_") != std::string::npos) {
    const int call = std::atoi(read_file(folder + "syscall").c_str());
    functions += call == SYS_read ? "fanotify_read\n" : "fuse_open\n";
  }
  return functions;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Exit& exit) {
  if (exit.signal != 0) {
    return out << "ended by signal " << exit.signal;
  }
  return out << "exit status " << exit.code;
}

Process Process::adopt(pid_t pid) {
  Process process;
  process.pid_ = pid;
  return process;
}

std::optional<Exit> Process::wait(Duration bound) {
  if (!eventually([this] { return ended(); }, bound)) {
    return std::nullopt;
  }
  return WIFSIGNALED(status_) ? Exit{0, WTERMSIG(status_)} : Exit{WEXITSTATUS(status_), 0};
}

int Process::status(Duration bound) {
  const auto exit = wait(bound);
  if (!exit) {
    return still_stuck;
  }
  return exit->signal != 0 ? 256 + exit->signal : exit->code;
}

void Process::signal(int number) const {
  if (!ended_) {
    kill(pid_, number);
  }
}

std::vector<char*> arguments_of(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  return arguments;
}

void execute(const std::vector<std::string>& words) {
  execvp(words[0].c_str(), arguments_of(words).data());
  _exit(127);
}

std::string status_value(const std::string& process, const std::string& name) {
  std::ifstream status(process + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":")) {
      return line.substr(line.find_first_not_of(" \t", name.size() + 1));
    }
  }
  return "";
}

std::vector<int> statuses(std::vector<Process>& processes) {
  std::vector<int> results;
  for (Process& process : processes) {
    results.push_back(process.status());
  }
  return results;
}

int try_open(const std::string& path, int flags) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) {
    return errno;
  }
  close(fd);
  return 0;
}

Process start_open(const std::string& path, int flags) {
  return Process([&] { return try_open(path, flags); });
}

int open_status(const std::string& path, int flags) {
  return start_open(path, flags).status();
}

int write_status(const std::string& path, const std::string& content) {
  Process writer([&] {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
      return errno;
    }
    const bool written =
        write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    return close(fd) == 0 && written ? 0 : EIO;
  });
  return writer.status();
}

std::vector<std::string> names_in(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code gone;
  for (std::filesystem::directory_iterator entry(folder, gone), end; !gone && entry != end;
       entry.increment(gone)) {
    names.push_back(entry->path().filename());
  }
  return names;
}

std::vector<std::string> link_targets_in(const std::string& folder) {
  std::vector<std::string> targets;
  for (const std::string& name : names_in(folder)) {
    std::error_code gone;
    const auto target = std::filesystem::read_symlink(folder + "/" + name, gone);
    if (!gone) {
      targets.push_back(target);
    }
  }
  std::sort(targets.begin(), targets.end());
  return targets;
}

std::string waits_of(pid_t pid) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
  std::string text;
  for (const std::string& thread : names_in(tasks)) {
    const std::string stack = read_file(tasks + thread + "/stack");
    text += "thread " + thread + "\n";
    text += stack.empty() ? wait_without_stack(tasks + thread + "/") : stack;
  }
  return text;
}

bool has_closed_all(pid_t pid, const std::string& folder) {
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  const std::vector<std::string> threads = names_in(tasks);
  // Descriptors first: a close takes its file out of the table before it waits.
  const bool any_open = std::any_of(threads.begin(), threads.end(), [&](const std::string& thread) {
    const auto targets = link_targets_in(tasks + "/" + thread + "/fd");
    return std::any_of(targets.begin(), targets.end(),
                       [&](const std::string& target) { return target.starts_with(folder); });
  });
  return !any_open && std::none_of(threads.begin(), threads.end(), [&](const std::string& thread) {
    const std::string call = read_file(tasks + "/" + thread + "/syscall");
    return call.starts_with("running") || std::atoi(call.c_str()) == SYS_close;
  });
}

}  // namespace e2e
