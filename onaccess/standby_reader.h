// Reads events while the main thread cannot.
//
// Reading an event makes the kernel open its file. On a file system that another process serves
// (FUSE), that open waits for this process; and when it in turn opens a file on a watched mount,
// its event waits for a reader. The one reader would wait for itself, and every watched mount with
// it. The same holds for the path walks of marking and unmarking, which the main thread does before
// and after its loop. So a lookout watches whether the main thread gets on, and has others read in
// its place while it does not. They keep its rules: they open no file and take no lock that is held
// while opening one.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <functional>

#include "detached_thread.h"
#include "mutex.h"

/// Owns the lookout and the standby readers. All of them are made at the start: to make a thread
/// takes the loader's lock, and a worker that loads a library may hold that until a reader has
/// answered its open.
///
/// While the main thread is stuck, one reader at least is free to take the next event: who has seen
/// one calls another before reading it.
class StandbyReaders {
 public:
  struct Duties {
    /// Whether the main thread is stuck, so that somebody must read in its place. Must take no
    /// lock.
    std::function<bool()> is_stuck;
    /// Waits a short while for an event. @return whether there is one
    std::function<bool()> await_event;
    /// Reads and hands out one event, if nobody else has taken it. May get stuck itself.
    std::function<void()> read_one;
    /// What else must be seen to several times a second, whatever is stuck. Must not wait.
    std::function<void()> look_after;
    /// Most readers are busy, perhaps stuck: the rest will not last. Called for each of those.
    /// Must not wait.
    std::function<void()> overwhelmed;
  };

  explicit StandbyReaders(Duties duties);

  bool has_lookout() const { return lookout_.running(); }

  /// How many readers are busy with an event. Any thread.
  int busy() const { return busy_.load(std::memory_order_relaxed); }

  /// Whether most of them are. Any thread.
  bool overwhelmed() const { return busy() >= many; }

  /// Makes the lookout, which takes the signals that the caller does not block, and the readers;
  /// those that are there already stay. Before the first mark. The owner's, like stop().
  void start();

  /// Makes sure that a reader is free, as far as there are any left: the lookout and the readers do
  /// it by themselves, but not once that is what the lookout waits for. Any thread.
  void call_one();

  /// Ends the threads. @return false when one of them, or the lookout, is still stuck itself after
  ///         `bound`: then all go on
  bool stop(std::chrono::milliseconds bound);

 private:
  /// How many opens of such files at once the daemon survives.
  static constexpr int most = 64;
  static constexpr int many = 48;  // with so many stuck, the rest is for what waits already

  enum class State {
    absent,
    waiting,  // for a call
    free,     // waits for an event
    busy      // with an event, perhaps stuck
  };

  struct Reader {
    StandbyReaders* all = nullptr;
    State state = State::absent;  ///< under mutex_
    Condition called;             ///< or to end
    DetachedThread thread;
  };

  void look_out();
  void stand_by(Reader& reader);
  void read_one(Reader& reader);
  bool wait_for_call(Reader& reader);
  bool stays_free(Reader& reader);
  bool begin_read(Reader& reader);
  void end_read(Reader& reader);
  bool anybody_reads() PELO_REQUIRES(mutex_);
  void call() PELO_REQUIRES(mutex_);
  void make(Reader& reader) PELO_REQUIRES(mutex_);
  Reader* find(State state) PELO_REQUIRES(mutex_);

  const Duties duties_;
  std::atomic<int> busy_{0};
  DetachedThread lookout_;
  Mutex mutex_;
  bool ceasing_ PELO_GUARDED_BY(mutex_) = false;  // nobody may begin to read
  bool lookout_ending_ PELO_GUARDED_BY(mutex_) = false;
  bool lookout_ended_ PELO_GUARDED_BY(mutex_) = true;
  bool ending_ PELO_GUARDED_BY(mutex_) = false;    // the readers
  Condition changed_;                              // for the lookout, and for who stops them
  std::array<Reader, std::size_t{most}> readers_;  ///< their states under mutex_
};
