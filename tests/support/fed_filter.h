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
    (void)socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends_);
    void* area = mmap(nullptr, sizeof(fsfilter_shared_area), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    context_ = new fsfilter_context_t;
    context_->shared = static_cast<fsfilter_shared_t>(area);
    context_->fanotify_fd = ends_[0];
  }
  ~FedFilter() {
    close_kernel_side();
    if (context_ != nullptr) {
      (void)munmap(context_->shared, sizeof(fsfilter_shared_area));
      (void)close(ends_[0]);
      delete context_;
    }
  }
  FedFilter(const FedFilter&) = delete;
  FedFilter& operator=(const FedFilter&) = delete;

  fsfilter_context_t& context() { return *context_; }
  fsfilter_handle_t handle() { return context_; }
  fsfilter_shared_area& area() { return *context_->shared; }
  fsfilter_stat_struct& statistics() { return context_->shared->statistics; }

  /// Gives the filter to somebody who closes it.
  fsfilter_handle_t hand_over() {
    fsfilter_handle_t handle = context_;
    context_ = nullptr;
    return handle;
  }

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

  void feed_raw(const void* bytes, std::size_t size) { (void)!write(ends_[1], bytes, size); }

  /// The next answer, if there is one within the bound.
  std::optional<fanotify_response> answer(int bound_milliseconds = 30000) {
    pollfd readable{ends_[1], POLLIN, 0};
    fanotify_response response{};
    if (poll(&readable, 1, bound_milliseconds) != 1 ||
        read(ends_[1], &response, sizeof response) != sizeof response) {
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

  void close_kernel_side() {
    if (ends_[1] >= 0) {
      (void)close(ends_[1]);
      ends_[1] = -1;
    }
  }

 private:
  int ends_[2] = {-1, -1};
  fsfilter_context_t* context_ = nullptr;
};
