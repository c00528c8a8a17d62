#include "event_worker.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstring>
#include <new>
#include <utility>

#include "avsdk_scanner.h"
#include "daemon_config.h"
#include "logger.h"

namespace {

std::atomic<int> tid{0};
std::atomic<bool> told_of_no_handle{false};

const GlobalConfig& settings() {
  return *GlobalConfig::getGlobalConfig();
}

// Every worker meets it, and what goes unscanned must not fill the log: one line until there is a
// handle again. An engine that cannot be initialised has been reported as that.
void tell_once_of_no_handle(bool have_handle) {
  if (!AVSDK_scanner::getAVSDK_scanner()->initialized()) {
    return;
  }
  if (!told_of_no_handle.exchange(!have_handle) && !have_handle) {
    Logger::append_format(1,
                          "event_processing_thread no engine handle: files are allowed unscanned; "
                          "does \"%s\" hold definitions that load?\n",
                          settings().DatabaseDirectory.c_str());
  }
}

// Stops and the schedule's alarm go to the threads that do not hold anybody's open.
void block_signals() {
  sigset_t signals;
  (void)sigemptyset(&signals);
  (void)sigaddset(&signals, SIGINT);
  (void)sigaddset(&signals, SIGTERM);
  (void)sigaddset(&signals, SIGALRM);
  if (const int error = pthread_sigmask(SIG_BLOCK, &signals, nullptr); error != 0) {
    Logger::append_format(1, "event_processing_thread pthread_sigmask %s\n", std::strerror(error));
  }
}

}  // namespace

// A worker cancels itself as its last act, when it only has to return: cancellation stays off, so
// that it never unwinds out of a log record.
void* event_processing_thread(void* filter) {
  (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  EventWorker(*static_cast<fsfilter*>(filter)).run();
  return nullptr;
}

EventWorker::EventWorker(fsfilter& service)
    : service_(service),
      efp_(*service.getefp()),
      cache_(*service.getCacheManager()),
      number_(tid.fetch_add(1)) {}

void EventWorker::run() {
  block_signals();
  efp_.start_barrier.arrive_and_wait();
  Logger::append_format(3, "event_processing_thread Thread %d started, max cache entries: %d\n",
                        number_, settings().MaxCacheEntries);
  renew_handle();
  Logger::append_format(3, "event_processing_thread Thread %d started, engine status: %d\n",
                        number_, engine_status_ ? 1 : 0);
  for (;;) {
    take_part_in_update();
    if (!take_event()) {
      break;
    }
    process_or_allow();
  }
  Logger::append_format(3, "event_processing_thread Thread %d detected stop request\n", number_);
  Logger::append_format(3, "event_processing_thread Thread %d finalize\n", number_);
  (void)service_.cancel_thread(pthread_self());
}

// The update is read before the handle is made: a handle may be newer than its number says, never
// older. One that could not be made stays null and is not released either.
void EventWorker::renew_handle() {
  AVSDK_scanner* scanner = AVSDK_scanner::getAVSDK_scanner();
  if (engine_handle_ != nullptr) {
    scanner->release_thread_scan_handler(engine_handle_);
  }
  renewed_for_ = efp_.update_barrier.update();
  arrived_ = false;
  try {
    engine_status_ = scanner->get_thread_scan_handler(&engine_handle_, true);
  } catch (const std::bad_alloc&) {
    engine_handle_ = nullptr;
    engine_status_ = false;
  }
  tell_once_of_no_handle(engine_status_);
}

// While another update is being loaded a renewal would wait for it, so the old handle serves on:
// what it finds clean is not cached.
bool EventWorker::renewal_due() const {
  return renewed_for_ != efp_.update_barrier.update() &&
         !AVSDK_scanner::getAVSDK_scanner()->update_in_progress();
}

// Once for each update: who was let through has a new handle already.
void EventWorker::take_part_in_update() {
  UpdateBarrier& barrier = efp_.update_barrier;
  if (!barrier.pending()) {
    return;
  }
  const unsigned turn = barrier.turn();
  UpdateBarrier::Passage passage = UpdateBarrier::Passage::renew_again;
  while (passage == UpdateBarrier::Passage::renew_again && efp_.running.load() != 0) {
    if (renewal_due()) {
      renew_handle();
    }
    if (arrived_ || renewed_for_ != barrier.update()) {
      return;
    }
    arrived_ = true;
    passage = barrier.arrive(renewed_for_, turn);
  }
  Logger::append_format(
      3, "event_processing_thread Thread %d detected update request. Cache cleared\n", number_);
}

// @return false when the service has stopped
bool EventWorker::take_event() {
  if (!wait_for_event()) {
    return false;
  }
  Logger::append_format(3, "event_processing_thread Thread %d doing work\n", number_);
  return true;
}

// An update wakes the sleepers too: the old definitions take as much memory as the new ones and
// stay until the last handle on them is given back. An event stays in the queue while its worker
// renews, for another worker, or to be let go if the engine hangs.
bool EventWorker::wait_for_event() {
  ScopedLock lock(efp_.mutex);
  efp_.queue.recycle(std::move(current_));
  while (efp_.running.load() != 0) {
    if (renewal_due()) {
      lock.unlock();
      renew_handle();
      lock.lock();
    } else if (efp_.queue.empty()) {
      efp_.cond.wait(lock);
      if (Logger::wants(2)) {
        lock.unlock();
        Logger::append_format(2, "event_processing_thread Thread %d detected reload request\n",
                              number_);
        lock.lock();
      }
    } else {
      current_ = efp_.queue.pop();
      in_work().store(current_->event.fd, std::memory_order_relaxed);
      ctx_ = efp_.ctx;
      return true;
    }
  }
  return false;
}

// Without memory for it an event is allowed like others that cannot be scanned.
void EventWorker::process_or_allow() {
  try {
    process();
  } catch (const std::bad_alloc&) {
    if (in_work().load(std::memory_order_relaxed) < 0) {
      return;  // answered already
    }
    if (event().type == FSFILTER_CLOSE_WR) {
      cache_.erase(event().path);
    }
    service_.count_unscanned();
    event().result = FSFILTER_ALLOW;
    answer();
  }
}

void EventWorker::process() {
  if (settings().Loglevel > 1) {
    print_event_info(&event());
  }
  event().result = FSFILTER_ALLOW;
  Logger::append_format(3, "event_processing_thread Thread %d avh_init %d\n", number_,
                        engine_status_ ? 1 : 0);
  if (event().type == FSFILTER_CLOSE_WR) {
    cache_.note_change(event().path);
  }
  if (engine_status_) {
    decide();
    return;
  }
  if (event().type == FSFILTER_CLOSE_WR) {
    cache_.erase(event().path);  // other workers may have a handle, and must scan it
  }
  answer();
}

void EventWorker::decide() {
  switch (scan_needed() ? scan() : 0) {
    case 0:
      if (!cached_) {
        remember_clean();
      }
      answer();
      break;
    case 1:
      event().result = FSFILTER_DENY;
      cache_.erase(event().path);
      answer();
      break;
    case 2:
      event().result = FSFILTER_DENY;
      remove_detected();
      break;
    default:
      answer();
  }
}

// A written file is scanned although it was clean before; its entry stays until the verdict.
bool EventWorker::scan_needed() {
  cached_ = cache_.lookup(event().path);
  if (!cached_) {
    return true;
  }
  const bool written = event().type == FSFILTER_CLOSE_WR;
  if (written) {
    Logger::append_format(3, "event_processing_thread Thread %d cache erase %s\n", number_,
                          event().path);
  }
  if (Logger::wants(3)) {
    Logger::append_format(3, "event_processing_thread Thread %d cache hit (%d, %d) \"%s\"\n",
                          number_, cache_.size(), cache_.max(), event().path);
  }
  return written;
}

int EventWorker::scan() {
  changes_before_ = cache_.changes(event().path);
  return AVSDK_scanner::getAVSDK_scanner()->scan_file(
      engine_handle_, event().fd, event().path, settings().MaxArchiveDepth,
      settings().DefaultAction, settings().DecompressLimit);
}

// The checks come after the addition: an update or a change between the scan and the addition has
// emptied its place already, and one that comes later empties it again.
void EventWorker::remember_clean() {
  if (identify(event().fd).links == 0) {
    return;  // it was removed meanwhile; another file may come to its name
  }
  (void)cache_.add(event().path);
  if (renewed_for_ != efp_.update_barrier.update() ||
      changes_before_ != cache_.changes(event().path)) {
    cache_.erase(event().path);
    return;
  }
  Logger::append_format(3, "event_processing_thread Thread %d added: \"%s\"\n", number_,
                        event().path);
}

// The answer first: whoever waits for it is released before the file goes.
void EventWorker::remove_detected() {
  const FileIdentity identity = identify(event().fd);
  answer();
  cache_.erase(event().path);
  (void)remove_if_same(event().path, identity);
}

void EventWorker::answer() {
  in_work().store(-1, std::memory_order_relaxed);
  (void)set_result(ctx_, &event());
  efp_.held.fetch_sub(1, std::memory_order_relaxed);
}
