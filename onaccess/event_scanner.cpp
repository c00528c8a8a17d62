#include "event_scanner.h"

#include <atomic>
#include <utility>

#include "avsdk_scanner.h"
#include "daemon_config.h"
#include "detected_file.h"
#include "logger.h"

namespace {

std::atomic<int> next_number{0};
std::atomic<bool> told_of_no_handle{false};

const GlobalConfig& settings() {
  return *GlobalConfig::getGlobalConfig();
}

// Every thread meets this at every file, and one line is enough until there is a handle again. An
// engine that cannot be initialised has been reported already.
void tell_once_of_no_handle(bool have_handle) {
  if (!AVSDK_scanner::getAVSDK_scanner()->initialized()) {
    return;
  }
  if (!told_of_no_handle.exchange(!have_handle) && !have_handle) {
    Logger::log_format(1, event_log_name,
                       "no engine handle: files are allowed unscanned; does \"%s\" hold "
                       "definitions that load?",
                       settings().DatabaseDirectory.c_str());
  }
}

}  // namespace

EventScanner::EventScanner(const UpdateBarrier& updates, CCaching& cache)
    : updates_(updates), cache_(cache), number_(next_number.fetch_add(1)) {}

// The update's number is read before the handle is made: the handle may be newer than the number
// says, but never older. A handle that could not be made stays null and is never released.
void EventScanner::renew_if_due() {
  AVSDK_scanner* scanner = AVSDK_scanner::getAVSDK_scanner();
  const unsigned update = updates_.update();
  if (renewed_for_ && (renewed_for_ == update || scanner->update_in_progress())) {
    return;
  }
  renewed_for_ = update;
  try {
    release_handle();
    (void)scanner->get_thread_scan_handler(&engine_handle_, true);
  } catch (...) {
    engine_handle_ = nullptr;
  }
  tell_once_of_no_handle(engine_status());
}

void EventScanner::release_handle() {
  if (void* handle = std::exchange(engine_handle_, nullptr); handle != nullptr) {
    AVSDK_scanner::getAVSDK_scanner()->release_thread_scan_handler(handle);
  }
}

// When memory is missing or the engine throws, the event is allowed, like others that cannot be
// scanned, by the destructor of `held`.
void EventScanner::process(Held held) {
  const fsfilter_event_struct& event = held.event();
  try {
    path_ = event.path;
    if (settings().Loglevel > 1) {
      print_event_info(&event);
    }
    Logger::log_format(3, event_log_name, "Thread %d avh_init %d", number_,
                       engine_status() ? 1 : 0);
    if (engine_status()) {
      decide(held);
      return;
    }
    if (event.type == FSFILTER_CLOSE_WR) {
      cache_.erase(path_);  // other threads may have a handle and must scan the file
    }
    held.allow();
  } catch (...) {
    // Nothing is left to be done.
  }
}

// A written file is scanned even if its path is cached; the entry stays until the verdict.
void EventScanner::decide(Held& held) {
  const fsfilter_event_struct& event = held.event();
  const bool written = event.type == FSFILTER_CLOSE_WR;
  const bool cached = cache_.lookup(path_);
  if (written) {
    cache_.note_change(path_);
  }
  if (cached) {
    log_hit(event, written);
  }
  if (cached && !written) {
    held.allow();
    return;
  }
  const unsigned update = updates_.update();
  const unsigned changes = cache_.changes(path_);
  const int verdict = AVSDK_scanner::getAVSDK_scanner()->scan_file(
      engine_handle_, event.fd, event.path, settings().MaxArchiveDepth, settings().DefaultAction,
      settings().DecompressLimit);
  const FileIdentity identity = identify(event.fd);
  if (verdict == 2) {
    held.deny();  // first, so that the opener goes on
    (void)remove_if_same(event.path, identity);
    cache_.erase(path_);
  } else if (verdict == 1) {
    cache_.erase(path_);
    held.deny();
  } else {
    // A file that was removed meanwhile has no name left; another one may get it.
    if (verdict == 0 && !cached && identity.links != 0) {
      remember_clean(update, changes);
    }
    held.allow();
  }
}

void EventScanner::log_hit(const fsfilter_event_struct& event, bool written) {
  if (written) {
    Logger::log_format(3, event_log_name, "Thread %d cache erase %s", number_, event.path);
  }
  if (Logger::wants(3)) {
    Logger::log_format(3, event_log_name, "Thread %d cache hit (%d, %d) \"%s\"", number_,
                       cache_.size(), cache_.max(), event.path);
  }
}

// The path is added first and the checks follow. An update or a change before the addition has
// removed the path too early, and the checks see it. A later one removes the path itself.
void EventScanner::remember_clean(unsigned update, unsigned changes) {
  (void)cache_.add(path_);
  if (update != updates_.update() || changes != cache_.changes(path_)) {
    cache_.erase(path_);
    return;
  }
  Logger::log_format(3, event_log_name, "Thread %d added: \"%s\"", number_, path_.c_str());
}
