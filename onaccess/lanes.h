// Lanes: each mount that another process or a network serves is kept apart from everything else.
//
// Reading an event makes the kernel open the event's file. On such a mount that open waits for the
// server, and the server may itself wait for an open that we hold. So each of these mounts has a
// notification group, a queue and threads of its own. No other thread that answers events touches a
// file of these mounts, so there is no deadlock, unless a server opens files of its own mount. A
// server that hangs blocks the opens of its own mount, as it would without us, and nothing else.
//
// Some threads of a lane read, the others scan. A scan may open files of the same mount, if the
// engine, its definitions or its work folder lie there, and these opens are events, too: the
// threads that read allow them, also while all others wait for them.
//
// The same is true at the end. Closing a file of such a mount also waits for the server, even in a
// process that is being killed, and the kernel closes a process's descriptors one after another. So
// a lane's threads have a descriptor table of their own, in which neither the filter's group nor
// that of another lane is open. Those groups are closed even if this lane is stuck.
//
// Owns the held opens of its mount, in an eventsForProcessing of its own. Never owns events of the
// filter's own group. Hands off to: nobody.
#pragma once

#include <functional>
#include <list>
#include <set>

#include "cache.h"
#include "clock.h"
#include "held_opens.h"
#include "mountpt.h"

/// All lanes. The caller sees to it that open(), close(), begin() and end() do not overlap.
class Lanes {
 public:
  /// @param failed called on a lane's thread, with an errno value, when its mount cannot be
  ///        watched; that lane then ends
  Lanes(const eventsForProcessing& events, CCaching& cache,
        std::function<void(const mntpoint& mount, int error)> failed);

  /// Only when every thread has left.
  ~Lanes();

  /// Notes the filter, and which descriptors are open now, the engine's among them. Each lane keeps
  /// these, except the filter's group, and closes all others. Called before there are events.
  void prepare(fsfilter_handle_t filter);

  /// After prepare(): makes the lane of a mount, with as many threads that read, and as many that
  /// scan, as there are workers, if it can. The lane marks the mount itself, after begin(), since
  /// marking may wait for the server. If there is such a lane, it only marks its mount again.
  /// @return 0, or negative with errno
  int open(const mntpoint& mount);

  /// From now on the lanes may mark their mounts, since events are being read.
  void begin();

  /// Ends the lane of this mount, if there is one; its threads leave when they can.
  void close(const mntpoint& mount);

  /// Ends all lanes; their threads leave when they can.
  void end();

  /// Waits until every thread has left, after end() or when all lanes have been closed. @return
  /// false when the deadline has passed first
  bool wait_until_left(Clock::time_point deadline);

 private:
  class Lane;

  const eventsForProcessing& events_;  ///< the main road's, for its limits and updates
  CCaching& cache_;
  const std::function<void(const mntpoint&, int)> failed_;
  fsfilter_handle_t filter_ = nullptr;
  std::set<int> descriptors_at_start_;  ///< descriptors that prepare() noted
  bool begun_ = false;
  std::list<Lane> lanes_;  ///< also those that end, while their threads still run
};
