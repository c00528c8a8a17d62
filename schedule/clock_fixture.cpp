#include "clock_fixture.h"

#include <time.h>

#include <atomic>

namespace {

std::atomic<std::time_t> stated{0};

}  // namespace

void set_clock(std::time_t seconds) {
  stated = seconds;
}

// It stands before the C library's in the program that links it.
std::time_t time(std::time_t* out) noexcept {
  timespec now{};
  (void)clock_gettime(CLOCK_REALTIME, &now);
  const std::time_t seconds = stated == 0 ? now.tv_sec : stated.load();
  if (out != nullptr) {
    *out = seconds;
  }
  return seconds;
}
