// Where the workers wait for one another.
#pragma once

#include <atomic>

#include "mutex.h"

/// Holds the workers back until each has renewed its engine handle after a definition update.
///
/// Updates are counted, and a worker that arrives says which update its handle belongs to. If
/// another update comes meanwhile, the waiting workers go back and renew once more, so that none
/// leaves with an old handle and none is left waiting alone.
class UpdateBarrier {
 public:
  /// @param updating set to 1 while a renewal is under way; others read it without a lock
  explicit UpdateBarrier(std::atomic<int>& updating) : updating_(updating) {}

  /// Called before anybody arrives.
  void set_parties(int parties);

  /// A new update: every worker must renew.
  void request();

  /// The number of updates so far. A handle made after reading it belongs to that update or a newer
  /// one.
  unsigned update() const { return update_.load(std::memory_order_acquire); }

  /// Counts the calls of let_through(). A worker reads it before it renews, so that it misses none.
  unsigned turn() const { return turn_.load(std::memory_order_acquire); }

  /// Waits for the other workers; each arrives once for an update.
  /// @return whether the worker may go on: all have renewed, or let_through() was called. False
  ///         when a newer update has come: it must renew again
  bool arrive(unsigned renewed_for, unsigned turn);

  /// Lets the waiting workers go on; they have renewed and do not come back for this update. Events
  /// must not wait for a worker that is busy with a long scan, nor until updates stop coming, nor
  /// may a stop.
  void let_through();

 private:
  Mutex mutex_;
  Condition changed_;
  std::atomic<int>& updating_;
  std::atomic<unsigned> update_{0};
  std::atomic<unsigned> turn_{0};
  int parties_ PELO_GUARDED_BY(mutex_) = 0;
  int arrived_ PELO_GUARDED_BY(mutex_) = 0;
};
