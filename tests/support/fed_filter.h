// A filter without a kernel: the test plays the kernel over a socket pair.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <utility>

#include "fsfilter_context.h"

/// What is not this process and in no table of trusted ones.
inline constexpr std::int32_t stranger_pid = 1;

inline bool is_open(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

/// A filter context over one end of a socket pair that keeps records apart, and the other end,
/// where records are fed in and answers come out. Its status area is private memory.
class FedFilter {
 public:
  FedFilter() {
    int ends[2] = {-1, -1};
    (void)socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends);
    kernel_.reset(ends[1]);
    void* area = mmap(nullptr, sizeof(fsfilter_shared_area), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    context_->state->shared = static_cast<fsfilter_shared_t>(area);
    context_->group.reset(ends[0]);
  }
  ~FedFilter() {
    if (context_ != nullptr) {
      fsfilter_leave_context(context_);
    }
  }
  FedFilter(const FedFilter&) = delete;
  FedFilter& operator=(const FedFilter&) = delete;

  fsfilter_context_t& context() { return *context_; }
  fsfilter_handle_t handle() { return context_; }
  fsfilter_shared_area& area() { return *context_->state->shared; }
  fsfilter_stat_struct& statistics() { return area().statistics; }

  /// Gives the filter to somebody who closes it.
  fsfilter_handle_t hand_over() { return std::exchange(context_, nullptr); }

  /// Feeds one record. The descriptor is the filter's from here on.
  void feed(std::uint64_t mask, int fd, std::int32_t pid = stranger_pid) {
    fanotify_event_metadata record{};
    record.event_len = FAN_EVENT_METADATA_LEN;
    record.vers = FANOTIFY_METADATA_VERSION;
    record.metadata_len = FAN_EVENT_METADATA_LEN;
    record.mask = mask;
    record.fd = fd;
    record.pid = pid;
    feed_raw(&record, sizeof record);
  }

  void feed_raw(const void* bytes, std::size_t size) { (void)!write(kernel_.get(), bytes, size); }

  /// The next answer, if there is one within the bound.
  std::optional<fanotify_response> answer(int bound_milliseconds = 30000) {
    pollfd readable{kernel_.get(), POLLIN, 0};
    fanotify_response response{};
    if (poll(&readable, 1, bound_milliseconds) != 1 ||
        read(kernel_.get(), &response, sizeof response) != sizeof response) {
      return std::nullopt;
    }
    return response;
  }

  /// The next answer's verdict for this descriptor: FAN_ALLOW or FAN_DENY, 0 for another answer or
  /// none.
  std::uint32_t verdict_for(int fd) {
    const std::optional<fanotify_response> response = answer();
    return response && response->fd == fd ? response->response : 0;
  }

  /// Whether there is no answer that has not been read.
  bool quiet() { return !answer(0).has_value(); }

  /// Whether every record has been read.
  bool all_read() {
    pollfd readable{context_->group.get(), POLLIN, 0};
    return poll(&readable, 1, 0) == 0;
  }

  void close_kernel_side() { kernel_.reset(); }

 private:
  Descriptor kernel_;
  fsfilter_context_t* context_ = fsfilter_make_context();
};
