#include "lookout.h"

#include <time.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "mutex.h"
#include "time_limits.h"

int Lookout::start(void (*take_signals)(), std::function<void()> last_resort) {
  constexpr std::size_t stack_size = 262144;
  take_signals_ = take_signals;
  last_resort_ = std::move(last_resort);
  return thread_.start([this] { look_out(); }, stack_size);
}

// Signals and note_stop() end a wait early.
void Lookout::look_out() {
  take_signals_();
  for (;;) {
    const auto noted = stop();
    if (!noted) {
      (void)sem_wait(&wake_);
      continue;
    }
    const timespec deadline = to_timespec(*noted + time_limits::last_resort);
    if (sem_clockwait(&wake_, CLOCK_MONOTONIC, &deadline) != 0 && errno == ETIMEDOUT) {
      last_resort_();
    }
  }
}
