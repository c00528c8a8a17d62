// The daemon's log: time-stamped records appended to one file, by the calling thread or, with
// AsyncLogging, by a thread of the logger's own.
//
// Levels: 1 error, 2 debug, 3 trace. A record of level L is written while Loglevel is at least L.
// Any thread may log, with any lock held: the logger calls nobody, and opens no
// file but in its first use and reopen().
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <list>
#include <string>

#include "detached_thread.h"
#include "mutex.h"

/// Owns the log file and, in asynchronous mode, the queue and its thread. All operations are
/// static and reach the one logger of the process.
class Logger {
 public:
  /// Session ids are the engine handle's value as a signed number, or -1 without a handle.
  struct error_info {
    std::int64_t session_id = 0;
    std::uint32_t error_number = 0;
    std::string path;
    std::string archive_name;
    std::string error_description;
  };

  struct detection_info {
    std::int64_t session_id = 0;
    std::string path;
    std::string detection_name;
    std::string detection_type;
    std::string detection_accuracy;
    std::string scan_result;
    std::string archive_name;
  };

  struct scan_file_info {
    scan_file_info(std::int64_t session, std::string file);
    std::int64_t session_id;
    std::string path;
  };

  struct manual_scanning_start_info {
    manual_scanning_start_info(std::int64_t session, std::string folder, std::int32_t depth);
    std::int64_t session_id;
    std::string path;
    std::int32_t recursion;  ///< deepest level entered
  };

  struct manual_scanning_stop_info {
    manual_scanning_stop_info(std::int64_t session, std::string folder, bool found);
    std::int64_t session_id;
    std::string path;
    bool detections;  ///< something was found
  };

  /// Texts waiting for the logger thread; one more is dropped.
  static constexpr std::size_t max_queued = 10000;

  /// For programs that read the daemon's files but are not the daemon, as the first thing they do:
  /// no log file is ever opened or made, so nothing is written.
  static void keep_closed();

  /// The logger, built on first use: makes the log's directory and opens the file. Without a file
  /// it runs on and writes nothing.
  static Logger* getLogger();

  /// Whether records of this level are kept: ask before formatting anything costly.
  static bool wants(int level);

  /// Writes a text as it is; callers end it with a newline.
  static void append(int level, const char* text);
  static void append(int level, const std::string& text);

  /// Formats a text, however long, and appends it. Nothing is formatted when the level is off.
  static void append_format(int level, const char* format, ...)
      __attribute__((format(printf, 2, 3)));

  /// Fixed records; each is cut at the size of its buffer (1024 bytes for the first two, else 512,
  /// the terminator included).
  static void append_error(const error_info& info);                              ///< level 1
  static void append_detection(const detection_info& info);                      ///< level 1
  static void append_scan_file(const scan_file_info& info);                      ///< level 2
  static void append_manual_scan_start(const manual_scanning_start_info& info);  ///< any level
  static void append_manual_scan_stop(const manual_scanning_stop_info& info);    ///< any level

  /// Prints to standard output (level 2 and above) or standard error (level 1 and below), cut at
  /// 255 bytes; never to the file.
  static void print(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

  /// Queues a text, or writes it at once when no logger thread runs.
  static void write_async(const char* text);

  /// Writes one record now: a blank line, the time, the text. The file is emptied first when it
  /// has reached Maxlog bytes.
  static void write_sync(const char* text);

  /// Switch writing on and off, from the next record on. A signal handler may call disable(): the
  /// flag is atomic because the thread it interrupts may be writing.
  static void enable();
  static void disable();

  /// Moves to the log file that the settings name now, if that is another one.
  static void reopen();

  /// Applies the settings, which are complete by now: moves to their log file, and starts the
  /// logger thread when AsyncLogging is on.
  /// @return 0
  static int start();

  /// Switches writing off and ends the logger thread. Texts still queued are dropped.
  /// @return false when the thread is still writing after `bound`; it must then not meet the end of
  ///         the process's static objects
  static bool stop(std::chrono::milliseconds bound = std::chrono::seconds(5));

  /// How many texts have been dropped so far because too many were waiting.
  static std::uint64_t dropped();

  /// Waits until every queued text is written, at most `bound`.
  static void drain(std::chrono::milliseconds bound);

 private:
  Logger();
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  void open_file() PELO_REQUIRES(file_mutex_);
  void write_record(const char* text);
  void empty_file_at_limit() PELO_REQUIRES(file_mutex_);
  void write_header() PELO_REQUIRES(file_mutex_);
  void enqueue(const char* text);
  [[noreturn]] void write_queue_forever();

  std::FILE* file_ PELO_GUARDED_BY(file_mutex_) = nullptr;
  std::string file_path_ PELO_GUARDED_BY(file_mutex_);
  std::atomic<bool> enabled_{true};
  Mutex file_mutex_;  ///< keeps each record whole

  std::list<std::string> queue_ PELO_GUARDED_BY(queue_mutex_);
  std::atomic<std::uint64_t> dropped_{0};
  bool writing_ PELO_GUARDED_BY(queue_mutex_) = false;  ///< a text is between queue and file
  DetachedThread thread_;
  Mutex queue_mutex_;
  Condition queue_changed_;
  Condition queue_drained_;
};
