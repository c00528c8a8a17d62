#include "logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include "daemon_config.h"

namespace {

constexpr std::size_t large_record = 1024;
constexpr std::size_t small_record = 512;
constexpr std::size_t printed_line = 256;

std::atomic<bool> kept_closed{false};

// The prefixes of the path up to each "/"; those that exist, or may not be made, are passed over:
// what matters is whether the file opens afterwards.
void make_leading_directories(const std::string& path) {
  for (std::size_t slash = path.find('/'); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    (void)mkdir(path.substr(0, slash + 1).c_str(), 0755);
  }
}

// Append mode: a truncated log continues at offset 0. Links are not followed, since the daemon
// writes as root wherever the name leads.
std::FILE* open_append(const std::string& path) {
  const int fd =
      open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0640);
  if (fd < 0) {
    return nullptr;
  }
  std::FILE* file = fdopen(fd, "a+");
  if (file == nullptr) {
    (void)close(fd);
  }
  return file;
}

}  // namespace

Logger::scan_file_info::scan_file_info(std::int64_t session, std::string file)
    : session_id(session), path(std::move(file)) {}

Logger::manual_scanning_start_info::manual_scanning_start_info(std::int64_t session,
                                                               std::string folder,
                                                               std::int32_t depth)
    : session_id(session), path(std::move(folder)), recursion(depth) {}

Logger::manual_scanning_stop_info::manual_scanning_stop_info(std::int64_t session,
                                                             std::string folder, bool found)
    : session_id(session), path(std::move(folder)), detections(found) {}

void Logger::keep_closed() {
  kept_closed.store(true);
}

Logger* Logger::getLogger() {
  static Logger logger;
  return &logger;
}

// The settings are touched first, so that they outlive the logger at exit.
Logger::Logger() {
  (void)GlobalConfig::getGlobalConfig();
  ScopedLock lock(file_mutex_);
  open_file();
}

Logger::~Logger() {
  ScopedLock lock(file_mutex_);
  if (file_ != nullptr) {
    (void)std::fclose(file_);
    file_ = nullptr;
  }
}

void Logger::open_file() {
  file_path_ = GlobalConfig::getGlobalConfig()->GetLogFilePath();
  if (kept_closed.load()) {
    return;
  }
  make_leading_directories(file_path_);
  file_ = open_append(file_path_);
}

bool Logger::wants(int level) {
  return GlobalConfig::getGlobalConfig()->Loglevel >= level;
}

void Logger::append(int level, const char* text) {
  if (wants(level)) {
    write_async(text);
  }
}

void Logger::append(int level, const std::string& text) {
  append(level, text.c_str());
}

void Logger::append_format(int level, const char* format, ...) {
  if (!wants(level)) {
    return;
  }
  char* text = nullptr;
  std::va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length >= 0) {
    write_async(text);
    std::free(text);
  }
}

void Logger::append_error(const error_info& info) {
  if (!wants(1)) {
    return;
  }
  char record[large_record];
  (void)std::snprintf(record, sizeof record,
                      "Error occurred in: Session ID: %" PRId64
                      "\nPath: \"%s\"\nArchive name: \"%s\"\nError number: 0x%08" PRIX32
                      "\nError Description: \"%s\"\n",
                      info.session_id, info.path.c_str(), info.archive_name.c_str(),
                      info.error_number, info.error_description.c_str());
  write_async(record);
}

void Logger::append_detection(const detection_info& info) {
  if (!wants(1)) {
    return;
  }
  char record[large_record];
  (void)std::snprintf(record, sizeof record,
                      "infection detected in: Session ID: %" PRId64
                      "\nPath: \"%s\"\nArchive name: \"%s\"\nDetection name: \"%s\"\n"
                      "Detection type: \"%s\"\nDetection accuracy: \"%s\"\nScan result: \"%s\"\n",
                      info.session_id, info.path.c_str(), info.archive_name.c_str(),
                      info.detection_name.c_str(), info.detection_type.c_str(),
                      info.detection_accuracy.c_str(), info.scan_result.c_str());
  write_async(record);
}

void Logger::append_scan_file(const scan_file_info& info) {
  if (!wants(2)) {
    return;
  }
  char record[small_record];
  (void)std::snprintf(record, sizeof record, "File scan: Session ID: %" PRId64 "\nPath: \"%s\"\n",
                      info.session_id, info.path.c_str());
  write_async(record);
}

void Logger::append_manual_scan_start(const manual_scanning_start_info& info) {
  char record[small_record];
  (void)std::snprintf(record, sizeof record,
                      "Scan started: Session ID: %" PRId64 "\nPath: \"%s\"\nRecursion: %" PRId32
                      "\n",
                      info.session_id, info.path.c_str(), info.recursion);
  write_async(record);
}

void Logger::append_manual_scan_stop(const manual_scanning_stop_info& info) {
  char record[small_record];
  (void)std::snprintf(record, sizeof record,
                      "Scan completed: Session ID: %" PRId64 "\nPath: \"%s\"\nDetections: \"%s\"\n",
                      info.session_id, info.path.c_str(), info.detections ? "yes" : "no");
  write_async(record);
}

void Logger::print(int level, const char* format, ...) {
  if (!wants(level)) {
    return;
  }
  char line[printed_line];
  std::va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  std::FILE* stream = level >= 2 ? stdout : stderr;
  (void)std::fputs(line, stream);
  (void)std::fflush(stream);
}

void Logger::write_async(const char* text) {
  Logger* logger = getLogger();
  if (!logger->enabled_.load()) {
    return;
  }
  if (logger->thread_.running()) {
    logger->enqueue(text);
  } else {
    logger->write_record(text);
  }
}

void Logger::write_sync(const char* text) {
  getLogger()->write_record(text);
}

void Logger::enable() {
  getLogger()->enabled_.store(true);
}

void Logger::disable() {
  getLogger()->enabled_.store(false);
}

void Logger::reopen() {
  Logger* logger = getLogger();
  ScopedLock lock(logger->file_mutex_);
  if (logger->file_path_ == GlobalConfig::getGlobalConfig()->GetLogFilePath()) {
    return;
  }
  if (logger->file_ != nullptr) {
    (void)std::fclose(logger->file_);
    logger->file_ = nullptr;
  }
  logger->open_file();
}

int Logger::start() {
  reopen();
  Logger* logger = getLogger();
  if (GlobalConfig::getGlobalConfig()->AsyncLogging && !logger->thread_.running()) {
    // Without the thread every record is written by its caller, as without AsyncLogging.
    (void)logger->thread_.start(
        [](void* self) { static_cast<Logger*>(self)->write_queue_forever(); }, logger);
  }
  return 0;
}

bool Logger::stop(std::chrono::milliseconds bound) {
  disable();
  Logger* logger = getLogger();
  logger->thread_.cancel();
  {
    ScopedLock lock(logger->queue_mutex_);
    logger->queue_changed_.notify_all();
  }
  return logger->thread_.wait_until_left(bound);
}

void Logger::drain(std::chrono::milliseconds bound) {
  Logger* logger = getLogger();
  const auto deadline = std::chrono::steady_clock::now() + bound;
  ScopedLock lock(logger->queue_mutex_);
  while (logger->thread_.running() && (!logger->queue_.empty() || logger->writing_)) {
    if (!logger->queue_drained_.wait_until(lock, deadline)) {
      return;
    }
  }
}

// The flag is looked at before the lock as well: after a stop nobody waits for a writer whose disk
// has stalled.
void Logger::write_record(const char* text) {
  if (!enabled_.load()) {
    return;
  }
  ScopedLock lock(file_mutex_);
  if (!enabled_.load() || file_ == nullptr) {
    return;
  }
  empty_file_at_limit();
  write_header();
  (void)std::fputs(text, file_);
  (void)std::fflush(file_);  // a full disk costs the record, never an answer
}

void Logger::empty_file_at_limit() {
  const auto position = static_cast<std::int64_t>(ftello(file_));
  if (position < 0 ||
      static_cast<std::uint64_t>(position) < GlobalConfig::getGlobalConfig()->Maxlog) {
    return;
  }
  if (ftruncate(fileno(file_), 0) != 0) {
    (void)std::fprintf(stderr, "ftruncate: %s\n", std::strerror(errno));
  }
  (void)fseeko(file_, 0, SEEK_END);  // the stream remembers where it was before
}

// localtime_r, not localtime: another thread may be formatting a time of its own.
void Logger::write_header() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  (void)localtime_r(&now, &local);
  (void)std::fprintf(file_, "\nAt %d:%d:%d %d/%d/%d\n", local.tm_hour, local.tm_min, local.tm_sec,
                     local.tm_mon + 1, local.tm_mday, local.tm_year + 1900);
}

void Logger::enqueue(const char* text) {
  std::list<std::string> node;
  node.emplace_back(text);
  ScopedLock lock(queue_mutex_);
  if (queue_.size() < max_queued) {
    queue_.splice(queue_.end(), node);
    queue_changed_.notify_one();
  } else {
    dropped_.fetch_add(1, std::memory_order_relaxed);
  }
}

std::uint64_t Logger::dropped() {
  return getLogger()->dropped_.load(std::memory_order_relaxed);
}

// The queue stays open to everybody while a text is on its way to the disk: a stalled disk must
// not stop the threads that answer the kernel.
void Logger::write_queue_forever() {
  for (;;) {
    std::list<std::string> head;
    ScopedLock lock(queue_mutex_);
    while (queue_.empty()) {
      DetachedThread::cancellation_point();
      queue_changed_.wait(lock);
    }
    DetachedThread::cancellation_point();
    head.splice(head.begin(), queue_, queue_.begin());
    writing_ = true;
    lock.unlock();
    write_record(head.front().c_str());
    lock.lock();
    writing_ = false;
    if (queue_.empty()) {
      queue_drained_.notify_all();
    }
  }
}
