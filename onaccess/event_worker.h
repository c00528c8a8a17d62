// The on-access worker: takes one event at a time from the queue and has it answered.
//
// Owns one Held at a time, from take() on. Owns no event between two turns. Hands off to: its
// EventScanner, which answers.
#pragma once

/// The body of a worker thread; `filter` is the fsfilter. Waits for the other workers and the loop,
/// works until the service stops, and takes itself off the service's list. Returns null.
void* event_processing_thread(void* filter);
