#include "open_probe.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <new>

namespace e2e {
namespace {

int64_t now() {
  return std::chrono::duration_cast<Micros>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

/// Shared with the process that opens.
struct OpenProbe::Record {
  std::atomic<size_t> wrong;
  std::atomic<size_t> opens;
  std::atomic<int64_t> begun;  // of the open under way; 0 between two
  std::array<std::atomic<uint32_t>, 1 << 16> micros;
};

std::ostream& operator<<(std::ostream& out, const OpenTimes& times) {
  return out << times.opens << " opens, " << times.wrong << " wrong, p99 " << times.p99.count()
             << " us, worst " << times.worst.count() << " us";
}

OpenProbe::OpenProbe(const std::vector<std::string>& files, int expected, Duration pause) {
  void* shared =
      mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  record_ = new (shared) Record{};
  process_.emplace([&]() -> int {
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
  });
}

OpenProbe::~OpenProbe() {
  process_.reset();
  munmap(record_, sizeof(Record));
}

size_t OpenProbe::opens() const {
  return record_->opens;
}

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
