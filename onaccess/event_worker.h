// The on-access worker: takes one event at a time, decides, answers.
//
// From take_event() to answer() the worker owns the event and its descriptor, and somebody is
// waiting. Every path between the two ends in answer(), once. No lock is held meanwhile.
#pragma once

#include <memory>

#include "detected_file.h"
#include "event_queue.h"
#include "filter_service.h"

/// The body of a worker thread; `filter` is the fsfilter. Returns null.
void* event_processing_thread(void* filter);

/// One worker's state; nothing of it is shared. The engine handle stays with the engine when the
/// worker ends: it goes with the process.
class EventWorker {
 public:
  explicit EventWorker(fsfilter& service);

  /// Waits for the other workers and the loop, then works until the service stops.
  void run();

 private:
  void renew_handle();
  bool renewal_due() const;
  void take_part_in_update();
  bool take_event();
  bool wait_for_event();
  void process_or_allow();
  void process();
  void decide();
  bool scan_needed();
  int scan();
  void remember_clean();
  void remove_detected();
  void answer();

  fsfilter_event_struct& event() { return current_->event; }
  std::atomic<int>& in_work() {
    return efp_.in_work[static_cast<std::size_t>(number_) % efp_.in_work.size()];
  }

  fsfilter& service_;
  eventsForProcessing& efp_;
  CCaching& cache_;
  const int number_;  ///< from 0, in the order of starting

  void* engine_handle_ = nullptr;
  bool engine_status_ = false;
  unsigned renewed_for_ = 0;  ///< the update that the handle belongs to
  bool arrived_ = false;      ///< at the update barrier, for that update

  std::unique_ptr<QueuedEvent> current_;  ///< after its answer: the place, to be given back
  fsfilter_handle_t ctx_ = nullptr;
  bool cached_ = false;          ///< the current event's path was in the cache
  unsigned changes_before_ = 0;  ///< of the path, when its scan began
};
