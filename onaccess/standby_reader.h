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
  /// What else the lookout sees to, several times a second.
  using LookAfter = std::function<void()>;

  StandbyReaders(IsStuck is_stuck, ReadOne read_one, LookAfter look_after);

  /// Starts the threads; one that cannot be made is done without. Before the first mark.
  void start();

  /// Ends them. @return false when one is still stuck itself after `bound`
  bool stop(std::chrono::milliseconds bound);

 private:
  /// How many opens of such files at once the daemon survives.
  static constexpr std::size_t count = 64;

  struct Reader {
    StandbyReaders* all = nullptr;
    std::size_t number = 0;
    DetachedThread thread;
    bool called = false;  ///< under mutex_: by the reader before it; the first one is the lookout
  };

  void stand_by(Reader& reader);
  bool wait_for_call(Reader& reader);
  void call(std::size_t number);

  IsStuck is_stuck_;
  ReadOne read_one_;
  LookAfter look_after_;
  std::array<Reader, count> readers_;
  std::atomic<bool> stopping_{false};
  Mutex mutex_;
  Condition changed_;
};
