// The worker pool: three threads of the process that run callbacks and answer the kernel.
//
// Who owns an event: posting it hands it over with its descriptor. The worker that takes the job
// answers it, and set_result() closes the descriptor. Closing a filter allows its jobs that no
// worker has taken. Every job is a user of its filter's context until it is answered, so a context
// outlives its jobs.
#pragma once

#include "fsfilter.h"
#include "fsfilter_context.h"

inline namespace fsfilter_internal {

/// fsfilter_thread_post_job() with the data that fsfilter_callback_data() returns in the callback.
int fsfilter_post_job(fsfilter_handle_t handle, const fsfilter_event_struct* event,
                      fsfilter_callback_t callback, void* data);

/// The body of each worker. Returns null when fsfilter_thread_end() has been called and no job
/// waits; the argument is not used.
void* fsfilter_process_event2(void* unused);

/// Wakes all workers if the first job has waited for a second. A post wakes one worker, and only if
/// no job waited before: a worker that finishes a job takes the next one, unless its callback is
/// stuck.
void fsfilter_thread_wake();

/// Allows the jobs of this context that wait for a worker. Running callbacks are not affected.
void fsfilter_drop_jobs(fsfilter_context_t* context);

}  // namespace fsfilter_internal
