// For the tests of the worker pool and of the loop: callbacks that wait for the test.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "events_fixture.h"
#include "impossible_stack.h"
#include "wait.h"

/// What callbacks have seen, and where they wait.
class Callbacks {
 public:
  /// Of the running test; the callbacks are plain functions.
  static Callbacks& get() {
    static Callbacks callbacks;
    return callbacks;
  }

  static int allow(fsfilter_handle_t handle, fsfilter_event_struct* event) {
    return get().run(handle, event, FSFILTER_ALLOW);
  }
  static int deny(fsfilter_handle_t handle, fsfilter_event_struct* event) {
    return get().run(handle, event, FSFILTER_DENY);
  }
  /// Waits until the test lets callbacks pass.
  static int wait_and_deny(fsfilter_handle_t handle, fsfilter_event_struct* event) {
    const int verdict = get().run(handle, event, FSFILTER_DENY);
    get().wait_to_pass();
    return verdict;
  }

  /// How many callbacks have begun.
  std::size_t begun() {
    const std::lock_guard lock(mutex_);
    return seen_.size();
  }
  bool eventually_begun(std::size_t count) {
    return eventually([&] { return begun() >= count; });
  }

  void let_pass(int callbacks = 1 << 30) {
    const std::lock_guard lock(mutex_);
    may_pass_ += callbacks;
    changed_.notify_all();
  }

  /// What a callback has noted when it began.
  struct Seen {
    fsfilter_event_struct event;
    fsfilter_handle_t handle;
    void* word;
    pid_t thread;
  };
  std::vector<Seen> seen() {
    const std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  int run(fsfilter_handle_t handle, const fsfilter_event_struct* event, int verdict) {
    const std::lock_guard lock(mutex_);
    seen_.push_back({*event, handle, fsfilter_callback_data(), gettid()});
    return verdict;
  }

  void wait_to_pass() {
    std::unique_lock lock(mutex_);
    (void)changed_.wait_for(lock, generous_bound, [this] { return may_pass_ > 0; });
    --may_pass_;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::int64_t may_pass_ = 0;
  std::vector<Seen> seen_;
};

/// An event loop in a thread of its own.
struct RunningLoop : event_loop_data_struct {
  RunningLoop() : event_loop_data_struct{} {}

  void begin() {
    stop = 1;
    thread = std::thread([this] { EXPECT_EQ(start_event_loop(this), 0); });
    // A stop is forgotten that comes before the loop has begun.
    ASSERT_TRUE(eventually([this] { return std::atomic_ref(stop).load() == 0; }));
  }

  void end() {
    if (thread.joinable()) {
      EXPECT_EQ(stop_event_loop(this), 0);
      thread.join();
    }
  }

  std::thread thread;
};

/// The folders in /proc of the worker threads. The process may have others too: a sanitizer's, for
/// instance.
inline std::vector<std::filesystem::path> workers() {
  std::vector<std::filesystem::path> workers;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (read_file(task.path() / "comm") == "fsfilter-worker\n") {
      workers.push_back(task.path());
    }
  }
  return workers;
}
inline std::ptrdiff_t workers_of_process() {
  return std::ssize(workers());
}
inline bool all_workers_sleep() {
  const auto all = workers();
  return all.size() == 3 && std::all_of(all.begin(), all.end(), [](const auto& worker) {
           return read_file(worker / "stat").find("(fsfilter-worker) S ") != std::string::npos;
         });
}
inline bool eventually_workers(std::ptrdiff_t count) {
  return eventually([count] { return workers_of_process() == count; });
}

/// While it lives no thread can be made: there is no memory for its stack.
class NoThreads {
 public:
  NoThreads() {
    (void)pthread_getattr_default_np(&before_);
    pthread_attr_t huge = before_;
    (void)pthread_attr_setstacksize(&huge, impossible_stack);
    (void)pthread_setattr_default_np(&huge);
  }
  ~NoThreads() { (void)pthread_setattr_default_np(&before_); }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t before_;
};

class PoolTest : public EventsTest {
 protected:
  /// Before the filter goes, whose jobs the workers may hold.
  void TearDown() override {
    Callbacks::get().let_pass();
    EXPECT_EQ(fsfilter_thread_end(), 0);
  }

  /// An event that the test's reader has taken.
  fsfilter_event_struct taken(FedFilter& filter) {
    filter.feed(open_mask, event_fd());
    fsfilter_event_struct event{};
    EXPECT_EQ(request_event(filter.handle(), &event, 0), 0);
    return event;
  }
  fsfilter_event_struct taken() { return taken(filter_); }

  /// Posts an event. @return its descriptor
  int post(FedFilter& filter, fsfilter_callback_t callback) {
    fsfilter_event_struct event = taken(filter);
    event.result = FSFILTER_DENY;  // which is not what counts
    EXPECT_EQ(fsfilter_thread_post_job(filter.handle(), &event, callback), 0);
    return event.fd;
  }
  int post(fsfilter_callback_t callback) { return post(filter_, callback); }

  /// Keeps as many workers busy as there are callbacks. @return the descriptors of their events
  std::vector<int> occupy(std::size_t workers) {
    const std::size_t before = Callbacks::get().begun();
    std::vector<int> fds;
    while (fds.size() < workers) {
      fds.push_back(post(Callbacks::wait_and_deny));
      EXPECT_TRUE(Callbacks::get().eventually_begun(before + fds.size()));
    }
    return fds;
  }

  /// Lets this thread, and those it makes from now on, share one processor with the workers that
  /// there are, and run before them.
  static void run_first() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    (void)sched_setaffinity(0, sizeof one, &one);
    for (const std::filesystem::path& worker : workers()) {
      (void)sched_setaffinity(std::stoi(worker.filename()), sizeof one, &one);
    }
    sched_param first{};
    first.sched_priority = 1;
    if (sched_setscheduler(0, SCHED_FIFO, &first) != 0) {
      GTEST_SKIP() << "needs the right to a real-time priority: else workers may run first";
    }
  }

  static bool eventually_closed(int fd) {
    return eventually([fd] { return !is_open(fd); });
  }
};
