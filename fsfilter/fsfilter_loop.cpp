// The library's own event loop: reads events and posts them to the worker pool.
//
// The thread that runs it is the reader and has the reader's duties (see fsfilter_events.cpp),
// except that it allocates memory for each job. It allows an event that it cannot hand to a worker.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "fsfilter_context.h"
#include "fsfilter_threads.h"

namespace {

// Set by other threads and by signal handlers.
static_assert(std::atomic_ref<std::int32_t>::is_always_lock_free);

bool stopped(event_loop_data_struct* data) {
  return std::atomic_ref(data->stop).load(std::memory_order_acquire) == 1;
}

// The lowest descriptor number with which no event may wait for a worker. The kernel denies an open
// for which no descriptor is left, so the last ones are kept free.
int first_spare_descriptor() {
  constexpr rlim_t spare = 64;
  constexpr rlim_t no_limit = 1 << 30;
  rlimit limit{spare, spare};
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t usable = std::min(limit.rlim_cur, no_limit);
  return static_cast<int>(usable - std::min(usable / 2, spare));
}

// The event is an open or a close after writing: request_event() allows all others.
void dispatch(event_loop_data_struct* data, fsfilter_event_struct* event, int first_spare) {
  const bool open = event->type == FSFILTER_OPEN;
  const fsfilter_callback_t callback = open ? data->open_callback : data->close_wr_callback;
  if (callback != nullptr) {
    void* callback_data = open ? data->open_data : data->close_wr_data;
    if (event->fd < first_spare &&
        fsfilter_post_job(data->handle, event, callback, callback_data) == 0) {
      return;
    }
    std::atomic_ref(data->unposted).fetch_add(1, std::memory_order_relaxed);
  }
  event->result = FSFILTER_ALLOW;
  (void)set_result(data->handle, event);
}

// Runs until stopped, in the thread that reads. `data` is valid and its stop flag has been cleared.
int fsfilter_event_loop(event_loop_data_struct* data) {
  const int first_spare = first_spare_descriptor();
  fsfilter_event_struct event;
  while (!stopped(data)) {
    if (request_event(data->handle, &event, 1) == 0) {
      dispatch(data, &event, first_spare);
    }
    fsfilter_thread_wake();
  }
  return 0;
}

}  // namespace

int start_event_loop(struct event_loop_data_struct* data) {
  if (data == nullptr || data->handle == nullptr || !cast(data->handle)->group) {
    errno = EINVAL;
    return -1;
  }
  std::atomic_ref(data->stop).store(0, std::memory_order_relaxed);
  std::atomic_ref(data->unposted).store(0, std::memory_order_relaxed);
  fsfilter_context_t* context = cast(data->handle);
  fsfilter_enter_context(context);
  const int result = fsfilter_event_loop(data);
  fsfilter_leave_context(context);
  return result;
}

int stop_event_loop(struct event_loop_data_struct* data) {
  if (data == nullptr) {
    return -1;
  }
  std::atomic_ref(data->stop).store(1, std::memory_order_release);
  return 0;
}
