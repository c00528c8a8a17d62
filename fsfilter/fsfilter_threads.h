// The worker pool: three threads of the process that run callbacks and answer the kernel.
//
// Who owns an event: posting it hands it over with its descriptor. The worker that takes the job
// answers it, and set_result() closes the descriptor. A job whose filter is closed before a worker
// has taken it is allowed by who closes the filter. Every job is a user of its filter's context and
// gives it up after its answer, so that a context outlives its jobs.
#pragma once

#include "fsfilter.h"
#include "fsfilter_context.h"

inline namespace fsfilter_internal {

/// fsfilter_thread_post_job() with the word that fsfilter_callback_data() gives to the callback.
int fsfilter_post_job(fsfilter_handle_t handle, const fsfilter_event_struct* event,
                      fsfilter_callback_t callback, void* data);

/// The body of each worker. Returns null once fsfilter_thread_end() has been called and nothing
/// waits any more; the argument is not used.
void* fsfilter_process_event2(void* unused);

/// Allows what waits for a worker on behalf of this context. Callbacks that run are left alone.
void fsfilter_drop_jobs(fsfilter_context_t* context);

}  // namespace fsfilter_internal
