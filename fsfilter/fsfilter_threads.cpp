// The library's own way of consuming events: its loop reads them and posts them to three worker
// threads of the process, which run the callbacks and answer the kernel.
//
// Owns an event, with its descriptor, from the successful post to the answer: the worker that takes
// the job answers it, and set_result() closes the descriptor. Never owns an event whose post was
// refused: that is still the reader's, and the loop allows it. Hands off to: the kernel, which gets
// an answer for every job; closing a filter allows its jobs that no worker has taken. Every job is
// a user of its filter's context until it is answered, so a context outlives its jobs.
//
// The thread that runs the loop is the reader and has the reader's duties (see
// fsfilter_events.cpp), except that it allocates memory for each job.
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>
#include <type_traits>
#include <utility>

#include "fsfilter_context.h"
#include "mutex.h"

namespace {

constexpr int worker_count = 3;
constexpr std::chrono::seconds stuck_after{1};

struct eventcb {
  fsfilter_handle_t handle;
  fsfilter_callback_t callback;  // null allows
  void* data;                    // of the callback
  eventcb* next;
  fsfilter_event_struct event;
};

// Jobs in an order, linked by `next`, so that moving one copies nothing.
struct JobList {
  eventcb* first = nullptr;
  eventcb* last = nullptr;

  void append(eventcb* job) {
    (first == nullptr ? first : last->next) = job;
    last = job;
  }

  // The first job, or null.
  eventcb* take() {
    eventcb* job = first;
    if (job != nullptr) {
      first = std::exchange(job->next, nullptr);
    }
    return job;
  }
};

struct events_to_process {
  Mutex mutex;
  Condition condition;  // for workers: a job has come, or they may leave
  Condition all_left;

  JobList jobs PELO_GUARDED_BY(mutex);

  // When the first job became the first, or earlier.
  Clock::time_point first_since PELO_GUARDED_BY(mutex);

  bool ending PELO_GUARDED_BY(mutex) = false;
};

// Built before the program starts and never destroyed: workers are detached, and one may use it
// while the process runs its exit handlers. The kernel allows the events that still wait then.
constinit events_to_process event_to_process;
static_assert(std::is_trivially_destructible_v<events_to_process>);

pthread_t threads[worker_count];

// How many workers there are. Written under the queue's mutex, which also keeps two loops from
// starting two pools. Read without the mutex, so that a post takes it only once.
std::atomic<int> threads_initialized{0};

// Set only in worker threads.
thread_local bool is_worker = false;
thread_local void* callback_data = nullptr;

// A post wakes one worker, and only if no job waited before: a worker that finishes a job takes the
// next one, unless its callback is stuck.
void wake_workers_when_stuck() PELO_REQUIRES(event_to_process.mutex) {
  if (event_to_process.jobs.first != nullptr &&
      Clock::now() - event_to_process.first_since >= stuck_after) {
    event_to_process.condition.notify_all();
  }
}

// The next job, which the caller must answer; null when this worker must leave.
eventcb* next_job() {
  ScopedLock lock(event_to_process.mutex);
  eventcb* job = nullptr;
  while ((job = event_to_process.jobs.take()) == nullptr && !event_to_process.ending) {
    event_to_process.condition.wait(lock);
  }
  event_to_process.first_since = Clock::now();
  if (job == nullptr && --threads_initialized == 0) {
    event_to_process.ending = false;
    event_to_process.all_left.notify_all();
  }
  return job;
}

// Answers the job's event with the verdict, and forgets the job.
void answer(eventcb* job, int verdict) {
  job->event.result = verdict;
  (void)set_result(job->handle, &job->event);
  fsfilter_leave_context(cast(job->handle));
  delete job;
}

// The body of each worker. Returns null when fsfilter_thread_end() has been called and no job
// waits.
void* fsfilter_process_event2(void* /*unused*/) {
  is_worker = true;
  (void)pthread_setname_np(pthread_self(), "fsfilter-worker");
  while (eventcb* job = next_job()) {
    callback_data = job->data;
    // A loop may post what it has read before its filter was closed.
    const bool decides = job->callback != nullptr && !cast(job->handle)->ended.load();
    answer(job, decides ? job->callback(job->handle, &job->event) : FSFILTER_ALLOW);
  }
  return nullptr;
}

// fsfilter_thread_post_job() with the data that fsfilter_callback_data() returns in the callback.
int post_job(fsfilter_handle_t handle, const fsfilter_event_struct* event,
             fsfilter_callback_t callback, void* data) {
  if (handle == nullptr || event == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (threads_initialized < worker_count) {
    (void)fsfilter_thread_init();  // one worker is enough for the job
  }
  auto* job = new (std::nothrow) eventcb{handle, callback, data, nullptr, *event};
  if (job == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  job->event.path[FSFILTER_PATH_MAX - 1] = '\0';
  const ScopedLock lock(event_to_process.mutex);
  if (threads_initialized == 0 || event_to_process.ending) {
    delete job;
    errno = EAGAIN;
    return -1;
  }
  fsfilter_enter_context(cast(handle));
  if (event_to_process.jobs.first == nullptr) {
    event_to_process.condition.notify_one();
    event_to_process.first_since = Clock::now();
  }
  wake_workers_when_stuck();
  event_to_process.jobs.append(job);
  return 0;
}

// Set by other threads and by signal handlers.
static_assert(std::atomic_ref<std::int32_t>::is_always_lock_free);

// From this descriptor number on, events are allowed at once instead of queued. The kernel denies
// an open for which no descriptor is left, so the last ones are kept free.
int first_spare_descriptor() {
  constexpr rlim_t spare = 64;
  rlimit limit{spare, spare};
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<int>(limit.rlim_cur - std::min(limit.rlim_cur / 2, spare));
}

// The event is an open or a close after writing: request_event() allows all others.
void dispatch(event_loop_data_struct* data, fsfilter_event_struct* event, int first_spare) {
  const bool open = event->type == FSFILTER_OPEN;
  const fsfilter_callback_t callback = open ? data->open_callback : data->close_wr_callback;
  if (callback != nullptr) {
    void* its_data = open ? data->open_data : data->close_wr_data;
    if (event->fd < first_spare && post_job(data->handle, event, callback, its_data) == 0) {
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
  while (std::atomic_ref(data->stop).load(std::memory_order_acquire) != 1) {
    if (request_event(data->handle, &event, 1) == 0) {
      dispatch(data, &event, first_spare);
    }
    const ScopedLock lock(event_to_process.mutex);
    wake_workers_when_stuck();
  }
  return 0;
}

}  // namespace

inline namespace fsfilter_internal {

void fsfilter_drop_jobs(fsfilter_context_t* context) {
  JobList removed;
  JobList kept;
  ScopedLock lock(event_to_process.mutex);
  while (eventcb* job = event_to_process.jobs.take()) {
    (job->handle == context ? removed : kept).append(job);
  }
  event_to_process.jobs = kept;
  lock.unlock();
  while (eventcb* job = removed.take()) {
    answer(job, FSFILTER_ALLOW);
  }
}

}  // namespace fsfilter_internal

// All signals are blocked while workers are made, since these inherit the mask and signals are for
// the program's own threads. Those that a thread causes itself stay unblocked: otherwise they would
// end the process instead of running their handlers (see fsfilter_restore_area()).
int fsfilter_thread_init(void) {
  sigset_t blocked;
  sigset_t own;
  (void)sigfillset(&blocked);
  for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
    (void)sigdelset(&blocked, fault);
  }
  const ScopedLock lock(event_to_process.mutex);
  (void)pthread_sigmask(SIG_SETMASK, &blocked, &own);
  int error = event_to_process.ending ? EBUSY : 0;
  while (error == 0 && threads_initialized < worker_count) {
    pthread_t& worker = threads[threads_initialized];
    error = pthread_create(&worker, nullptr, fsfilter_process_event2, nullptr);
    if (error == 0) {
      (void)pthread_detach(worker);
      ++threads_initialized;
    }
  }
  (void)pthread_sigmask(SIG_SETMASK, &own, nullptr);
  if (error != 0) {
    errno = error;
    return -1;
  }
  return 0;
}

int fsfilter_thread_end(void) {
  if (is_worker) {
    errno = EDEADLK;
    return -1;
  }
  ScopedLock lock(event_to_process.mutex);
  event_to_process.ending = threads_initialized > 0;
  event_to_process.condition.notify_all();
  while (event_to_process.ending) {
    event_to_process.all_left.wait(lock);
  }
  return 0;
}

int fsfilter_thread_post_job(fsfilter_handle_t handle, const struct fsfilter_event_struct* event,
                             fsfilter_callback_t callback) {
  return post_job(handle, event, callback, nullptr);
}

void* fsfilter_callback_data(void) {
  return callback_data;
}

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
