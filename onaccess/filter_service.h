// On-access scanning: from the kernel's held opens to the workers' verdicts.
//
// Who owns a held open:
//   kernel -> loop()      request_event() hands over the event; loop() must post or answer it
//   loop() -> queue       post() copies it; nobody answers it until a worker has taken it
//   queue  -> worker      the worker that pops it must answer it, whatever happens to the scan
//   worker -> kernel      set_result() answers and closes the descriptor
// What is still in the queue at the end is answered by the kernel, which allows it, when
// unreg_filter() closes the filter.
//
// loop() runs on the main thread, the only one that reads events. It opens no file and takes no
// lock that another thread holds while opening one; else it would wait for its own answer.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <list>
#include <map>
#include <optional>
#include <string>

#include "barriers.h"
#include "cache.h"
#include "event_queue.h"
#include "fsfilter.h"
#include "mountpt.h"
#include "mutex.h"
#include "since.h"
#include "standby_reader.h"
#include "time_limits.h"

/// The events on their way from the loop to the workers, with what both sides need.
struct eventsForProcessing {
  std::atomic<int> running{0};   ///< 1 while the service runs
  StartBarrier start_barrier;    ///< the workers and the loop
  UpdateBarrier update_barrier;  ///< the workers, after a definition update
  std::atomic<int> held{0};      ///< events posted and not yet answered, each with a descriptor

  Mutex mutex;
  Condition cond;  ///< idle workers wait here: for the queue to become non-empty, or for an update
  fsfilter_handle_t ctx PELO_GUARDED_BY(mutex) = nullptr;
  EventQueue queue PELO_GUARDED_BY(mutex);

  /// By worker number, the descriptor of the event it is working on, or -1: for the day when it
  /// cannot be waited for.
  static constexpr int most_workers = 1024;
  std::array<std::atomic<int>, most_workers> in_work;
};

/// One worker in the service's list.
struct threadInfo {
  explicit threadInfo(unsigned long thread);
  bool operator==(const threadInfo& other) const { return tid == other.tid; }

  unsigned long tid;  ///< its pthread_t
  std::time_t ts;     ///< seconds; creation, then the last mark
  int where = 0;      ///< non-zero: busy at that place
};

/// The filter service of the process.
class fsfilter {
 public:
  /// Built on the first call, which is made before any signal handler is installed.
  static fsfilter* get();

  fsfilter(const fsfilter&) = delete;
  fsfilter& operator=(const fsfilter&) = delete;

  /// Opens the filter and starts the standby readers. @return 0; -1 when it is open already; else
  /// the library's result
  int reg_filter();

  /// Whether a lookout was made, whose thread takes the signals that reg_filter()'s caller does not
  /// block. Without one it is the caller who must take them.
  bool has_lookout() const { return standby_.has_lookout(); }

  /// Closes the filter: the kernel allows what is still held. Threads that are still busy in the
  /// engine, or with the mount table, may outlive it; see threads_left().
  /// @return the library's result, -1 when none is open
  int unreg_filter();

  /// Kept for callers that will want it; nothing reads the value. Seconds.
  void set_timeout(int seconds) { timeout_ = seconds; }

  int ignore(const char* path) { return ignore_path(ctx_, path); }

  /// Hand paths to the filter, before loop() runs. An include entry loses one trailing slash.
  /// @return 0, or -1 when an entry failed; the others apply all the same
  int include(const std::list<std::string>& paths);
  int exclude(const std::list<std::string>& paths);

  /// Queues a copy of an event for the workers and wakes one if the queue was empty. Only then: a
  /// worker that finds events waiting does not sleep. @return 0, or -1 without memory for it
  int post(fsfilter_event_struct& event);

  /// Reads and hands out events until a stop has been asked for and the last worker has left, or
  /// has had two seconds to leave: a hanging engine must not keep the daemon from stopping.
  void loop();

  /// Asks loop() to end. Safe in a signal handler, and before loop() runs.
  void stop();

  /// Whether a stop has been asked for.
  bool stopping() const { return stop_requested_.load(); }

  /// When everything must have ended: within three seconds of the first stop(), or from now when
  /// nobody has called it.
  std::chrono::steady_clock::time_point stop_deadline() const;

  /// New definitions are in force: every worker renews its engine handle, those that sleep at once;
  /// the cache is emptied.
  /// @return 0
  int reloaddb();

  /// An update has come to nothing: wakes the workers that sleep, so that those renew that have put
  /// off their renewal for an earlier update while this one was being loaded. Any thread.
  void wake_to_renew();

  int isrunning() const { return efp_.running.load(); }
  int isupdating() const { return efp_.update_barrier.pending() ? 1 : 0; }
  eventsForProcessing* getefp() { return &efp_; }
  CCaching* getCacheManager() { return cache_; }

  /// Starts the workers, at most 1024. @return 0; -1 when they run already, or when not all could
  /// be made, in which case the service works with those it has
  int start_threads(int wanted);

  /// Takes a worker off the list: its own last act. @return 0
  int cancel_thread(unsigned long tid);

  /// Notes that a worker is busy at a place, 0 for idle. @return 0
  int mark_thread(unsigned long tid, int where);

  /// Reports workers that have been busy for more than three seconds. Passes over a turn in which
  /// the mount table is being worked on. @return 0
  int check_threads();

  /// Workers, or other users of the filter, that unreg_filter() left behind. The process must then
  /// end without destroying its static objects.
  bool threads_left() const { return threads_left_; }

  /// How many events may be held at once; set before loop() runs. Further ones are allowed.
  void set_held_limit(int events) { held_limit_ = events; }

  /// How long an event may be first in the queue, with no worker taking it, before all that wait
  /// are allowed unscanned: the workers may be reading files whose server waits for one of these.
  /// Half a minute when not set; before reg_filter().
  void set_patience(std::chrono::milliseconds bound) { patience_ = bound; }

  /// Called when everything should have ended, but the main thread is stuck in the kernel with a
  /// file or folder of a file system that does not answer. It must end the process, and may neither
  /// wait nor open a file. Before reg_filter().
  void set_last_resort(void (*end_process)()) { last_resort_ = end_process; }

  /// Notes what start-up could not do, for report(): the main thread, which nobody answers while it
  /// starts, leaves the writing to another. Before the service thread starts.
  void note_problem(const char* text) { problems_ += text; }

  /// Counts an event that was allowed without a scan. Any thread.
  void count_unscanned() { unscanned_.fetch_add(1, std::memory_order_relaxed); }

  /// Logs what was noted, and, at most once a minute, how many events were allowed without a scan
  /// since last time because too many were held or they could not be named, and how many log
  /// records were dropped. For the service thread.
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
  int addmnt(const mntinfo& entry);
  /// Whether no mount point could be registered.
  bool watches_nothing();
  /// Whether a mount point with exactly this directory is watched.
  bool hasmnt(const std::string& directory);
  /// Follows the mounts and unmounts since last time, from an open mount table. @return 0
  int check_mountpts(int fd);

 private:
  using Clock = std::chrono::steady_clock;

  fsfilter();
  ~fsfilter();

  bool reader_is_stuck() const;
  bool event_comes();
  void read_in_its_place();
  void look_after();
  bool first_is_let_go();
  void let_go_of_queue();
  void let_go_of_work();
  void let_go_of_all();
  void suspend_watching();
  void end_stuck_process();
  bool too_many_held() const;
  std::optional<int> close_filter();
  int leave_filter();
  void hand_out(fsfilter_event_struct& event);
  void allow(fsfilter_event_struct& event);
  void allow_unscanned(fsfilter_event_struct& event);
  Clock::duration first_waits(FrontWatch& watch);
  void keep_workers_going(Clock::duration first_waits);
  void wake_workers();
  void wait_for_leavers();
  bool stop_overdue() const;
  void join_workers();
  void detect_new_mounts(const std::list<mntinfo>& table) PELO_REQUIRES(mutex_);
  void forget_removed_mounts(const std::list<mntinfo>& table) PELO_REQUIRES(mutex_);
  void mark_again() PELO_REQUIRES(mutex_);

  fsfilter_handle_t ctx_ = nullptr;
  int timeout_ = 3;
  eventsForProcessing efp_;
  CCaching* cache_;

  std::atomic<bool> stop_requested_{false};
  Since stop_requested_since_;

  /// Guards the mount table, the thread lists and the life of ctx_. loop() never waits for it.
  RecursiveTimedMutex mutex_;
  std::map<std::string, mntpoint> mount_table_ PELO_GUARDED_BY(mutex_);
  std::list<threadInfo> threads_ PELO_GUARDED_BY(mutex_);
  std::list<unsigned long> started_;  ///< and not yet joined; the main thread's
  bool threads_left_ = false;

  Mutex leaving_mutex_;
  std::list<unsigned long> finished_ PELO_GUARDED_BY(leaving_mutex_);  ///< to be joined
  Condition worker_left_;
  std::atomic<int> worker_count_{0};  ///< of threads_; read by loop() without mutex_

  /// Whether loop() reads; before and after, nobody scans, and standby readers allow.
  std::atomic<bool> looping_{false};
  std::atomic<bool> looped_{false};
  Since not_looping_;                 ///< from the first mark on
  Since handing_out_;                 ///< loop(), one event
  std::atomic<bool> leaving_{false};  ///< unreg_filter() leaves threads behind, and must read on
  StandbyReaders standby_;
  FrontWatch standby_front_;  ///< the lookout's
  std::chrono::milliseconds patience_ = time_limits::patience;
  std::atomic<bool> unwatched_{false};  ///< and so the cache may be wrong
  std::atomic<bool> suspended_{false};  ///< the marks have been taken off, not yet reported
  void (*last_resort_)() = nullptr;

  int held_limit_;
  std::atomic<std::uint64_t> unscanned_{0};
  std::string problems_;
  std::uint64_t reported_ = 0;
  std::uint64_t reported_dropped_ = 0;
  Clock::time_point next_report_{};

  FrontWatch front_;  ///< loop()'s
  Clock::time_point next_look_{};
};
