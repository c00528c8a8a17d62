#include "event_worker.h"

#include <pthread.h>

#include <optional>
#include <utility>

#include "daemon_config.h"
#include "event_scanner.h"
#include "filter_service.h"
#include "logger.h"

namespace {

/// Takes part once for each update: a worker that was let through has a new handle already. A stop
/// clears `running` before it lets the workers through, so none goes back to wait after it.
/// @param arrived_for the update for which the worker has been at the barrier; updated
/// @return whether it was there now
bool take_part_in_update(eventsForProcessing& events, EventScanner& scanner,
                         std::optional<unsigned>& arrived_for) {
  UpdateBarrier& barrier = events.update_barrier;
  if (events.updating.load() == 0) {
    return false;
  }
  const unsigned turn = barrier.turn();
  bool goes_on = false;
  while (!goes_on && events.running.load() != 0) {
    scanner.renew_if_due();
    const unsigned update = barrier.update();
    if (arrived_for == update || scanner.renewed_for() != update) {
      return false;
    }
    arrived_for = update;
    goes_on = barrier.arrive(update, turn);
  }
  return true;
}

}  // namespace

void* event_processing_thread(void* filter) {
  fsfilter& service = *static_cast<fsfilter*>(filter);
  eventsForProcessing& events = *service.getefp();
  EventScanner scanner(events.update_barrier, *service.getCacheManager());
  const int number = scanner.number();
  events.start_barrier->arrive_and_wait();
  Logger::log_format(3, __func__, "Thread %d started, max cache entries: %d", number,
                     GlobalConfig::getGlobalConfig()->MaxCacheEntries);
  scanner.renew_if_due();
  Logger::log_format(3, __func__, "Thread %d started, engine status: %d", number,
                     scanner.engine_status() ? 1 : 0);
  int opens_in_a_row = 0;
  std::optional<unsigned> arrived_for;
  while (!service.cancelled()) {
    if (take_part_in_update(events, scanner, arrived_for)) {
      Logger::log_format(3, __func__, "Thread %d detected update request. Cache cleared", number);
    }
    Held held = events.take(number, opens_in_a_row);
    if (!held) {
      break;
    }
    Logger::log_format(3, __func__, "Thread %d doing work", number);
    scanner.process(std::move(held));
  }
  Logger::log_format(3, __func__, "Thread %d detected stop request", number);
  Logger::log_format(3, __func__, "Thread %d finalize", number);
  (void)service.cancel_thread(pthread_self());  // last: after that this thread only returns
  return nullptr;
}
