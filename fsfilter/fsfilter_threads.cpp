#include "fsfilter_threads.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "monotonic_clock.h"
#include "pool_lock.h"

namespace {

constexpr int worker_count = 3;
constexpr std::int64_t stuck_milliseconds = 1000;

struct eventcb {
  fsfilter_handle_t handle;
  fsfilter_callback_t callback;  // null allows
  void* data;                    // the callback's word
  eventcb* next;
  fsfilter_event_struct event;
};

struct events_to_process {
  PoolMutex mutex;
  PoolCondition condition;  // for workers: a job has come, or they may leave
  PoolCondition all_left;

  // The jobs in their order of arrival; linked by themselves, so that taking one copies nothing.
  eventcb* first FSFILTER_GUARDED_BY(mutex) = nullptr;
  eventcb* last FSFILTER_GUARDED_BY(mutex) = nullptr;

  // Since when the first job is first, monotonic.
  std::int64_t first_since FSFILTER_GUARDED_BY(mutex) = 0;

  int workers FSFILTER_GUARDED_BY(mutex) = 0;
  int sleeping FSFILTER_GUARDED_BY(mutex) = 0;
  bool ending FSFILTER_GUARDED_BY(mutex) = false;
};

// Built before the program starts and never destroyed: workers are detached, and one may come here
// while the process runs its exit handlers. What still waits then the kernel allows.
constinit events_to_process event_to_process;
static_assert(std::is_trivially_destructible_v<events_to_process>);

pthread_t threads[worker_count];

// Written under the queue's mutex, which also keeps two loops from starting two pools; read without
// it, for posting not to take the mutex twice.
std::atomic<int> threads_initialized{0};

// Of the worker that this thread is, if it is one.
thread_local bool is_worker = false;
thread_local void* callback_data = nullptr;

// Signals are for the program's own threads, but those that a thread brings upon itself must find
// their handlers: blocked, they would end the process (see fsfilter_restore_area()).
sigset_t signals_of_others() {
  sigset_t set;
  (void)sigfillset(&set);
  for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
    (void)sigdelset(&set, fault);
  }
  return set;
}

// 0, or an errno value when not all are there; those that were made go to work.
int make_missing_workers(const pthread_attr_t* attributes)
    FSFILTER_REQUIRES(event_to_process.mutex) {
  int error = 0;
  while (error == 0 && event_to_process.workers < worker_count) {
    error = pthread_create(&threads[event_to_process.workers], attributes, fsfilter_process_event2,
                           nullptr);
    event_to_process.workers += error == 0 ? 1 : 0;
  }
  return error;
}

int start_workers() FSFILTER_REQUIRES(event_to_process.mutex) {
  const sigset_t blocked = signals_of_others();
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) {
    return error;
  }
  error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (error == 0) {
    error = pthread_attr_setsigmask_np(&attributes, &blocked);
  }
  if (error == 0) {
    error = make_missing_workers(&attributes);
  }
  (void)pthread_attr_destroy(&attributes);
  return error;
}

// A copy of the event as far as its path goes. Null when there is no memory, and no exception on
// the way to that.
eventcb* make_job(fsfilter_handle_t handle, const fsfilter_event_struct* event,
                  fsfilter_callback_t callback, void* data) {
  auto* job = static_cast<eventcb*>(std::malloc(sizeof(eventcb)));
  if (job != nullptr) {
    job->handle = handle;
    job->callback = callback;
    job->data = data;
    job->next = nullptr;
    const std::size_t path = strnlen(event->path, sizeof event->path - 1) + 1;
    std::memcpy(&job->event, event, offsetof(fsfilter_event_struct, path) + path);
    job->event.path[path - 1] = '\0';
  }
  return job;
}

void wake_workers_when_stuck() FSFILTER_REQUIRES(event_to_process.mutex) {
  if (event_to_process.first != nullptr && event_to_process.sleeping > 0 &&
      monotonic_milliseconds() - event_to_process.first_since >= stuck_milliseconds) {
    event_to_process.condition.notify_all();
  }
}

// @return false when no worker would take the job
bool append(eventcb* job) {
  const PoolLock lock(event_to_process.mutex);
  if (event_to_process.workers == 0 || event_to_process.ending) {
    return false;
  }
  if (event_to_process.first == nullptr) {
    // One is enough: a worker that has finished a job takes the next without being woken.
    event_to_process.condition.notify_one();
    event_to_process.first_since = monotonic_milliseconds();
    event_to_process.first = job;
  } else {
    wake_workers_when_stuck();
    event_to_process.last->next = job;
  }
  event_to_process.last = job;
  return true;
}

// The next job, the caller's to answer and to delete; null when this worker must leave.
eventcb* next_job() {
  const PoolLock lock(event_to_process.mutex);
  while (event_to_process.first == nullptr) {
    if (event_to_process.ending) {
      if (--event_to_process.workers == 0) {
        event_to_process.ending = false;
        threads_initialized = 0;
        event_to_process.all_left.notify_all();
      }
      return nullptr;
    }
    ++event_to_process.sleeping;
    event_to_process.condition.wait(event_to_process.mutex);
    --event_to_process.sleeping;
  }
  eventcb* job = event_to_process.first;
  event_to_process.first = job->next;
  event_to_process.first_since = monotonic_milliseconds();
  return job;
}

void answer(eventcb* job) {
  (void)set_result(job->handle, &job->event);
  fsfilter_leave_context(cast(job->handle));
  std::free(job);
}

void run(eventcb* job) {
  job->event.result = FSFILTER_ALLOW;
  if (job->callback != nullptr) {
    callback_data = job->data;
    job->event.result = job->callback(job->handle, &job->event);
  }
  answer(job);
}

// Takes the jobs of one filter out of the queue; linked in their order.
eventcb* remove_jobs_of(fsfilter_handle_t handle) {
  eventcb* removed = nullptr;
  eventcb** removed_end = &removed;
  const PoolLock lock(event_to_process.mutex);
  eventcb** link = &event_to_process.first;
  event_to_process.last = nullptr;
  while (*link != nullptr) {
    eventcb* job = *link;
    if (job->handle == handle) {
      *link = job->next;
      job->next = nullptr;
      *removed_end = job;
      removed_end = &job->next;
    } else {
      event_to_process.last = job;
      link = &job->next;
    }
  }
  return removed;
}

}  // namespace

inline namespace fsfilter_internal {

int fsfilter_post_job(fsfilter_handle_t handle, const fsfilter_event_struct* event,
                      fsfilter_callback_t callback, void* data) {
  if (handle == nullptr || event == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (threads_initialized == 0) {
    (void)fsfilter_thread_init();  // if some worker is there, the job is done all the same
  }
  eventcb* job = make_job(handle, event, callback, data);
  if (job == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  fsfilter_enter_context(cast(handle));
  if (!append(job)) {
    fsfilter_leave_context(cast(handle));
    std::free(job);
    errno = EAGAIN;
    return -1;
  }
  return 0;
}

void* fsfilter_process_event2(void* /*unused*/) {
  is_worker = true;
  (void)pthread_setname_np(pthread_self(), "fsfilter-worker");
  while (eventcb* job = next_job()) {
    run(job);
  }
  return nullptr;
}

void fsfilter_drop_jobs(fsfilter_context_t* context) {
  eventcb* job = remove_jobs_of(context);
  while (job != nullptr) {
    eventcb* next = job->next;
    job->event.result = FSFILTER_ALLOW;
    answer(job);
    job = next;
  }
}

}  // namespace fsfilter_internal

int fsfilter_thread_init(void) {
  const PoolLock lock(event_to_process.mutex);
  const int error = event_to_process.ending ? EBUSY : start_workers();
  if (error != 0) {
    errno = error;
    return -1;
  }
  threads_initialized = 1;
  return 0;
}

int fsfilter_thread_end(void) {
  if (is_worker) {
    errno = EDEADLK;
    return -1;
  }
  const PoolLock lock(event_to_process.mutex);
  event_to_process.ending = event_to_process.workers > 0;
  event_to_process.condition.notify_all();
  while (event_to_process.ending) {
    event_to_process.all_left.wait(event_to_process.mutex);
  }
  return 0;
}

int fsfilter_thread_post_job(fsfilter_handle_t handle, const struct fsfilter_event_struct* event,
                             fsfilter_callback_t callback) {
  return fsfilter_post_job(handle, event, callback, nullptr);
}

void fsfilter_thread_wake(void) {
  const PoolLock lock(event_to_process.mutex);
  wake_workers_when_stuck();
}

void* fsfilter_callback_data(void) {
  return callback_data;
}
