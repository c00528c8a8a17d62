// What becomes of one event on the thread that has taken it: cached, scanned, allowed, denied.
//
// Owns an engine handle, and each event that it is given until that is answered. Somebody waits for
// the answer, so no lock is held. Hands off to: nobody.
#pragma once

#include <optional>
#include <string>

#include "cache.h"
#include "held_opens.h"

/// One thread's engine handle and its verdicts. Nothing of it is shared. Unless release_handle() is
/// called, the handle is not released when the thread ends, but lasts until the process ends.
class EventScanner {
 public:
  /// Takes the next thread number, in the order of starting.
  EventScanner(eventsForProcessing& events, CCaching& cache);

  /// The thread's number in the log, from 0.
  int number() const { return number_; }

  /// Whether there is a handle.
  bool engine_status() const { return engine_handle_ != nullptr; }

  /// The update that the handle belongs to; none before the first one was made.
  std::optional<unsigned> renewed_for() const { return renewed_for_; }

  /// Gives the old handle back, if there is one, and gets a new one.
  void renew_handle();

  /// Gives the handle back, if there is one.
  void release_handle();

  /// Whether no handle was made yet or an update has come since. False while another update is
  /// being loaded, since renewing would wait for it: the old handle serves until then.
  bool renewal_due() const;

  /// Answers the event, whatever happens.
  void process(Held held);

 private:
  void decide(Held& held);
  bool scan_needed(const fsfilter_event_struct& event);
  int scan(const fsfilter_event_struct& event);
  void remember_clean(const fsfilter_event_struct& event);
  void remove_detected(Held& held);

  eventsForProcessing& events_;
  CCaching& cache_;
  const int number_;

  void* engine_handle_ = nullptr;
  std::optional<unsigned> renewed_for_;

  // About the current event.
  std::string path_;             ///< a member, so that most events allocate nothing
  bool cached_ = false;          ///< whether the path was in the cache
  unsigned update_before_ = 0;   ///< the update's number when the scan began
  unsigned changes_before_ = 0;  ///< the path's changes when the scan began
};
