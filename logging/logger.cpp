#include "logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <utility>

namespace {

constexpr int any_level = INT_MIN;
constexpr std::size_t large_record = 1024;
constexpr std::size_t small_record = 512;
constexpr std::size_t printed_line = 256;
constexpr std::size_t header_size = 80;
constexpr std::size_t max_pieces = 4;  // of a record

// The prefixes of the path up to each "/"; those that exist, or may not be made, are passed over:
// what matters is whether the file opens afterwards.
void make_leading_directories(const std::string& path) {
  for (std::size_t slash = path.find('/'); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    (void)mkdir(path.substr(0, slash + 1).c_str(), 0755);
  }
}

// Append mode: a truncated log continues at offset 0.
Descriptor open_append(const std::string& path) {
  Descriptor file(open(path.c_str(),
                       O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK,
                       0640));
  struct stat status {};
  const int known = file ? fstat(file.get(), &status) : lstat(path.c_str(), &status);
  if (known == 0 && !S_ISREG(status.st_mode)) {
    (void)std::fprintf(stderr, "%s is not a regular file: nothing is logged\n", path.c_str());
    file.reset();
  }
  return file;
}

// A text that may be cut is as long as its buffer holds, or nothing if it could not be formatted.
__attribute__((format(printf, 3, 4))) void write_cut(int level, std::size_t size,
                                                     const char* format, ...) {
  if (!Logger::wants(level)) {
    return;
  }
  char record[large_record] = "";
  std::va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(record, size, format, arguments);
  va_end(arguments);
  Logger::write_async(record);
}

// localtime_r, not localtime: another thread may be formatting a time of its own.
std::string_view header_now(char (&header)[header_size]) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  (void)localtime_r(&now, &local);
  const int length =
      std::snprintf(header, sizeof header, "\nAt %d:%d:%d %d/%d/%d\n", local.tm_hour, local.tm_min,
                    local.tm_sec, local.tm_mon + 1, local.tm_mday, local.tm_year + 1900);
  return {header, static_cast<std::size_t>(length)};
}

// A name has 15 bytes, so at most ten digits.
void name_thread_by(std::uint64_t dropped) {
  constexpr std::uint64_t most = 9'999'999'999;
  char name[16];
  (void)std::snprintf(name, sizeof name, "log -%" PRIu64, std::min(dropped, most));
  (void)pthread_setname_np(pthread_self(), name);
}

iovec part(std::string_view text) {
  return {const_cast<char*>(text.data()), text.size()};
}

}  // namespace

Logger* Logger::getLogger() {
  static Logger logger;
  return &logger;
}

void Logger::configure(const Settings& settings) {
  Logger* logger = getLogger();
  ScopedLock lock(logger->file_mutex_);
  logger->settings_ = settings;
  logger->level_.store(settings.level);
}

bool Logger::wants(int level) {
  return getLogger()->level_.load(std::memory_order_relaxed) >= level;
}

void Logger::append(int level, std::string_view text) noexcept {
  if (wants(level)) {
    write_async(text);
  }
}

void Logger::log(int level, std::string_view function, std::string_view text) noexcept {
  if (wants(level)) {
    getLogger()->deliver({function, " ", text, "\n"}, true);
  }
}

void Logger::log_format(int level, const char* function, const char* format, ...) noexcept {
  if (!wants(level)) {
    return;
  }
  char* text = nullptr;
  std::va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length >= 0) {
    log(level, function, {text, static_cast<std::size_t>(length)});
    std::free(text);
  } else {
    ++getLogger()->dropped_;
  }
}

void Logger::append_error(const error_info& info) {
  write_cut(1, large_record,
            "Error occurred in: Session ID: %" PRId64
            "\nPath: \"%s\"\nArchive name: \"%s\"\nError number: 0x%08" PRIX32
            "\nError Description: \"%s\"\n",
            info.session_id, info.path.c_str(), info.archive_name.c_str(), info.error_number,
            info.error_description.c_str());
}

void Logger::append_error(std::int64_t session_id, std::uint32_t error_number, const char* text) {
  append_error({session_id, error_number, "", "", text});
}

void Logger::append_detection(const detection_info& info) {
  write_cut(1, large_record,
            "infection detected in: Session ID: %" PRId64
            "\nPath: \"%s\"\nArchive name: \"%s\"\nDetection name: \"%s\"\n"
            "Detection type: \"%s\"\nDetection accuracy: \"%s\"\nScan result: \"%s\"\n",
            info.session_id, info.path.c_str(), info.archive_name.c_str(),
            info.detection_name.c_str(), info.detection_type.c_str(),
            info.detection_accuracy.c_str(), info.scan_result.c_str());
}

void Logger::append_scan_file(const scan_file_info& info) {
  write_cut(2, small_record, "File scan: Session ID: %" PRId64 "\nPath: \"%s\"\n", info.session_id,
            info.path.c_str());
}

void Logger::append_manual_scan_start(const manual_scanning_start_info& info) {
  write_cut(any_level, small_record,
            "Scan started: Session ID: %" PRId64 "\nPath: \"%s\"\nRecursion: %" PRId32 "\n",
            info.session_id, info.path.c_str(), info.recursion);
}

void Logger::append_manual_scan_stop(const manual_scanning_stop_info& info) {
  write_cut(any_level, small_record,
            "Scan completed: Session ID: %" PRId64 "\nPath: \"%s\"\nDetections: \"%s\"\n",
            info.session_id, info.path.c_str(), info.detections ? "yes" : "no");
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

void Logger::write_async(std::string_view text) noexcept {
  getLogger()->deliver({text}, true);
}

void Logger::write_sync(std::string_view text) noexcept {
  getLogger()->deliver({text}, false);
}

void Logger::enable() {
  getLogger()->enabled_.store(true);
}

void Logger::disable() {
  getLogger()->enabled_.store(false);
}

void Logger::disable_for_good() {
  getLogger()->stopped_.store(true);
}

void Logger::open() {
  Logger* logger = getLogger();
  ScopedLock lock(logger->file_mutex_);
  logger->open_file();
}

int Logger::start() {
  Logger* logger = getLogger();
  ScopedLock lock(logger->file_mutex_);
  if (logger->settings_.asynchronous && !logger->thread_.running()) {
    // Without the thread every record is written by its caller, as without AsyncLogging.
    (void)logger->thread_.start([logger] { logger->logger_thread(); });
  }
  return 0;
}

bool Logger::stop(std::chrono::milliseconds bound) {
  disable();
  Logger* logger = getLogger();
  logger->thread_.ask_to_stop();
  {
    ScopedLock lock(logger->queue_mutex_);
    logger->queue_.clear();
    logger->queue_changed_.notify_all();
  }
  return logger->thread_.wait_until_left(bound);
}

void Logger::drain(std::chrono::milliseconds bound) {
  Logger* logger = getLogger();
  const auto deadline = Clock::now() + bound;
  ScopedLock lock(logger->queue_mutex_);
  while (logger->thread_.running() && (!logger->queue_.empty() || logger->on_its_way_)) {
    if (!logger->queue_changed_.wait_until(lock, deadline)) {
      return;
    }
  }
}

std::uint64_t Logger::dropped() {
  return getLogger()->dropped_.load();
}

// Whether anything is written is asked before any lock: after a stop nobody waits for a writer
// whose disk has stalled.
void Logger::deliver(Pieces text, bool queued) noexcept {
  if (!writes()) {
    return;
  }
  try {
    if (queued && thread_.running()) {
      enqueue(text);
    } else {
      write_record(text);
    }
  } catch (const std::exception&) {
    ++dropped_;  // out of memory
  }
}

void Logger::enqueue(Pieces text) {
  std::string whole;
  for (const std::string_view piece : text) {
    whole += piece;
  }
  ScopedLock lock(queue_mutex_);
  if (queue_.size() < max_queued) {
    queue_.push_back(std::move(whole));
    queue_changed_.notify_all();
  } else {
    ++dropped_;
  }
}

void Logger::write_record(Pieces text) {
  ScopedLock lock(file_mutex_);
  open_file();
  if (!writes() || !file_) {
    return;
  }
  empty_file_at_limit();
  char header[header_size];
  std::array<iovec, max_pieces + 1> parts{part(header_now(header))};
  std::transform(text.begin(), text.end(), parts.begin() + 1, part);
  // If the disk is full, the record is lost; that must never delay an answer.
  (void)!writev(file_.get(), parts.data(), static_cast<int>(text.size() + 1));
}

// Opens each path only once: a failed open is not tried again with every record.
void Logger::open_file() {
  if (opened_path_ == settings_.path) {
    return;
  }
  make_leading_directories(settings_.path);
  file_ = open_append(settings_.path);
  opened_path_ = settings_.path;
}

void Logger::empty_file_at_limit() {
  struct stat status {};
  if (fstat(file_.get(), &status) == 0 &&
      static_cast<std::uint64_t>(status.st_size) >= settings_.size_limit &&
      ftruncate(file_.get(), 0) != 0) {
    (void)std::fprintf(stderr, "ftruncate: %s\n", std::strerror(errno));
  }
}

// The queue is not locked while a text is written to the disk: a stalled disk must not block the
// threads that answer the kernel.
void Logger::logger_thread() {
  std::uint64_t named_by = 0;
  ScopedLock lock(queue_mutex_);
  while (!DetachedThread::stopping()) {
    if (const std::uint64_t dropped = dropped_; dropped != named_by) {
      named_by = dropped;
      name_thread_by(dropped);
    }
    on_its_way_ = !queue_.empty();
    if (!on_its_way_) {
      queue_changed_.notify_all();  // for drain()
      queue_changed_.wait(lock);
      continue;
    }
    const std::string text = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    deliver({text}, false);
    lock.lock();
  }
}
