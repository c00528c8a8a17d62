// Opens one file again and again, or the files of a folder in turn, from several processes and
// prints how fast that went.
//
// opens FILE_OR_FOLDER OPENERS OPENS: opens per second of all together, and the median and 99th
// percentile of one open in microseconds. Each opener begins where the one before it ends: where
// OPENERS times OPENS is the number of files, each is opened once. Hidden files are left out.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Files = std::vector<std::string>;

bool is_hidden(const std::filesystem::path& path) {
  return path.filename().native().starts_with('.');
}

// The files of a folder in the order of their names; what is no folder stands for itself.
Files files_of(const std::string& path) {
  Files files;
  std::error_code no_folder;
  for (const auto& entry : std::filesystem::directory_iterator(path, no_folder)) {
    if (entry.is_regular_file() && !is_hidden(entry)) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return no_folder ? Files{path} : files;
}

float microseconds_since(Clock::time_point begin) {
  return std::chrono::duration<float, std::micro>(Clock::now() - begin).count();
}

// One opener's part of the work, from the given file on; its latencies go to the memory shared with
// the parent.
bool open_in_turn(const Files& files, std::size_t file, std::span<float> latencies) {
  for (float& latency : latencies) {
    const char* name = files[file++ % files.size()].c_str();
    const Clock::time_point begin = Clock::now();
    const int fd = open(name, O_RDONLY | O_CLOEXEC);
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

bool run_openers(const Files& files, std::span<float> latencies, std::size_t openers) {
  const std::size_t each = latencies.size() / openers;
  for (std::size_t opener = 0; opener < openers; ++opener) {
    const std::size_t first = opener * each;
    if (fork() == 0) {
      _exit(open_in_turn(files, first, latencies.subspan(first, each)) ? 0 : 1);
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
    (void)std::fprintf(stderr, "usage: opens FILE_OR_FOLDER OPENERS OPENS\n");
    return 2;
  }
  const Files files = files_of(argv[1]);
  if (files.empty()) {
    (void)std::fprintf(stderr, "opens: no file in %s\n", argv[1]);
    return 1;
  }
  const std::span<float> latencies = shared_floats(static_cast<std::size_t>(openers * opens));
  const Clock::time_point begin = Clock::now();
  if (!run_openers(files, latencies, static_cast<std::size_t>(openers))) {
    (void)std::fprintf(stderr, "opens: an open in %s failed\n", argv[1]);
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
