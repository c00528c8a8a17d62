// On-access scanning: from the kernel's held opens to the workers' verdicts.
//
// Owns an event from request_event() to post(), within one turn of loop(). Never owns one that is
// queued or taken, nor any of a lane. Hands off to: the queue, eventsForProcessing. The whole road:
//   kernel -> loop()     request_event() hands over the event; loop() must post it
//   loop() -> queue      post() copies it; an open that no worker takes in time is allowed
//   queue  -> worker     a Held, which answers once, at the latest when it goes out of scope
//   worker -> kernel     set_result() answers and closes the descriptor
// When the group is closed at the end, the kernel allows what is still in the queue. The events of
// mounts that another process or a network serves go through lanes instead: see lanes.h.
//
// loop() runs on the main thread, the only one that reads events of the filter's own group. It
// opens no file and takes no lock that another thread holds while opening one; otherwise it would
// wait for its own answer. No thread on this road touches the files of such mounts, as long as the
// log, the engine's files and the event library lie elsewhere.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "cache.h"
#include "fsfilter.h"
#include "held_opens.h"
#include "lanes.h"
#include "lookout.h"
#include "mount_table.h"
#include "mutex.h"
#include "workers.h"

/// The filter service of the process.
class fsfilter : private MountWatcher {
 public:
  /// Built by the first call, which is made before any signal handler is installed.
  static fsfilter* get();

  /// Opens the filter. @return 0; -1 when it is open already; else the library's result
  int reg_filter();

  /// Closes the filter: the kernel allows what is still held. Threads that are still busy in the
  /// engine, or with a file system's server, outlive it; see threads_left().
  /// @return the library's result, -1 when none is open
  int unreg_filter();

  /// Starts the thread that takes the signals and ends the process when a stop lasts too long.
  /// @param take_signals called on that thread; unblocks the signals there
  /// @param last_resort called on that thread when everything should have ended but the main thread
  ///        is stuck in the kernel. It must end the process and may neither wait nor open a file
  /// @return 0, or an errno value: then the caller must take the signals itself
  int start_lookout(void (*take_signals)(), void (*last_resort)());

  /// Stores a number of seconds that nothing reads; kept for later callers.
  void set_timeout(int seconds) { timeout_ = seconds; }

  int ignore(const char* path) { return ignore_path(ctx_, path); }

  /// Hand paths to the filter, before loop() runs. One trailing slash of an include entry is
  /// removed. @return 0, or -1 when an entry failed; the others apply all the same
  int include(const std::list<std::string>& paths);
  int exclude(const std::list<std::string>& paths);

  /// Queues a copy of an event for the workers. For loop().
  /// @return 0, or -1 when it could not be queued and was allowed
  int post(fsfilter_event_struct& event) { return efp_.post(event); }

  /// Reads events and hands them out until a stop has been asked for. Then it lets go of everything
  /// that is held and gives the workers two seconds to leave: a hanging engine must not keep the
  /// daemon from stopping.
  void loop();

  /// Asks loop() to end. Safe in a signal handler, and before loop() runs.
  void stop();

  /// Whether a stop has been asked for.
  bool stopping() const { return lookout_.stop().has_value(); }

  /// When everything must have ended: within three seconds of the first stop(), or of this call if
  /// there was none.
  Clock::time_point stop_deadline() const;

  /// New definitions are in force: empties the cache and makes every worker renew its engine
  /// handle, after one more event at most. @return 0
  int reloaddb();

  int isrunning() const { return efp_.running.load(); }
  int isupdating() const { return efp_.updating.load(); }
  eventsForProcessing* getefp() { return &efp_; }
  CCaching* getCacheManager() { return cache_; }

  /// Starts the workers, at most 1024. @return 0; -1 when they run already, or when not all could
  /// be started: the service then works with those that could
  int start_threads(int wanted);

  /// What Workers offers of each worker.
  int cancel_thread(unsigned long tid) { return workers_.cancel_thread(tid); }
  int mark_thread(unsigned long tid, int where) { return workers_.mark_thread(tid, where); }
  int check_threads() { return workers_.check_threads(); }
  bool cancelled() { return workers_.cancelled(); }

  /// Whether unreg_filter() left threads behind. The process must then end without destroying its
  /// static objects.
  bool threads_left() const { return threads_left_; }

  /// Notes what start-up could not do, for report(). The main thread does not log it itself: while
  /// it starts up, nobody would answer an open of its own. Before the service thread starts.
  void note_problem(const char* text) { problems_ += text; }

  /// Logs what was noted, which mount points could not be watched, and, at most once a minute, how
  /// many events have been allowed without a scan since the last such line, and how many opens the
  /// kernel has denied because it had no descriptor for their event, or could not open the file for
  /// it. For the service thread.
  void report();

  /// Writes the scheduled jobs into the status area; at most FSFILTER_TEXT_SIZE bytes.
  /// @return false when there is no area, because the filter is closed
  bool publish_jobs(const std::string& text);

  fsfilter_handle_t& get_descr() { return ctx_; }

  /// Watch every mount point of the mount table. @return 0, -1 when the table cannot be read
  int init_mountpts();
  /// Stop watching all of them. @return 0
  int uninit_mountpts();
  /// Watches one mount point unless the settings exclude it. @return 0, or the filter's result
  int addmnt(const mntinfo& entry) { return mounts_.addmnt(entry); }
  /// Whether no mount point could be registered.
  bool watches_nothing() const { return mounts_.empty(); }
  /// Whether a mount point with exactly this directory is watched.
  bool hasmnt(const std::string& directory) const { return mounts_.has(directory); }
  /// Follows the mounts and unmounts since the last call. @param fd an open mount table. @return 0
  int check_mountpts(int fd);

 private:
  fsfilter();
  ~fsfilter() override;

  int watch(const mntpoint& mount, bool served) override;
  void unwatch(const mntpoint& mount, bool served, bool served_now) override;

  void set_running();
  void report_increase(std::uint64_t number, std::uint64_t& reported, const char* what);
  void let_go();

  fsfilter_handle_t ctx_ = nullptr;
  int timeout_ = 3;
  eventsForProcessing efp_;
  CCaching* cache_;
  Workers workers_;
  Lanes lanes_;
  MountTable mounts_;
  Lookout& lookout_ = *new Lookout;
  bool threads_left_ = false;

  /// Guards the life of ctx_, and the lanes. Taken by the service thread, and by the main thread
  /// when the loop begins and at the end.
  Mutex mutex_;
  std::string problems_;
  std::uint64_t reported_unscanned_ = 0;
  std::uint64_t reported_denied_ = 0;
  Clock::time_point next_report_{};
};
