// What becomes of one event on the thread that has taken it: cached, scanned, allowed, denied.
//
// Owns each event that it is given, until that is answered, and an engine handle. Never owns an
// event that is answered or still queued. No lock is held during a scan. Hands off to: nobody.
#pragma once

#include <optional>
#include <string>

#include "cache.h"
#include "held_opens.h"

/// One thread's engine handle and its verdicts. Nothing of it is shared. The destructor does not
/// release the handle: without release_handle() it lasts as long as the process.
class EventScanner {
 public:
  /// Takes the next thread number, in the order of starting.
  /// @param updates tells which definition update is in force
  EventScanner(const UpdateBarrier& updates, CCaching& cache);

  /// The thread's number in the log, from 0.
  int number() const { return number_; }

  /// Whether there is a handle.
  bool engine_status() const { return engine_handle_ != nullptr; }

  /// The update that the handle belongs to; none before the first one was made.
  std::optional<unsigned> renewed_for() const { return renewed_for_; }

  /// Gives the old handle back and gets a new one, if none was made yet or an update has come
  /// since. Not while another update is being loaded, since it would wait for that: the old handle
  /// serves until then.
  void renew_if_due();

  /// Gives the handle back, if there is one.
  void release_handle();

  /// Answers the event, whatever happens.
  void process(Held held);

 private:
  void decide(Held& held);
  void log_hit(const fsfilter_event_struct& event, bool written);
  void remember_clean(unsigned update, unsigned changes);

  const UpdateBarrier& updates_;
  CCaching& cache_;
  const int number_;

  void* engine_handle_ = nullptr;
  std::optional<unsigned> renewed_for_;
  std::string path_;  ///< the current event's; a member, so that most events allocate nothing
};
