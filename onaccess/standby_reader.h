// Reads events while the main thread cannot.
//
// Reading an event makes the kernel open its file. On a file system that another process serves
// (FUSE), that open waits for this process; and when it in turn opens a file on a watched mount,
// its event waits for a reader. The one reader would wait for itself, and every watched mount with
// it. The same holds for the path walks of marking and unmarking, which the main thread does before
// and after its loop. So standby readers look whether it gets on, and read in its place while it
// does not. They keep its rules: they open no file and take no lock that is held while opening one.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <functional>

#include "detached_thread.h"
#include "mutex.h"

/// Owns the standby readers' threads.
class StandbyReaders {
 public:
  /// Whether the main thread is stuck, so that somebody must read in its place.
  using IsStuck = std::function<bool()>;
  /// Reads and hands out one event, waiting for it as long as the main thread would.
  using ReadOne = std::function<void()>;

  StandbyReaders(IsStuck is_stuck, ReadOne read_one);

  /// Starts the threads; one that cannot be made is done without. Before the first mark.
  void start();

  /// Ends them. @return false when one is still stuck itself after `bound`
  bool stop(std::chrono::milliseconds bound);

 private:
  /// More than one: the standby reader may meet the same kind of file.
  static constexpr std::size_t count = 3;

  void stand_by();

  IsStuck is_stuck_;
  ReadOne read_one_;
  std::array<DetachedThread, count> threads_;
  std::atomic<bool> stopping_{false};
  Mutex mutex_;
  Condition stop_asked_;
};
