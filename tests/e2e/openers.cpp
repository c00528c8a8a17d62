#include "openers.h"

#include <algorithm>
#include <cerrno>
#include <thread>
#include <utility>

#include "impossible_stack.h"
#include "world.h"

namespace e2e {
namespace {

constexpr int threads_per_process = 500;

/// Opens the files numbered `first` to `last` (exclusive) at once; returns when all opens have.
int open_all(const std::vector<std::string>& files, int first, int last, Tally& tally) {
  set_default_stack_size(size_t{256} << 10);
  std::vector<std::thread> threads;
  for (int i = first; i < last; ++i) {
    threads.emplace_back([&file = files[static_cast<size_t>(i) % files.size()], &tally] {
      const int status = try_open(file);
      ++(status == 0 ? tally.allowed : status == EPERM ? tally.denied : tally.failed);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return 0;
}

/// @return the first wrong answer, or 0
int open_until_end(const std::vector<std::string>& clean, const std::vector<std::string>& infected,
                   const std::string& end_file) {
  while (!World::exists(end_file)) {
    for (const auto& [files, other_answer] : {std::pair(&clean, 0), {&infected, EPERM}}) {
      for (const std::string& file : *files) {
        if (const int status = try_open(file); status != 0 && status != other_answer) {
          return status;
        }
      }
    }
  }
  return 0;
}

bool all_end_well(std::vector<Process>& processes, Duration bound) {
  return std::all_of(processes.begin(), processes.end(),
                     [&](Process& process) { return process.status(bound) == 0; });
}

int64_t now() {
  return std::chrono::duration_cast<Micros>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

OpenersAtOnce::OpenersAtOnce(const std::vector<std::string>& files, int count) {
  for (int first = 0; first < count; first += threads_per_process) {
    const int last = std::min(first + threads_per_process, count);
    processes_.emplace_back([&, first, last] { return open_all(files, first, last, *tally_); });
  }
}

bool OpenersAtOnce::wait(Duration bound) {
  return all_end_well(processes_, bound);
}

OpenersUntilToldToEnd::OpenersUntilToldToEnd(int processes, const std::vector<std::string>& clean,
                                             const std::vector<std::string>& infected,
                                             std::string end_file) {
  for (int i = 0; i < processes; ++i) {
    processes_.emplace_back([&] { return open_until_end(clean, infected, end_file); });
  }
}

bool OpenersUntilToldToEnd::all_running() {
  return std::all_of(processes_.begin(), processes_.end(),
                     [](Process& process) { return process.running(); });
}

bool OpenersUntilToldToEnd::all_released(Duration bound) {
  return all_end_well(processes_, bound);
}

std::ostream& operator<<(std::ostream& out, const OpenTimes& times) {
  return out << times.opens << " opens, " << times.wrong << " wrong, p99 " << times.p99.count()
             << " us, worst " << times.worst.count() << " us";
}

OpenProbe::OpenProbe(const std::vector<std::string>& files, int expected, Duration pause)
    : process_([&] {
        for (size_t i = 0; i < record_->micros.size(); ++i) {
          record_->begun = now();
          const int status = try_open(files[i % files.size()]);
          record_->micros[i] = static_cast<uint32_t>(now() - record_->begun);
          record_->wrong += status == expected ? 0 : 1;
          record_->opens = i + 1;
          record_->begun = 0;
          std::this_thread::sleep_for(pause);
        }
        return 0;
      }) {}

OpenTimes OpenProbe::times() const {
  std::vector<int64_t> all(record_->micros.begin(),
                           record_->micros.begin() + static_cast<std::ptrdiff_t>(opens()));
  if (const int64_t begun = record_->begun; begun != 0) {
    all.push_back(now() - begun);
  }
  OpenTimes times{opens(), record_->wrong, {}, {}};
  if (!all.empty()) {
    std::sort(all.begin(), all.end());
    times.worst = Micros(all.back());
    times.p99 = Micros(all[(all.size() - 1) * 99 / 100]);
  }
  return times;
}

}  // namespace e2e
