#include "lanes.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <exception>
#include <iterator>
#include <thread>
#include <utility>

#include "event_scanner.h"
#include "fsfilter_group.h"
#include "mutex.h"

namespace {

constexpr int most_descriptors = 65536;

// Kernels before 5.9 have no close_range(): the descriptors are closed one by one.
void close_range_of(int first, int last) {
  if (first <= last &&
      close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) != 0) {
    for (int fd = first; fd <= std::min(last, most_descriptors); ++fd) {
      (void)::close(fd);
    }
  }
}

// Gives the calling thread, and the threads that it starts, a descriptor table of their own that
// holds only `kept`. @return false with errno
bool keep_only(const std::set<int>& kept) {
  if (PELO_SANITIZED_THREAD) {
    return true;  // ThreadSanitizer takes a process for one table
  }
  if (unshare(CLONE_FILES) != 0) {
    return false;
  }
  int next = 0;
  for (const int fd : kept) {
    close_range_of(next, fd - 1);
    next = fd + 1;
  }
  close_range_of(next, INT_MAX);
  return true;
}

}  // namespace

/// One lane. It lives as long as it is listed or one of its threads runs.
class Lanes::Lane : public std::enable_shared_from_this<Lane> {
 public:
  /// @param all outlives the lane
  /// @param wake an eventfd, readable when there is something to attend to
  Lane(Lanes& all, fsfilter_handle_t filter, const mntpoint& mount, int threads, int wake)
      : all_(all), filter_(filter), mount_(mount), threads_(threads), wake_(wake) {}

  bool is_of(const mntpoint& mount) const { return mount_.get() == mount.get(); }
  bool ending() const { return ending_.load(); }

  /// Starts the first thread and waits until that has a descriptor table of its own.
  /// @return 0 or an errno value
  int start(std::set<int> kept);

  // For the thread that lists the lane: there the eventfd has the same number.
  void watch_again() {
    watch_.store(true);
    wake();
  }
  void end() {
    ending_.store(true);
    wake();
  }
  void wake() const { (void)eventfd_write(wake_, 1); }

  bool wait_until_left(Clock::time_point deadline);

 private:
  static constexpr int not_yet = -1;

  int run_thread(void (Lane::*body)());
  void lead();
  void serve();
  bool event_comes();
  void fail(int error);
  void leave();

  Lanes& all_;
  const fsfilter_handle_t filter_;
  const mntpoint mount_;
  const int threads_;
  const int wake_;
  std::set<int> kept_;                  ///< descriptors that the lane's threads keep
  std::atomic<int> apart_{not_yet};     ///< 0 or an errno value, once its table is made
  fsfilter_handle_t handle_ = nullptr;  ///< set before there is more than one thread
  std::atomic<bool> watch_{true};
  std::atomic<bool> ending_{false};

  Mutex mutex_;
  Condition left_;
  int running_ PELO_GUARDED_BY(mutex_) = 0;
};

int Lanes::Lane::start(std::set<int> kept) {
  kept_ = std::move(kept);
  if (const int error = run_thread(&Lane::lead); error != 0) {
    return error;
  }
  apart_.wait(not_yet);
  return apart_.load();
}

int Lanes::Lane::run_thread(void (Lane::*body)()) {
  ScopedLock lock(mutex_);
  try {
    std::thread([self = shared_from_this(), body] {
      try {
        ((*self).*body)();
      } catch (...) {
        self->fail(ENOMEM);  // whatever it was, the lane must not stay as one that watches
      }
      self->leave();
    }).detach();
  } catch (const std::exception&) {
    return EAGAIN;
  }
  ++running_;
  return 0;
}

// Starts the other threads before the mount is watched. If that fails, one thread is enough.
void Lanes::Lane::lead() {
  const bool apart = keep_only(kept_);
  apart_.store(apart ? 0 : errno);
  apart_.notify_all();
  if (!apart) {
    return;
  }
  if (fsfilter_open_group(filter_, &handle_) != 0) {
    fail(errno);
    return;
  }
  for (int others = 1; others < threads_ && run_thread(&Lane::serve) == 0;) {
    ++others;
  }
  serve();
}

void Lanes::Lane::serve() {
  EventScanner scanner(all_.events_, all_.cache_);
  fsfilter_event_struct event;
  while (!ending_.load()) {
    if (all_.begun_.load() && watch_.exchange(false)) {
      if (mount_.reg(handle_) != 0) {
        fail(errno);
      }
    } else if (event_comes() && request_event(handle_, &event, 0) == 0) {
      if (Held held = all_.events_.hold(handle_, event)) {
        if (scanner.renewal_due()) {
          scanner.renew_handle();
        }
        scanner.process(std::move(held));
      }
    }
  }
  scanner.release_handle();
}

// A thread woken by the eventfd does not take an event in the same turn: an event may take long.
bool Lanes::Lane::event_comes() {
  pollfd waits[] = {{fsfilter_descriptor(handle_), POLLIN, 0}, {wake_, POLLIN, 0}};
  (void)poll(waits, std::size(waits), -1);
  if (eventfd_t woken = 0; waits[1].revents != 0) {
    (void)eventfd_read(wake_, &woken);
  }
  return waits[0].revents != 0 && waits[1].revents == 0;
}

void Lanes::Lane::fail(int error) {
  try {
    all_.failed_(mount_, error);
  } catch (const std::bad_alloc&) {
    // The mount has left our table, so the next look at the system's table finds it again.
  }
  ending_.store(true);  // last: a lane that ends may have a successor, which has not failed
}

// Each thread that leaves wakes the next one: a thread that reads the eventfd takes the wake-up
// away from the others. The last thread closes the group, in the lane's descriptor table. If there
// is no group, there was only one thread, perhaps without a table of its own.
void Lanes::Lane::leave() {
  if (handle_ != nullptr) {
    (void)fsfilter_unmark_all(handle_);
    wake();
  }
  ScopedLock lock(mutex_);
  if (running_ == 1 && handle_ != nullptr) {
    lock.unlock();
    (void)unregister_filter(handle_);
    lock.lock();
  }
  --running_;
  left_.notify_all();
}

bool Lanes::Lane::wait_until_left(Clock::time_point deadline) {
  ScopedLock lock(mutex_);
  while (running_ > 0 && left_.wait_until(lock, deadline)) {
  }
  return running_ == 0;
}

Lanes::Lanes(eventsForProcessing& events, CCaching& cache,
             std::function<void(const mntpoint&, int)> failed)
    : events_(events), cache_(cache), failed_(std::move(failed)) {}

void Lanes::prepare() {
  constexpr int most = 1024;  // few descriptors are open so early
  lasting_.clear();
  for (int fd = 0; fd < most; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) {
      (void)lasting_.insert(fd);
    }
  }
}

int Lanes::open(fsfilter_handle_t filter, const mntpoint& mount, int threads) {
  std::erase_if(lanes_, [](const Entry& entry) {
    return entry.lane->ending() && entry.lane->wait_until_left({});
  });
  for (const Entry& entry : lanes_) {
    if (entry.lane->is_of(mount) && !entry.lane->ending()) {
      entry.lane->watch_again();
      return 0;
    }
  }
  Descriptor wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake) {
    return -1;
  }
  std::set<int> kept = lasting_;
  (void)kept.erase(fsfilter_descriptor(filter));
  (void)kept.insert(wake.get());
  const auto lane = std::make_shared<Lane>(*this, filter, mount, threads, wake.get());
  if (const int error = lane->start(std::move(kept)); error != 0) {
    errno = error;
    return -1;
  }
  lanes_.push_back({lane, std::move(wake)});
  return 0;
}

void Lanes::begin() {
  begun_.store(true);
  for (const Entry& entry : lanes_) {
    entry.lane->wake();
  }
}

void Lanes::close(const mntpoint& mount) {
  for (const Entry& entry : lanes_) {
    if (entry.lane->is_of(mount)) {
      entry.lane->end();
    }
  }
}

void Lanes::end() {
  for (const Entry& entry : lanes_) {
    entry.lane->end();
  }
}

bool Lanes::wait_until_left(Clock::time_point deadline) {
  return std::all_of(lanes_.begin(), lanes_.end(), [deadline](const Entry& entry) {
    return entry.lane->wait_until_left(deadline);
  });
}
