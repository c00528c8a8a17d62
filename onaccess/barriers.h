// Where the on-access threads wait for one another.
#pragma once

#include <atomic>

#include "mutex.h"

/// Holds its parties back until the last has arrived: the workers and the event loop at start.
class StartBarrier {
 public:
  /// Before anybody arrives, or to lower the number while they wait.
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
/// Updates are counted. A worker arrives with the count its handle belongs to; an update that
/// comes meanwhile sends those who wait back to renew once more, so that nobody leaves with an old
/// handle and nobody is left behind alone. A stop opens the barrier for good.
class UpdateBarrier {
 public:
  /// Before anybody arrives, or to lower the number while they wait.
  void set_parties(int parties);

  /// A new update: every worker must renew.
  void request();

  /// Lets everybody through, now and from now on.
  void open();

  /// Whether a renewal is under way. Polled without a lock.
  bool pending() const { return pending_.load(std::memory_order_acquire); }

  /// Updates so far. A handle made after reading this belongs at least to this update.
  unsigned update() const { return update_.load(std::memory_order_acquire); }

  /// What a worker that waited may do now.
  enum class Passage {
    go_on,       ///< work: everybody has renewed, the service stops, or it was let through
    renew_again  ///< a newer update has come
  };

  /// Counts let_through(). A worker reads it before it renews, so that it misses none.
  unsigned turn() const { return turn_.load(std::memory_order_acquire); }

  /// Waits for the other workers; each arrives once for an update.
  Passage arrive(unsigned renewed_for, unsigned turn);

  /// Lets those go on who wait; they have renewed and do not come back for this update. Events must
  /// not wait for a worker that is busy with a long scan, nor for updates to cease.
  void let_through();

 private:
  void complete_if_all_arrived() PELO_REQUIRES(mutex_);

  Mutex mutex_;
  Condition changed_;
  std::atomic<bool> pending_{false};
  std::atomic<unsigned> update_{0};
  std::atomic<unsigned> turn_{0};
  int parties_ PELO_GUARDED_BY(mutex_) = 0;
  int arrived_ PELO_GUARDED_BY(mutex_) = 0;
  bool open_ PELO_GUARDED_BY(mutex_) = false;
};
