// Reading events and answering them.
//
// From the read on, an event's descriptor is ours and its opener waits. decide() either keeps the
// event for the consumer, who answers it with set_result(), or has it answered here; there is no
// third way out. Everything on this road runs on the one thread that answers the kernel, so it
// opens no file, takes no lock that somebody may hold while opening one, allocates nothing and
// prints nothing.
#include <sys/fanotify.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "fsfilter_context.h"
#include "monotonic_clock.h"

namespace {

using Clock = std::chrono::steady_clock;

static_assert(FAN_EVENT_METADATA_LEN == 24);

// The counters are other processes' too, for whom a lock in this one would mean nothing.
using AtomicCounter = std::atomic_ref<std::uint64_t>;
static_assert(AtomicCounter::is_always_lock_free);
static_assert(offsetof(fsfilter_shared_area, statistics) % AtomicCounter::required_alignment == 0);
static_assert(offsetof(fsfilter_stat_struct, denied) % AtomicCounter::required_alignment == 0);

std::atomic<std::uint64_t> next_message_id{1};

timeval time_left(Clock::time_point deadline) {
  const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
  const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(left).count();
  timeval result{};
  result.tv_sec = static_cast<time_t>(microseconds / 1000000);
  result.tv_usec = static_cast<suseconds_t>(microseconds % 1000000);
  return result;
}

bool wait_readable(int fd, Clock::time_point deadline) {
  if (fd < 0 || fd >= FD_SETSIZE) {
    return false;
  }
  for (;;) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval left = time_left(deadline);
    const int ready = select(fd + 1, &readable, nullptr, nullptr, &left);
    if (ready >= 0 || errno != EINTR) {
      return ready > 0;
    }
  }
}

// Says in the context that the reader is busy, from the moment an event is there.
class Busy {
 public:
  explicit Busy(std::atomic<std::int64_t>* since) : since_(since) {}
  ~Busy() { end(); }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

  void begin() { store(monotonic_milliseconds()); }
  void end() { store(0); }

 private:
  void store(std::int64_t value) {
    if (since_ != nullptr) {
      since_->store(value, std::memory_order_relaxed);
    }
  }

  std::atomic<std::int64_t>* since_;  // null for a reader that nobody watches
};

bool read_event(fsfilter_context_t* context, Clock::time_point deadline, Busy& busy,
                fanotify_event_metadata* metadata) {
  busy.end();
  if (!wait_readable(context->fanotify_fd, deadline)) {
    return false;
  }
  busy.begin();
  const ssize_t count = read(context->fanotify_fd, metadata, sizeof *metadata);
  return count >= static_cast<ssize_t>(sizeof *metadata) &&
         metadata->event_len >= sizeof *metadata &&
         static_cast<ssize_t>(metadata->event_len) <= count;
}

// Everything of the event but its path, of which only the terminator is written.
void fill(const fsfilter_context_t* context, const fanotify_event_metadata& metadata,
          fsfilter_event_struct* event) {
  event->filter_fd = context->fanotify_fd;
  event->mask = metadata.mask;
  event->message_id = next_message_id.fetch_add(1, std::memory_order_relaxed);
  event->type = get_metadata_type(metadata.mask);
  event->fd = metadata.fd;
  event->pid = metadata.pid;
  event->result = FSFILTER_ALLOW;
  event->path[0] = '\0';
}

static_assert(sizeof(off_t) == 8 && sizeof(time_t) == 8, "large files and late dates");

// A file that cannot be asked is not passed over for that.
bool may_be_regular_file(int fd) {
  struct stat status {};
  return fstat(fd, &status) != 0 || S_ISREG(status.st_mode);
}

bool named(fsfilter_context_t* context, fsfilter_event_struct* event) {
  if (get_file_name(event, event->path, sizeof event->path) >= 1) {
    return true;
  }
  context->unnamed_events.fetch_add(1, std::memory_order_relaxed);
  return false;
}

// Whether the consumer must decide this event.
bool wanted(fsfilter_context_t* context, fsfilter_event_struct* event) {
  return may_be_regular_file(event->fd) && event->type != FSFILTER_OTHER &&
         is_trusted_pid(context, event->pid) == 0 && named(context, event) &&
         is_included(context, event->path) == 1 && is_excluded(context, event->path) == 0;
}

int take_event(fsfilter_context_t* context, fsfilter_event_struct* event,
               std::chrono::milliseconds timeout, Busy&& busy) {
  const Clock::time_point deadline = Clock::now() + timeout;
  fsfilter_event_struct candidate;
  do {
    fanotify_event_metadata metadata{};
    if (!read_event(context, deadline, busy, &metadata)) {
      return -1;
    }
    if (metadata.fd < 0) {
      // The kernel's word that its queue has overflowed: nobody waits for an answer.
      context->unnamed_events.fetch_add(1, std::memory_order_relaxed);
      continue;
    }
    fill(context, metadata, &candidate);
    if (wanted(context, &candidate)) {
      std::memcpy(event, &candidate,
                  offsetof(fsfilter_event_struct, path) + std::strlen(candidate.path) + 1);
      return 0;
    }
    (void)set_result(context, &candidate);
  } while (Clock::now() < deadline);
  return -1;
}

}  // namespace

uint32_t get_metadata_type(uint64_t mask) {
  if ((mask & FAN_OPEN_PERM) != 0) {
    return FSFILTER_OPEN;
  }
  return (mask & FAN_CLOSE_WRITE) != 0 ? FSFILTER_CLOSE_WR : FSFILTER_OTHER;
}

int request_one_event(fsfilter_handle_t handle, struct fsfilter_event_struct* event,
                      int timeout_seconds) {
  if (handle == nullptr || event == nullptr) {
    return -1;
  }
  fsfilter_context_t* context = cast(handle);
  fanotify_event_metadata metadata{};
  Busy unwatched(nullptr);
  const auto deadline = Clock::now() + std::chrono::seconds(timeout_seconds);
  if (!read_event(context, deadline, unwatched, &metadata)) {
    return -1;
  }
  fill(context, metadata, event);
  return 0;
}

int request_event(fsfilter_handle_t handle, struct fsfilter_event_struct* event,
                  int timeout_seconds) {
  return handle == nullptr || event == nullptr
             ? -1
             : take_event(cast(handle), event, std::chrono::seconds(timeout_seconds),
                          Busy(&cast(handle)->busy_since));
}

int await_event(fsfilter_handle_t handle, int timeout_milliseconds) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_milliseconds);
  return handle != nullptr && wait_readable(cast(handle)->fanotify_fd, deadline) ? 0 : -1;
}

int request_event_aside(fsfilter_handle_t handle, struct fsfilter_event_struct* event) {
  return handle == nullptr || event == nullptr
             ? -1
             : take_event(cast(handle), event, std::chrono::milliseconds(0), Busy(nullptr));
}

int allow_one_event(fsfilter_handle_t handle) {
  fanotify_event_metadata metadata{};
  Busy unwatched(nullptr);
  if (handle == nullptr || !read_event(cast(handle), Clock::now(), unwatched, &metadata) ||
      metadata.fd < 0) {
    return -1;
  }
  fsfilter_event_struct event;
  fill(cast(handle), metadata, &event);
  (void)set_result(handle, &event);
  return 0;
}

int64_t fsfilter_reader_busy(fsfilter_handle_t handle) {
  if (handle == nullptr) {
    return 0;
  }
  const std::int64_t since = cast(handle)->busy_since.load(std::memory_order_relaxed);
  return since == 0 ? 0 : monotonic_milliseconds() - since;
}

void allow_held(fsfilter_handle_t handle, int32_t fd) {
  if (handle == nullptr) {
    return;
  }
  fanotify_response response{};
  response.fd = fd;
  response.response = FAN_ALLOW;
  (void)!write(cast(handle)->fanotify_fd, &response, sizeof response);
}

int set_result(fsfilter_handle_t handle, struct fsfilter_event_struct* event) {
  if (handle == nullptr || event == nullptr) {
    return -1;
  }
  fsfilter_context_t* context = cast(handle);
  fsfilter_stat_struct& statistics = context->shared->statistics;
  const bool deny = event->result == FSFILTER_DENY;
  if (deny) {
    AtomicCounter(statistics.denied).fetch_add(1, std::memory_order_relaxed);
  }
  AtomicCounter(statistics.answered).fetch_add(1, std::memory_order_relaxed);
  if (event->filter_fd != context->fanotify_fd) {
    return 0;
  }
  fanotify_response response{};
  response.fd = event->fd;
  response.response = deny ? FAN_DENY : FAN_ALLOW;
  const ssize_t written = write(event->filter_fd, &response, sizeof response);
  const int error = errno;
  if (event->fd >= 0) {
    (void)close(event->fd);
  }
  errno = error;
  return written < 0 ? static_cast<int>(written) : 0;
}

int get_file_name(const struct fsfilter_event_struct* event, char* buffer, size_t size) {
  if (event == nullptr || buffer == nullptr || size == 0) {
    errno = EINVAL;
    return -1;
  }
  char link[100];
  (void)std::snprintf(link, sizeof link, "/proc/self/fd/%d", event->fd);
  const ssize_t length = readlink(link, buffer, size - 1);
  if (length >= 0) {
    buffer[length] = '\0';
  }
  return static_cast<int>(length);
}

void print_event_info(const struct fsfilter_event_struct* event) {
  if (event == nullptr) {
    (void)std::printf("message: %s\n", "(null)");
    return;
  }
  static constexpr const char* types[] = {"OPEN", "CLOSE_WR", "OTHER"};
  // One call, so that two threads do not mix their lines.
  (void)std::printf("message: %s\n\t type:%s\t fd:%u\t pid:%u\n", event->path,
                    types[std::min<std::uint32_t>(event->type, FSFILTER_OTHER)],
                    static_cast<unsigned>(event->fd), static_cast<unsigned>(event->pid));
}
