// Processes that open many files: at once, again and again, and with a look at the clock.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "process.h"

namespace e2e {

/// How many opens ended how; shared by all processes of a test.
struct Tally {
  std::atomic<int> allowed;
  std::atomic<int> denied;  // EPERM
  std::atomic<int> failed;  // any other error
  int finished() const { return allowed + denied + failed; }
};

/// Opens files at the same time, each on a thread of its own, in a few processes.
class OpenersAtOnce {
 public:
  /// Opens each file of `files` in turn until `count` opens are under way.
  OpenersAtOnce(const std::vector<std::string>& files, int count);
  const Tally& tally() const { return *tally_; }

  /// @return false when some opens have not returned within the bound
  bool wait(Duration bound = patience);

 private:
  Shared<Tally> tally_;
  std::vector<Process> processes_;
};

/// Processes that open files again and again until they are told to end.
class OpenersUntilToldToEnd {
 public:
  /// `clean` files must always open; `infected` ones may be refused, and so may nothing else.
  OpenersUntilToldToEnd(int processes, const std::vector<std::string>& clean,
                        const std::vector<std::string>& infected, std::string end_file);

  /// True while every process has kept going without a wrong answer.
  bool all_running();

  /// After the end file was made: every process ended, none was stuck, none got a wrong answer.
  bool all_released(Duration bound = patience);

 private:
  std::vector<Process> processes_;
};

using Micros = std::chrono::microseconds;

/// How long opens take, as somebody sees who makes one after the other.
struct OpenTimes {
  size_t opens = 0;
  size_t wrong = 0;  // with another result than the one expected
  Micros worst{0};
  Micros p99{0};
};
std::ostream& operator<<(std::ostream& out, const OpenTimes& times);

/// Opens files in turn, in a process of its own, until the end of its life.
class OpenProbe {
 public:
  /// @param expected what each open must give: 0 or an errno
  explicit OpenProbe(const std::vector<std::string>& files, int expected = 0,
                     Duration pause = Duration(2));

  /// How many opens have returned.
  size_t opens() const { return record_->opens; }

  /// What was seen so far. An open that has not returned counts with the time it has taken.
  OpenTimes times() const;

 private:
  struct Record {
    std::atomic<size_t> wrong;
    std::atomic<size_t> opens;
    std::atomic<int64_t> begun;  // of the open under way; 0 between two
    std::array<std::atomic<uint32_t>, 1 << 16> micros;
  };
  Shared<Record> record_;
  Process process_;
};

}  // namespace e2e
