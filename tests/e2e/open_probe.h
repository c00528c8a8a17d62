// How long opens take, as somebody sees who makes one after the other while much else happens.
#ifndef PELOWATCHD_E2E_OPEN_PROBE_H
#define PELOWATCHD_E2E_OPEN_PROBE_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "process.h"

namespace e2e {

using Micros = std::chrono::microseconds;

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
  ~OpenProbe();
  OpenProbe(const OpenProbe&) = delete;
  OpenProbe& operator=(const OpenProbe&) = delete;

  /// How many opens have returned.
  size_t opens() const;

  /// What was seen so far. An open that has not returned counts with the time it has taken.
  OpenTimes times() const;

 private:
  struct Record;
  Record* record_;
  std::optional<Process> process_;
};

}  // namespace e2e

#endif
