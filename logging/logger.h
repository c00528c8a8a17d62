// The daemon's log: time-stamped records appended to one file, by the calling thread or, in
// asynchronous mode, by a thread of the logger's own.
//
// Levels: 1 error, 2 debug, 3 trace. A record of level L is written while the logger's level is at
// least L. Any thread may log, with any lock held: the logger calls no other module, throws
// nothing, and opens a file only for the first record after configure(), or in open().
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <list>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "detached_thread.h"
#include "mutex.h"

/// Owns the log file and, in asynchronous mode, the queue and its thread. All operations are
/// static and reach the one logger of the process.
class Logger {
 public:
  /// What the logger is told. Until then, these defaults hold.
  struct Settings {
    std::string path = "/var/log/pelowatchd.log";        ///< its folders are made, with mode 0755
    int level = 2;                                       ///< 0 for scheduled scans alone
    std::uint64_t size_limit = std::uint64_t{16} << 20;  ///< bytes; then the file is emptied
    bool asynchronous = false;  ///< whether start() starts the logger's thread
  };

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
    std::int64_t session_id;
    std::string path;
  };

  struct manual_scanning_start_info {
    std::int64_t session_id;
    std::string path;
    std::int32_t recursion;  ///< deepest level entered
  };

  struct manual_scanning_stop_info {
    std::int64_t session_id;
    std::string path;
    bool detections;  ///< something was found
  };

  /// The most texts that wait for the logger's thread; further ones are dropped.
  static constexpr std::size_t max_queued = 10000;

  /// The logger, built on first use. Whoever logs while static objects are destroyed touches it in
  /// its constructor, so that the logger outlives it.
  static Logger* getLogger();

  /// Takes new settings, from the next record on. With another path, that record opens the file
  /// there; without a file the logger runs on and writes nothing. What is no regular file, a link
  /// included, is refused with a line on standard error: the daemon writes as root wherever a name
  /// leads, and a pipe would hold every record up.
  static void configure(const Settings& settings);

  /// Whether records of this level are kept: ask before formatting anything costly.
  static bool wants(int level);

  /// Writes a text as it is, whatever its bytes; callers end it with a newline.
  static void append(int level, std::string_view text) noexcept;

  /// Writes a function's record: its short name (its __func__), a blank, the text and a newline.
  static void log(int level, std::string_view function, std::string_view text) noexcept;

  /// The same for a text to be formatted, however long. Nothing is formatted when the level is off.
  static void log_format(int level, const char* function, const char* format, ...) noexcept
      __attribute__((format(printf, 3, 4)));

  /// Fixed records; each is cut at the size of its buffer (1024 bytes for the first two, else 512,
  /// the terminator included).
  static void append_error(const error_info& info);  ///< level 1
  static void append_error(std::int64_t session_id, std::uint32_t error_number, const char* text);
  static void append_detection(const detection_info& info);                      ///< level 1
  static void append_scan_file(const scan_file_info& info);                      ///< level 2
  static void append_manual_scan_start(const manual_scanning_start_info& info);  ///< any level
  static void append_manual_scan_stop(const manual_scanning_stop_info& info);    ///< any level

  /// Prints to standard output (level 2 and above) or standard error (level 1 and below), cut at
  /// 255 bytes; never to the file.
  static void print(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

  /// Queues a text, or writes it at once when no logger thread runs.
  static void write_async(std::string_view text) noexcept;

  /// Writes one record now: a blank line, the time, the text. The file is emptied first when it
  /// has reached its size limit.
  static void write_sync(std::string_view text) noexcept;

  /// Switch writing on and off, from the next record on.
  static void enable();
  static void disable();

  /// Switches writing off for good, for a stop: an enable() in another thread must not undo it.
  /// Safe in a signal handler once the logger exists. Afterwards a record does not even open the
  /// file (open() still does), so programs that read the daemon's files but are not the daemon call
  /// this before anything else.
  static void disable_for_good();

  /// Opens the log file, as the first record would: for who must not open a file later, or wants
  /// a refusal to be seen.
  static void open();

  /// Starts the logger's thread if the settings ask for it.
  /// @return 0
  static int start();

  /// Switches writing off and ends the logger's thread. Texts still queued are dropped.
  /// @return false when the thread is still writing after `bound`; it must then not meet the end of
  ///         the process's static objects
  static bool stop(std::chrono::milliseconds bound = std::chrono::seconds(5));

  /// Waits until every queued text is written, at most `bound`.
  static void drain(std::chrono::milliseconds bound);

  /// How many texts were dropped because too many were waiting, or for want of memory. The log does
  /// not tell of them. If there is a logger's thread, it takes their count as its name when it next
  /// wakes, such as "log -1234".
  static std::uint64_t dropped();

 private:
  /// One text in pieces, so that writing it at once takes no memory.
  using Pieces = std::initializer_list<std::string_view>;

  Logger() = default;

  bool writes() const { return enabled_.load() && !stopped_.load(); }
  void open_file() PELO_REQUIRES(file_mutex_);
  void empty_file_at_limit() PELO_REQUIRES(file_mutex_);
  void deliver(Pieces text, bool queued) noexcept;
  void enqueue(Pieces text);
  void write_record(Pieces text);
  void logger_thread();

  std::atomic<int> level_{Settings{}.level};
  std::atomic<bool> enabled_{true};
  std::atomic<bool> stopped_{false};  ///< for good, whatever enabled_ says

  Mutex file_mutex_;  ///< keeps each record whole
  Settings settings_ PELO_GUARDED_BY(file_mutex_);
  std::string opened_path_ PELO_GUARDED_BY(file_mutex_);  ///< that of file_, which may have failed
  Descriptor file_ PELO_GUARDED_BY(file_mutex_);

  DetachedThread thread_;
  Mutex queue_mutex_;
  std::list<std::string> queue_ PELO_GUARDED_BY(queue_mutex_);
  std::atomic<std::uint64_t> dropped_{0};
  bool on_its_way_ PELO_GUARDED_BY(queue_mutex_) = false;  ///< a text between queue and file
  Condition queue_changed_;
};
