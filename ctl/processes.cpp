#include "processes.h"

#include <dirent.h>
#include <glob.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <thread>
#include <utility>

#include "clock.h"

namespace {

// Of Debian 12's C library the functions of these names cannot be called from C++.
int open_pidfd(pid_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

int send_signal(int pidfd, int number) {
  return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd, number, nullptr, 0));
}

std::string proc_path(pid_t pid, const char* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

std::string read_proc(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Each ended by a NUL. Nothing without the right to see them.
std::optional<std::vector<std::string>> words_of(pid_t pid, const char* name) {
  std::ifstream text(proc_path(pid, name), std::ios::binary);
  if (!text) {
    return std::nullopt;
  }
  std::vector<std::string> words;
  for (std::string word; std::getline(text, word, '\0');) {
    words.push_back(word);
  }
  return words;
}

std::optional<std::string> link_target(const std::string& path) {
  char target[4096];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  if (length < 0) {
    return std::nullopt;
  }
  return std::string(target, static_cast<std::size_t>(length));
}

// What follows the first word of this name.
std::istringstream behind(const std::string& path, std::string_view name) {
  std::istringstream text(read_proc(path));
  for (std::string word; text >> word && word != name;) {
  }
  return text;
}

// When the machine was booted, by the wall clock.
std::time_t boot_time() {
  long long seconds = 0;
  behind("/proc/stat", "btime") >> seconds;
  return static_cast<std::time_t>(seconds);
}

// The numbers of /proc/PID/stat by their place in proc(5), from the fourth field on. Reading ends
// at the 25th, a limit that is often beyond any signed number.
class StatFields {
 public:
  explicit StatFields(const std::string& text) {
    std::istringstream words(text);
    std::copy(std::istream_iterator<long long>(words), {}, std::back_inserter(numbers_));
  }
  std::uint64_t operator[](std::size_t field) const {
    const std::size_t at = field - 4;
    return at < numbers_.size() ? static_cast<std::uint64_t>(numbers_[at]) : 0;
  }

 private:
  std::vector<long long> numbers_;
};

bool names_pelowatchd(std::string program) {
  static constexpr std::string_view replaced = " (deleted)";  // by an upgrade, while it runs
  if (program.ends_with(replaced)) {
    program.erase(program.size() - replaced.size());
  }
  return program.substr(program.find_last_of('/') + 1) == "pelowatchd";
}

// Of root, or of whoever asks: a program of anybody else's may call itself what it likes.
bool of_a_trusted_user(pid_t pid) {
  uid_t real = 0;
  uid_t effective = 0;
  return behind(proc_path(pid, "status"), "Uid:") >> real >> effective &&
         (effective == 0 || effective == geteuid());
}

}  // namespace

std::optional<ProcessFacts> facts_of(pid_t pid) {
  if (pid <= 0) {
    return std::nullopt;
  }
  const std::string text = read_proc(proc_path(pid, "stat"));
  const std::size_t begin = text.find('(');
  const std::size_t end = text.rfind(')');  // the name may hold brackets and blanks
  if (begin == std::string::npos || end == std::string::npos || end + 3 > text.size()) {
    return std::nullopt;
  }
  const StatFields fields(text.substr(end + 3));
  const auto ticks_per_second = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
  ProcessFacts facts;
  facts.name = text.substr(begin + 1, end - begin - 1);
  facts.state = text[end + 2];
  facts.start_ticks = fields[22];
  facts.started = boot_time() + static_cast<std::time_t>(facts.start_ticks / ticks_per_second);
  facts.cpu_seconds =
      static_cast<double>(fields[14] + fields[15]) / static_cast<double>(ticks_per_second);
  facts.resident_bytes = fields[24] * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  return facts;
}

bool is_pelowatchd(pid_t pid) {
  const std::optional<ProcessFacts> facts = facts_of(pid);
  if (!facts || facts->state == 'Z' || !of_a_trusted_user(pid)) {
    return false;
  }
  if (const auto program = link_target(proc_path(pid, "exe"))) {
    return names_pelowatchd(*program);
  }
  return errno == EACCES && facts->name == "pelowatchd";
}

std::vector<std::string> command_line_of(pid_t pid) {
  return words_of(pid, "cmdline").value_or(std::vector<std::string>());
}

std::optional<std::vector<std::string>> environment_of(pid_t pid) {
  return words_of(pid, "environ");
}

std::optional<std::vector<std::string>> open_files_of(pid_t pid) {
  const std::string folder = proc_path(pid, "fd");
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(folder.c_str()), closedir);
  if (directory == nullptr) {
    return std::nullopt;
  }
  std::vector<std::string> files;
  while (const dirent* entry = readdir(directory.get())) {
    if (auto target = link_target(folder + "/" + entry->d_name)) {
      files.push_back(std::move(*target));
    }
  }
  return files;
}

std::vector<std::string> thread_names_of(pid_t pid) {
  glob_t files{};
  (void)glob(proc_path(pid, "task/*/comm").c_str(), GLOB_NOSORT, nullptr, &files);
  std::vector<std::string> names(files.gl_pathv, files.gl_pathv + files.gl_pathc);
  globfree(&files);
  for (std::string& name : names) {
    name = read_proc(name);
    if (!name.empty()) {
      name.pop_back();  // the newline
    }
  }
  return names;
}

std::optional<ProcessHandle> ProcessHandle::open(pid_t pid) {
  if (pid <= 0) {
    errno = ESRCH;
    return std::nullopt;
  }
  Descriptor fd(open_pidfd(pid));
  if (!fd && errno != ENOSYS) {
    return std::nullopt;
  }
  const std::optional<ProcessFacts> facts = facts_of(pid);
  if (!facts) {
    errno = ESRCH;
    return std::nullopt;
  }
  return ProcessHandle(pid, facts->start_ticks, std::move(fd));
}

int ProcessHandle::signal(int number) const {
  if (!fd_ && ended()) {
    return ESRCH;
  }
  const int result = fd_ ? send_signal(fd_.get(), number) : kill(pid_, number);
  return result == 0 ? 0 : errno;
}

bool ProcessHandle::wait_until_ended(std::chrono::milliseconds bound) const {
  const auto deadline = Clock::now() + bound;
  for (;;) {
    const auto left =
        std::max(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()),
                 std::chrono::milliseconds(0));
    if (fd_) {
      pollfd end{fd_.get(), POLLIN, 0};
      const int ready = poll(&end, 1, static_cast<int>(left.count()));
      if (ready >= 0 || errno != EINTR) {
        return ready > 0;
      }
    } else if (ended() || left.count() == 0) {
      return ended();
    } else {
      // There is nothing to wait on without a pidfd.
      std::this_thread::sleep_for(std::min(left, std::chrono::milliseconds(20)));
    }
  }
}

bool ProcessHandle::ended() const {
  const std::optional<ProcessFacts> facts = facts_of(pid_);
  return !facts || facts->start_ticks != start_ticks_ || facts->state == 'Z';
}
