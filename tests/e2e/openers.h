// Many opens at once.
#ifndef PELOWATCHD_E2E_OPENERS_H
#define PELOWATCHD_E2E_OPENERS_H

#include <atomic>
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
  ~OpenersAtOnce();
  OpenersAtOnce(const OpenersAtOnce&) = delete;
  OpenersAtOnce& operator=(const OpenersAtOnce&) = delete;

  const Tally& tally() const { return *tally_; }

  /// @return false when some opens have not returned within the bound
  bool wait(Duration bound = kPatience);

 private:
  Tally* tally_;
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
  bool all_released(Duration bound = kPatience);

 private:
  std::vector<Process> processes_;
};

}  // namespace e2e

#endif
