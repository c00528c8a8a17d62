// The on-access worker: takes one event at a time from the queue and has it answered.
//
// Owns nothing between two events. take() gives it a Held, which it passes on to its scanner.
#pragma once

/// The body of a worker thread; `filter` is the fsfilter. Waits for the other workers and the loop,
/// works until the service stops, and takes itself off the service's list. Returns null.
void* event_processing_thread(void* filter);
