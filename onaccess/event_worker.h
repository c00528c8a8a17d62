// The on-access worker: takes one event at a time from the queue and has it answered.
//
// Owns nothing between two events. take() gives it a Held, which it passes on to its scanner.
#pragma once

#include "event_scanner.h"
#include "held_opens.h"

class fsfilter;

/// The body of a worker thread; `filter` is the fsfilter. Returns null.
void* event_processing_thread(void* filter);

/// One worker's state; nothing of it is shared.
class EventWorker {
 public:
  explicit EventWorker(fsfilter& service);

  /// Waits for the other workers and the loop, then works until the service stops.
  void run();

 private:
  void take_part_in_update();

  eventsForProcessing& events_;
  EventScanner scanner_;
  int opens_in_a_row_ = 0;
  bool arrived_ = false;  ///< has been at the update barrier for the handle's update
};
