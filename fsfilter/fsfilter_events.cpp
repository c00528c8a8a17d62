// Reading events and answering them.
//
// Owns every event that it has read, with its descriptor and while its opener waits, until
// request_event() returns it or has allowed it: there is no third way. Never owns an event that
// the consumer has. Hands off to: the consumer, who answers it once, by set_result(), on any
// thread; and to the kernel, by an answer that also closes the descriptor.
//
// This code runs on the thread that answers the kernel, so it opens no file, allocates nothing and
// takes no lock but the area's, for which it waits at most 100 ms. Only print_event_info() prints.
#include <sys/fanotify.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "clock.h"
#include "fsfilter_context.h"

namespace {

static_assert(FAN_EVENT_METADATA_LEN == 24);

// Other processes use the counters, too, and would not see a lock of this process.
using AtomicCounter = std::atomic_ref<std::uint64_t>;
static_assert(AtomicCounter::is_always_lock_free);
static_assert(offsetof(fsfilter_shared_area, statistics) % AtomicCounter::required_alignment == 0);
static_assert(offsetof(fsfilter_stat_struct, denied) % AtomicCounter::required_alignment == 0);

std::atomic<std::uint64_t> next_message_id{1};

timeval time_left(Clock::time_point deadline) {
  using std::chrono::microseconds;
  const auto left = std::chrono::floor<microseconds>(deadline - Clock::now());
  const auto count = std::max(left, microseconds::zero()).count();
  return {static_cast<time_t>(count / 1000000), static_cast<suseconds_t>(count % 1000000)};
}

bool wait_readable(int fd, Clock::time_point deadline) {
  if (fd < 0) {
    return false;
  }
  int ready = 0;
  do {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval left = time_left(deadline);
    ready = select(fd + 1, &readable, nullptr, nullptr, &left);
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

// Reads the next event, unless the deadline passes, and fills everything but the path, which
// becomes empty. An event that ended the wait may be gone before the read: another reader has taken
// it, or its opener was killed.
bool read_event(fsfilter_context_t* context, Clock::time_point deadline,
                fsfilter_event_struct* event) {
  const int group = context->group.get();
  fanotify_event_metadata metadata{};
  ssize_t count = -1;
  do {
    if (!wait_readable(group, deadline)) {
      return false;
    }
    count = read(group, &metadata, sizeof metadata);
  } while (count < 0 && (errno == EAGAIN || errno == EINTR) && Clock::now() < deadline);
  if (count < 0 && errno != EAGAIN && errno != EINTR && !context->ended.load()) {
    context->state->failed_reads.fetch_add(1, std::memory_order_relaxed);
  }
  if (count != static_cast<ssize_t>(sizeof metadata) || metadata.event_len != sizeof metadata) {
    return false;
  }
  event->filter_fd = group;
  event->mask = metadata.mask;
  event->message_id = next_message_id.fetch_add(1, std::memory_order_relaxed);
  event->type = get_metadata_type(metadata.mask);
  event->fd = metadata.fd;
  event->pid = metadata.pid;
  event->result = FSFILTER_ALLOW;
  event->path[0] = '\0';
  return true;
}

static_assert(sizeof(off_t) == 8 && sizeof(time_t) == 8, "large files and late dates");

// If fstat() fails, the file counts as a regular one.
bool may_be_regular_file(int fd) {
  struct stat status {};
  return fstat(fd, &status) != 0 || S_ISREG(status.st_mode);
}

int name_of(const char* descriptors, const fsfilter_event_struct* event, char* buffer,
            std::size_t size) {
  char link[100];
  (void)std::snprintf(link, sizeof link, "/proc/%s/fd/%d", descriptors, event->fd);
  const ssize_t length = readlink(link, buffer, size - 1);
  if (length >= 0) {
    buffer[length] = '\0';
  }
  return static_cast<int>(length);
}

// A thread that reads a further group may have a descriptor table of its own: /proc/self shows that
// of the main thread.
bool named(fsfilter_context_t* context, fsfilter_event_struct* event) {
  const char* descriptors = context->is_first ? "self" : "thread-self";
  if (name_of(descriptors, event, event->path, sizeof event->path) >= 1) {
    return true;
  }
  context->state->unnamed_events.fetch_add(1, std::memory_order_relaxed);
  return false;
}

// Whether the consumer must decide this event.
bool wanted(fsfilter_context_t* context, fsfilter_event_struct* event) {
  return may_be_regular_file(event->fd) && event->type != FSFILTER_OTHER &&
         is_trusted_pid(context, event->pid) == 0 && named(context, event) &&
         is_included(context, event->path) == 1 && is_excluded(context, event->path) == 0;
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
  const auto deadline = Clock::now() + std::chrono::seconds(timeout_seconds);
  const bool read =
      handle != nullptr && event != nullptr && read_event(cast(handle), deadline, event);
  return read ? 0 : -1;
}

int request_event(fsfilter_handle_t handle, struct fsfilter_event_struct* event,
                  int timeout_seconds) {
  if (handle == nullptr || event == nullptr) {
    return -1;
  }
  fsfilter_context_t* context = cast(handle);
  const auto deadline = Clock::now() + std::chrono::seconds(timeout_seconds);
  fsfilter_event_struct candidate;
  do {
    if (!read_event(context, deadline, &candidate)) {
      return -1;
    }
    if (candidate.fd < 0) {
      // The kernel reports that its queue has overflowed: nobody waits for an answer.
      context->state->unnamed_events.fetch_add(1, std::memory_order_relaxed);
    } else if (wanted(context, &candidate)) {
      std::memcpy(event, &candidate,
                  offsetof(fsfilter_event_struct, path) + std::strlen(candidate.path) + 1);
      return 0;
    } else {
      (void)set_result(context, &candidate);
    }
  } while (Clock::now() < deadline);
  return -1;
}

int set_result(fsfilter_handle_t handle, struct fsfilter_event_struct* event) {
  if (handle == nullptr || event == nullptr) {
    return -1;
  }
  const fsfilter_context_t* context = cast(handle);
  const bool deny = event->result == FSFILTER_DENY;
  if (!context->ended.load()) {
    fsfilter_stat_struct& statistics = context->state->shared->statistics;
    AtomicCounter(statistics.answered).fetch_add(1, std::memory_order_relaxed);
    AtomicCounter(statistics.denied).fetch_add(deny ? 1 : 0, std::memory_order_relaxed);
  }
  if (event->filter_fd != context->group.get()) {
    return 0;
  }
  const Descriptor closed_at_the_end(event->fd);
  fanotify_response response{};
  response.fd = event->fd;
  response.response = deny ? FAN_DENY : FAN_ALLOW;
  return write(event->filter_fd, &response, sizeof response) < 0 ? -1 : 0;
}

int get_file_name(const struct fsfilter_event_struct* event, char* buffer, size_t size) {
  if (event == nullptr || buffer == nullptr || size == 0) {
    errno = EINVAL;
    return -1;
  }
  return name_of("self", event, buffer, size);
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
