// The lookout: the one thread that never waits for a file, a lock or another thread.
//
// It takes the process's signals. The kernel would prefer the main thread for them, but a thread
// that is stuck in the kernel runs no handler. It also ends the process when a stop takes too long.
// Never touches a held open.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <functional>

#include "detached_thread.h"
#include "since.h"

class Lookout {
 public:
  /// @param stop_requested tells since when a stop has been asked for; must outlive the lookout
  explicit Lookout(const Since& stop_requested);

  /// Starts the thread. For the main thread, like end().
  /// @param take_signals called first on that thread; unblocks the signals there
  /// @param last_resort called on that thread when a stop takes too long; must end the process
  /// @return 0, or an errno value
  int start(void (*take_signals)(), std::function<void()> last_resort);

  /// Makes the thread check whether a stop was asked for. Async-signal-safe; any thread.
  void wake() { (void)sem_post(&wake_); }

  /// Ends the thread; waits for it for at most a second.
  void end();

 private:
  void look_out();

  const Since& stop_requested_;
  void (*take_signals_)() = nullptr;
  std::function<void()> last_resort_;
  sem_t wake_;
  DetachedThread thread_;
};
