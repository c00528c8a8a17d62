// Opens one file again and again from several processes and prints how fast that went.
//
// opens FILE OPENERS OPENS: opens per second of all together, and the median and 99th percentile
// of one open in microseconds.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <span>

namespace {

using Clock = std::chrono::steady_clock;

float microseconds_since(Clock::time_point begin) {
  return std::chrono::duration<float, std::micro>(Clock::now() - begin).count();
}

// One opener's part of the work; its latencies go to the memory shared with the parent.
bool open_repeatedly(const char* file, std::span<float> latencies) {
  for (float& latency : latencies) {
    const Clock::time_point begin = Clock::now();
    const int fd = open(file, O_RDONLY | O_CLOEXEC);
    latency = microseconds_since(begin);
    if (fd < 0) {
      return false;
    }
    (void)close(fd);
  }
  return true;
}

std::span<float> shared_floats(std::size_t count) {
  void* memory = mmap(nullptr, count * sizeof(float), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::perror("mmap");
    std::exit(1);
  }
  return {static_cast<float*>(memory), count};
}

bool run_openers(const char* file, std::span<float> latencies, std::size_t openers) {
  const std::size_t each = latencies.size() / openers;
  for (std::size_t opener = 0; opener < openers; ++opener) {
    if (fork() == 0) {
      _exit(open_repeatedly(file, latencies.subspan(opener * each, each)) ? 0 : 1);
    }
  }
  bool all_opened = true;
  for (int status = 0; wait(&status) > 0;) {
    all_opened = all_opened && status == 0;
  }
  return all_opened;
}

}  // namespace

int main(int argc, char** argv) {
  const long openers = argc == 4 ? std::atol(argv[2]) : 0;
  const long opens = argc == 4 ? std::atol(argv[3]) : 0;
  if (openers <= 0 || opens <= 0) {
    (void)std::fprintf(stderr, "usage: opens FILE OPENERS OPENS\n");
    return 2;
  }
  const std::span<float> latencies = shared_floats(static_cast<std::size_t>(openers * opens));
  const Clock::time_point begin = Clock::now();
  if (!run_openers(argv[1], latencies, static_cast<std::size_t>(openers))) {
    (void)std::fprintf(stderr, "opens: an open of %s failed\n", argv[1]);
    return 1;
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  std::sort(latencies.begin(), latencies.end());
  (void)std::printf("%ld openers %8.0f opens/s  p50 %6.1f us  p99 %6.1f us\n", openers,
                    static_cast<double>(latencies.size()) / seconds,
                    static_cast<double>(latencies[latencies.size() / 2]),
                    static_cast<double>(latencies[latencies.size() * 99 / 100]));
  return 0;
}
