#include "openers.h"

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "world.h"

namespace e2e {
namespace {

constexpr int kThreadsPerProcess = 500;

struct Task {
  const std::string* file;
  Tally* tally;
};

void* open_one(void* argument) {
  const Task& task = *static_cast<Task*>(argument);
  const int status = try_open(*task.file);
  if (status == 0) {
    ++task.tally->allowed;
  } else if (status == EPERM) {
    ++task.tally->denied;
  } else {
    ++task.tally->failed;
  }
  return nullptr;
}

/// Opens the files numbered `first` to `last` (exclusive) at once; returns when all opens have.
int open_all(const std::vector<std::string>& files, int first, int last, Tally* tally) {
  pthread_attr_t small;
  pthread_attr_init(&small);
  pthread_attr_setstacksize(&small, size_t{256} << 10);
  std::vector<Task> tasks;
  for (int i = first; i < last; ++i) {
    tasks.push_back({&files[static_cast<size_t>(i) % files.size()], tally});
  }
  std::vector<pthread_t> threads;
  for (Task& task : tasks) {
    pthread_t thread{};
    if (pthread_create(&thread, &small, open_one, &task) != 0) {
      return 1;
    }
    threads.push_back(thread);
  }
  for (const pthread_t thread : threads) {
    pthread_join(thread, nullptr);
  }
  return 0;
}

/// @return the first wrong answer, or 0
int open_until_end(const std::vector<std::string>& clean, const std::vector<std::string>& infected,
                   const std::string& end_file) {
  while (!World::exists(end_file)) {
    for (const std::string& file : clean) {
      if (const int status = try_open(file); status != 0) {
        return status;
      }
    }
    for (const std::string& file : infected) {
      if (const int status = try_open(file); status != 0 && status != EPERM) {
        return status;
      }
    }
  }
  return 0;
}

}  // namespace

OpenersAtOnce::OpenersAtOnce(const std::vector<std::string>& files, int count) {
  void* shared =
      mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  tally_ = new (shared) Tally{};
  for (int first = 0; first < count; first += kThreadsPerProcess) {
    const int last = std::min(first + kThreadsPerProcess, count);
    processes_.emplace_back([&, first, last] { return open_all(files, first, last, tally_); });
  }
}

OpenersAtOnce::~OpenersAtOnce() {
  processes_.clear();
  munmap(tally_, sizeof(Tally));
}

bool OpenersAtOnce::wait(Duration bound) {
  return std::all_of(processes_.begin(), processes_.end(),
                     [&](Process& process) { return process.status(bound) == 0; });
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
  return std::all_of(processes_.begin(), processes_.end(),
                     [&](Process& process) { return process.status(bound) == 0; });
}

}  // namespace e2e
