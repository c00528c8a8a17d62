#include "event_worker.h"

#include <pthread.h>

#include <utility>

#include "daemon_config.h"
#include "event_scanner.h"
#include "filter_service.h"
#include "logger.h"

namespace {

/// One worker's state; nothing of it is shared.
class Worker {
 public:
  explicit Worker(fsfilter& service)
      : service_(service),
        events_(*service.getefp()),
        scanner_(events_, *service.getCacheManager()) {}
  void run();

 private:
  void take_part_in_update();

  fsfilter& service_;
  eventsForProcessing& events_;
  EventScanner scanner_;
  int opens_in_a_row_ = 0;
  bool arrived_ = false;  ///< has been at the update barrier for the handle's update
};

void Worker::run() {
  constexpr const char* function = "event_processing_thread";
  const int number = scanner_.number();
  events_.start_barrier->arrive_and_wait();
  Logger::log_format(3, function, "Thread %d started, max cache entries: %d", number,
                     GlobalConfig::getGlobalConfig()->MaxCacheEntries);
  scanner_.renew_handle();
  Logger::log_format(3, function, "Thread %d started, engine status: %d", number,
                     scanner_.engine_status() ? 1 : 0);
  take_part_in_update();
  while (!service_.cancelled()) {
    Held held = events_.take(number, opens_in_a_row_);
    if (!held) {
      break;
    }
    Logger::log_format(3, function, "Thread %d doing work", number);
    scanner_.process(std::move(held));
    take_part_in_update();
  }
  Logger::log_format(3, function, "Thread %d detected stop request", number);
  Logger::log_format(3, function, "Thread %d finalize", number);
}

// Takes part once for each update: a worker that was let through has a new handle already. A stop
// clears `running` before it lets the workers through, so none goes back to wait after it.
void Worker::take_part_in_update() {
  UpdateBarrier& barrier = events_.update_barrier;
  if (events_.updating.load() == 0) {
    return;
  }
  const unsigned turn = barrier.turn();
  bool goes_on = false;
  while (!goes_on && events_.running.load() != 0) {
    if (scanner_.renewal_due()) {
      scanner_.renew_handle();
      arrived_ = false;
    }
    if (arrived_ || scanner_.renewed_for() != barrier.update()) {
      return;
    }
    arrived_ = true;
    goes_on = barrier.arrive(*scanner_.renewed_for(), turn);
  }
  Logger::log_format(3, "event_processing_thread",
                     "Thread %d detected update request. Cache cleared", scanner_.number());
}

}  // namespace

// The thread's last act is to take itself off the service's list; after that it only returns.
void* event_processing_thread(void* filter) {
  fsfilter& service = *static_cast<fsfilter*>(filter);
  Worker(service).run();
  (void)service.cancel_thread(pthread_self());
  return nullptr;
}
