// Where the on-access threads wait for one another.
#pragma once

#include <atomic>

#include "mutex.h"

/// Holds the workers and the event loop back at start until all of them have arrived.
class StartBarrier {
 public:
  /// Called before anybody arrives, or later to lower the number.
  void set_parties(int parties);

  void arrive_and_wait();

 private:
  Mutex mutex_;
  Condition changed_;
  int parties_ PELO_GUARDED_BY(mutex_) = 1;
  int arrived_ PELO_GUARDED_BY(mutex_) = 0;
};

/// Holds the workers back until each has renewed its engine handle after a definition update.
///
/// Updates are counted, and a worker that arrives says which update its handle belongs to. If
/// another update comes meanwhile, the waiting workers go back and renew once more, so that none
/// leaves with an old handle and none is left waiting alone. A stop opens the barrier for good.
class UpdateBarrier {
 public:
  /// @param updating set to 1 while a renewal is under way; others read it without a lock
  explicit UpdateBarrier(std::atomic<int>& updating) : updating_(updating) {}

  /// Called before anybody arrives, or later to lower the number.
  void set_parties(int parties);

  /// A new update: every worker must renew.
  void request();

  /// Lets everybody through, now and from now on.
  void open();

  /// The number of updates so far. A handle made after reading it belongs to that update or a newer
  /// one.
  unsigned update() const { return update_.load(std::memory_order_acquire); }

  /// What a worker that waited may do now.
  enum class Passage {
    go_on,       ///< work: all have renewed, the service stops, or let_through() was called
    renew_again  ///< a newer update has come
  };

  /// Counts the calls of let_through(). A worker reads it before it renews, so that it misses none.
  unsigned turn() const { return turn_.load(std::memory_order_acquire); }

  /// Waits for the other workers; each arrives once for an update.
  Passage arrive(unsigned renewed_for, unsigned turn);

  /// Lets the waiting workers go on; they have renewed and do not come back for this update. Events
  /// must not wait for a worker that is busy with a long scan, nor until updates stop coming.
  void let_through();

 private:
  void complete_if_all_arrived() PELO_REQUIRES(mutex_);

  Mutex mutex_;
  Condition changed_;
  std::atomic<int>& updating_;
  std::atomic<unsigned> update_{0};
  std::atomic<unsigned> turn_{0};
  int parties_ PELO_GUARDED_BY(mutex_) = 0;
  int arrived_ PELO_GUARDED_BY(mutex_) = 0;
  bool open_ PELO_GUARDED_BY(mutex_) = false;
};
