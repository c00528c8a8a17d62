#include "lanes.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iterator>
#include <thread>
#include <utility>

#include "daemon_config.h"
#include "descriptor.h"
#include "event_scanner.h"
#include "fsfilter_group.h"
#include "mutex.h"

namespace {

// Gives the calling thread, and the threads that it starts, a descriptor table of their own that
// holds only `kept`. One by one, since kernels before 5.9 have no close_range().
// @return false with errno
bool keep_only(const std::set<int>& kept) {
  constexpr int most_descriptors = 65536;  // many more than events may be held
  if (PELO_SANITIZED_THREAD) {
    return true;  // ThreadSanitizer takes a process for one table
  }
  if (unshare(CLONE_FILES) != 0) {
    return false;
  }
  for (int fd = 0; fd < most_descriptors; ++fd) {
    if (!kept.contains(fd)) {
      (void)::close(fd);
    }
  }
  return true;
}

}  // namespace

/// One lane. It stays listed until all its threads have left.
class Lanes::Lane {
 public:
  /// @param all outlives the lane's threads
  Lane(Lanes& all, const mntpoint& mount) : all_(all), mount_(mount) {
    events_.set_limits_of(all.events_);
    events_.running.store(1);
  }

  bool is_of(const mntpoint& mount) const { return mount_.get() == mount.get(); }
  bool ending() const { return ending_.load(); }

  /// Starts the first thread. @return 0 or an errno value
  int start() { return wake_ ? run_thread(&Lane::lead) : errno; }

  /// Has the mount marked, as often as it is called.
  void watch() {
    watch_.store(true);
    (void)eventfd_write(wake_.get(), 1);
  }
  void end();

  bool wait_until_left(Clock::time_point deadline);

 private:
  int run_thread(void (Lane::*body)());
  void lead();
  void read();
  void scan();
  bool event_comes();
  void fail(int error);
  void let_go();
  void leave();

  Lanes& all_;
  const mntpoint mount_;
  /// Readable when there is something to attend to: for one thread, or at the end for all. It has
  /// the same number in the lane's table, which ends with the lane's threads.
  const Descriptor wake_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)};
  fsfilter_handle_t handle_ = nullptr;  ///< set before there is more than one thread
  eventsForProcessing events_;
  std::atomic<bool> watch_{false};    ///< whether the mount is to be marked
  std::atomic<bool> marking_{false};  ///< whether a thread is at it; a hung server takes no other
  std::atomic<bool> ending_{false};

  Mutex mutex_;
  Condition left_;
  int running_ PELO_GUARDED_BY(mutex_) = 0;
};

int Lanes::Lane::run_thread(void (Lane::*body)()) {
  ScopedLock lock(mutex_);
  try {
    std::thread([this, body] {
      try {
        (this->*body)();
      } catch (...) {
        fail(ENOMEM);  // whatever it was, the lane must not stay as one that watches
      }
      leave();
    }).detach();
  } catch (const std::exception&) {
    return EAGAIN;
  }
  ++running_;
  return 0;
}

// Starts the other threads before the mount is watched; one of each kind is enough.
void Lanes::Lane::lead() {
  std::set<int> kept = all_.descriptors_at_start_;
  (void)kept.insert(wake_.get());
  if (!keep_only(kept) || fsfilter_open_group(all_.filter_, &handle_) != 0) {
    fail(errno);
    return;
  }
  events_.set_filter(handle_);
  const int first_error = run_thread(&Lane::scan);
  if (first_error != 0) {
    fail(first_error);
    return;
  }
  const int wanted = std::min(GlobalConfig::getGlobalConfig()->MaxThreads, most_workers);
  for (int pairs = 1;
       pairs < wanted && run_thread(&Lane::scan) == 0 && run_thread(&Lane::read) == 0; ++pairs) {
  }
  read();
}

// A reader opens no file once the mount is marked, and never waits for a scanner: a scanner may
// itself wait for a reader, when the engine opens a file of this mount.
void Lanes::Lane::read() {
  fsfilter_event_struct event;
  while (!ending_.load()) {
    if (watch_.load() && !marking_.exchange(true)) {
      watch_.store(false);
      if (mount_.reg(handle_) != 0) {
        fail(errno);
      }
      marking_.store(false);
    } else if (event_comes() && request_event(handle_, &event, 0) == 0) {
      constexpr bool wake_each = true;
      (void)events_.post(event, wake_each);
    }
    events_.tend();
  }
}

// The engine may take long to take its handle back, so the marks go first.
void Lanes::Lane::scan() {
  EventScanner scanner(all_.events_.update_barrier, all_.cache_);
  int opens_in_a_row = 0;
  while (Held held = events_.take(scanner.number(), opens_in_a_row)) {
    scanner.renew_if_due();
    scanner.process(std::move(held));
  }
  let_go();
  scanner.release_handle();
}

// A thread that the eventfd has woken looks first at what it was woken for. All others return once
// a second, to look after the events that wait.
bool Lanes::Lane::event_comes() {
  constexpr int second = 1000;
  pollfd waits[] = {{fsfilter_descriptor(handle_), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
  (void)poll(waits, std::size(waits), second);
  if (eventfd_t woken = 0; waits[1].revents != 0) {
    (void)eventfd_read(wake_.get(), &woken);
  }
  return waits[0].revents != 0 && waits[1].revents == 0;
}

void Lanes::Lane::fail(int error) {
  try {
    all_.failed_(mount_, error);
  } catch (const std::bad_alloc&) {
    // The mount has left our table, so the next look at the system's table finds it again.
  }
  end();  // last: a lane that ends may have a successor, which has not failed
}

void Lanes::Lane::end() {
  constexpr eventfd_t more_than_threads = 1 << 30;
  ending_.store(true);
  events_.running.store(0);
  events_.end();
  (void)eventfd_write(wake_.get(), more_than_threads);
}

// In each thread, since any other may be stuck: lets go of everything that the lane holds.
void Lanes::Lane::let_go() {
  (void)fsfilter_unmark_all(handle_);
  (void)fsfilter_release_group(handle_);
}

// The last thread closes what is left, in the lane's descriptor table. If there is no group, there
// was only one thread, perhaps without a table of its own.
void Lanes::Lane::leave() {
  if (handle_ != nullptr) {
    let_go();
  }
  ScopedLock lock(mutex_);
  if (running_ == 1 && handle_ != nullptr) {
    lock.unlock();
    events_.drop();
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

Lanes::Lanes(const eventsForProcessing& events, CCaching& cache,
             std::function<void(const mntpoint&, int)> failed)
    : events_(events), cache_(cache), failed_(std::move(failed)) {}

Lanes::~Lanes() = default;

void Lanes::prepare(fsfilter_handle_t filter) {
  constexpr int most = 1024;  // few descriptors are open so early
  filter_ = filter;
  descriptors_at_start_.clear();
  for (int fd = 0; fd < most; ++fd) {
    if (fd != fsfilter_descriptor(filter) && fcntl(fd, F_GETFD) != -1) {
      (void)descriptors_at_start_.insert(fd);
    }
  }
}

int Lanes::open(const mntpoint& mount) {
  lanes_.remove_if([](Lane& lane) { return lane.ending() && lane.wait_until_left({}); });
  auto lane = std::find_if(lanes_.begin(), lanes_.end(), [&mount](const Lane& each) {
    return each.is_of(mount) && !each.ending();
  });
  if (lane == lanes_.end()) {
    lane = lanes_.emplace(lane, *this, mount);
    if (const int error = lane->start(); error != 0) {
      lanes_.erase(lane);
      errno = error;
      return -1;
    }
  }
  if (begun_) {
    lane->watch();
  }
  return 0;
}

void Lanes::begin() {
  begun_ = true;
  for (Lane& lane : lanes_) {
    lane.watch();
  }
}

void Lanes::close(const mntpoint& mount) {
  for (Lane& lane : lanes_) {
    if (lane.is_of(mount)) {
      lane.end();
    }
  }
}

void Lanes::end() {
  for (Lane& lane : lanes_) {
    lane.end();
  }
}

bool Lanes::wait_until_left(Clock::time_point deadline) {
  return std::all_of(lanes_.begin(), lanes_.end(),
                     [deadline](Lane& lane) { return lane.wait_until_left(deadline); });
}
