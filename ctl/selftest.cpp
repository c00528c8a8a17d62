#include "selftest.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ostream.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>

#include "at_or_above.h"
#include "clock.h"
#include "daemon_status.h"
#include "descriptor.h"
#include "held_signals.h"
#include "printing.h"
#include "test_file.h"

namespace {

// With AsyncLogging a record is written some time after the answer.
constexpr std::chrono::milliseconds log_bound = std::chrono::seconds(10);

// Results of an open beside 0 and errno values.
constexpr int no_answer = -1;
constexpr int interrupted = -2;
constexpr int opener_ended = -3;

struct Answer {
  bool written = true;  ///< false: `result` tells why the file could not be written
  int result = no_answer;
};

// Writes the file and opens it in a process of its own, which alone waits if nobody answers, and
// can be killed.
class Opener {
 public:
  explicit Opener(TestFile& file) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
      error_ = errno;
      return;
    }
    result_ = Descriptor(ends[0]);
    const Descriptor report(ends[1]);
    pid_ = fork();
    if (pid_ < 0) {
      error_ = errno;
    } else if (pid_ == 0) {
      write_and_open(file, report.get());
    }
  }
  ~Opener() {
    if (pid_ > 0) {
      (void)kill(pid_, SIGKILL);
      (void)waitpid(pid_, nullptr, 0);
    }
  }
  Opener(const Opener&) = delete;
  Opener& operator=(const Opener&) = delete;

  Answer wait(std::chrono::milliseconds bound, const HeldSignals& signals) const {
    if (error_ != 0) {
      return {false, error_};
    }
    pollfd ready[] = {{result_.get(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
    const int count = poll(ready, 2, static_cast<int>(bound.count()));
    if (count < 0) {
      return {false, errno};
    }
    if (count == 0) {
      return {true, no_answer};
    }
    if (ready[0].revents == 0) {
      return {true, interrupted};
    }
    Answer answer;
    return read(result_.get(), &answer, sizeof answer) == sizeof answer
               ? answer
               : Answer{true, opener_ended};
  }

 private:
  [[noreturn]] static void write_and_open(TestFile& file, int report) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int error = file.write();
    Answer answer{error == 0, error};
    if (answer.written) {
      answer.result = open(file.path().c_str(), O_RDONLY | O_CLOEXEC) < 0 ? errno : 0;
    }
    (void)!write(report, &answer, sizeof answer);
    _exit(0);
  }

  int error_ = 0;  ///< why there is no process
  pid_t pid_ = -1;
  Descriptor result_;
};

// Prints one line for each thing that must hold.
class Checklist {
 public:
  explicit Checklist(std::ostream& out) : out_(out) {}

  void check(bool holds, const std::string& text) {
    failed_ = failed_ || !holds;
    fmt::print(out_, "  {:<6}  {}\n", holds ? "ok" : "FAILED", text);
  }

  /// @param result of the open
  ExitStatus conclude(int result) const {
    fmt::print(out_, "{}\n",
               result == 0       ? "pelowatchd does NOT protect this folder"
               : result != EPERM ? "it is not known whether pelowatchd protects this folder"
               : failed_         ? "pelowatchd protects this folder, but something above FAILED"
                                 : "pelowatchd protects this folder");
    return failed_ ? exit_failed : exit_ok;
  }

 private:
  std::ostream& out_;
  bool failed_ = false;
};

bool is_folder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Where the daemon scans, in the order in which the area lists it.
std::vector<std::string> watched_folders(const DaemonStatus& status) {
  std::vector<std::string> folders = status.inclusions.empty() ? status.mounts : status.inclusions;
  const std::set<std::string, std::less<>> exclusions(status.exclusions.begin(),
                                                      status.exclusions.end());
  std::erase_if(folders, [&exclusions](const std::string& folder) {
    return !is_folder(folder) || find_at_or_above(exclusions, folder) != exclusions.end();
  });
  return folders;
}

struct Attempt {
  TestFile file;
  int result;
};

// In the first folder that takes the file.
std::optional<Attempt> open_test_file(const SelfTestOptions& options, const DaemonStatus& status,
                                      const HeldSignals& signals, std::ostream& errors) {
  const std::vector<std::string> folders =
      options.folder ? std::vector{*options.folder} : watched_folders(status);
  for (const std::string& folder : folders) {
    std::optional<TestFile> file = TestFile::in(folder);
    const Answer answer = file ? Opener(*file).wait(options.bound, signals) : Answer{false, errno};
    if (answer.written) {
      return Attempt{std::move(*file), answer.result};
    }
    fmt::print(errors, "pelowatchctl: cannot put a file into {}: {}\n", printable(folder),
               std::strerror(answer.result));
  }
  if (folders.empty()) {
    fmt::print(errors, "pelowatchctl: no folder is watched; name one with --folder\n");
  }
  return std::nullopt;
}

// The records of a log file from an offset on; of the whole file when it was emptied since.
std::string log_since(const LogFile& log) {
  std::ifstream file(log.path, std::ios::binary | std::ios::ate);
  const auto size = static_cast<std::uint64_t>(std::max<std::streamoff>(file.tellg(), 0));
  (void)file.seekg(static_cast<std::streamoff>(size < log.bytes ? 0 : log.bytes));
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool holds_detection(const std::string& records, const std::string& path) {
  const std::size_t detection = records.find("infection detected in:");
  return detection != std::string::npos &&
         records.find("\nPath: \"" + path + "\"\n", detection) != std::string::npos;
}

// Not longer than until a signal arrives.
bool logged(const LogFile& before, const std::string& path, std::chrono::milliseconds bound,
            const HeldSignals& signals) {
  const auto deadline = Clock::now() + bound;
  while (!holds_detection(log_since(before), path)) {
    if (Clock::now() > deadline || signals.arrived(std::chrono::milliseconds(20))) {
      return false;
    }
  }
  return true;
}

std::string answer_in_words(int result) {
  switch (result) {
    case EPERM:
      return "was refused: Operation not permitted";
    case 0:
      return "could be opened: it was NOT refused";
    case no_answer:
      return "was not answered in time";
    case opener_ended:
      return "was not opened: the process that was to do so has ended";
    default:
      return fmt::format("could not be opened for another reason: {}", std::strerror(result));
  }
}

}  // namespace

ExitStatus self_test(const SelfTestOptions& options, std::ostream& out, std::ostream& errors) {
  const HeldSignals signals;
  const DaemonStatus before = read_status();
  if (const ExitStatus readable = require_area(before, errors); readable != exit_ok) {
    return readable;
  }
  std::optional<Attempt> attempt = open_test_file(options, before, signals, errors);
  if (!attempt || attempt->result == interrupted) {
    return exit_failed;
  }
  const std::string& path = attempt->file.path();
  const bool refused = attempt->result == EPERM;
  const bool found =
      before.log &&
      logged(*before.log, path, refused ? log_bound : std::chrono::milliseconds(0), signals);
  if (signals.arrived(std::chrono::milliseconds(0))) {
    return exit_failed;
  }
  Checklist checklist(out);
  checklist.check(refused, fmt::format("{} {}", printable(path), answer_in_words(attempt->result)));
  checklist.check(
      found, before.log ? fmt::format("the detection is {} in {}", found ? "logged" : "NOT logged",
                                      printable(before.log->path))
                        : before.no_log.reason);
  const std::uint64_t denied = read_status().counters.denied;
  checklist.check(denied > before.counters.denied,
                  fmt::format("denied events went from {} to {}", grouped(before.counters.denied),
                              grouped(denied)));
  const int error = attempt->file.remove();
  checklist.check(error == 0, error == 0 ? "the test file is removed"
                                         : fmt::format("the test file cannot be removed: {}",
                                                       std::strerror(error)));
  return checklist.conclude(attempt->result);
}
