#include "held_opens.h"

#include "cache.h"
#include "logger.h"
#include "time_limits.h"

Held::~Held() {
  if (place_ == nullptr) {
    return;
  }
  if (!answered_) {
    owner_->note_unscanned(place_->event);
    allow();
  }
  ScopedLock lock(owner_->mutex);
  owner_->queue.recycle(std::move(place_));
}

void Held::answer(int verdict) {
  if (place_ == nullptr || answered_) {
    return;
  }
  answered_ = true;
  place_->event.result = verdict;
  (void)set_result(owner_->ctx, &place_->event);
  owner_->held_.fetch_sub(1, std::memory_order_relaxed);
}

int eventsForProcessing::post(fsfilter_event_struct& event, bool wake_each) {
  {
    ScopedLock lock(mutex);
    // A close is refused once half of the room is taken, by opens or closes: the hold limit frees
    // only the places of opens.
    const int room = most_held_.load() / (event.type == FSFILTER_CLOSE_WR ? 2 : 1);
    if (EventQueue::Place place = held() < room ? queue.make_place(event) : nullptr) {
      held_.fetch_add(1, std::memory_order_relaxed);
      if (wake_each || queue.empty()) {
        cond.notify_one();
      }
      queue.push(std::move(place), Clock::now());
      return 0;
    }
  }
  note_unscanned(event);
  event.result = FSFILTER_ALLOW;
  (void)set_result(ctx, &event);
  return -1;
}

Held eventsForProcessing::take(int number, int& opens_in_a_row) {
  workers_late_.store(false, std::memory_order_relaxed);
  ScopedLock lock(mutex);
  while (running.load() != 0 && queue.empty()) {
    cond.wait(lock);
    if (Logger::wants(2)) {
      lock.unlock();
      Logger::log_format(2, event_log_name, "Thread %d detected reload request", number);
      lock.lock();
    }
  }
  if (running.load() == 0) {
    return {};
  }
  return {*this, queue.take(opens_in_a_row, Clock::now())};
}

void eventsForProcessing::tend() {
  const Clock::time_point now = Clock::now();
  if (now < next_look_.load() && !workers_late_.load(std::memory_order_relaxed)) {
    return;
  }
  next_look_.store(now + time_limits::queue_interval);
  ScopedLock lock(mutex);
  if (!queue.empty() && queue.waits(now) >= time_limits::wake_all) {
    cond.notify_all();
    update_barrier.let_through();
  }
  while (hold_limit_ > hold_limit_.zero()) {
    const bool late = workers_late_.load(std::memory_order_relaxed);
    EventQueue::Place place = queue.take_open_before(late ? Clock::now() : now - hold_limit_);
    if (place == nullptr) {
      return;
    }
    workers_late_.store(true, std::memory_order_relaxed);
    lock.unlock();
    (void)Held(*this, std::move(place));  // lets go of it
    lock.lock();
  }
}

void eventsForProcessing::end() {
  update_barrier.let_through();
  ScopedLock lock(mutex);
  cond.notify_all();
}

void eventsForProcessing::drop() {
  int opens_in_a_row = 0;
  ScopedLock lock(mutex);
  while (!queue.empty()) {
    EventQueue::Place place = queue.take(opens_in_a_row, Clock::now());
    lock.unlock();
    Held(*this, std::move(place)).allow();
    lock.lock();
  }
}

// A file that was written is not known to be clean any more, even if nobody scans it.
void eventsForProcessing::note_unscanned(const fsfilter_event_struct& event) {
  if (event.type == FSFILTER_CLOSE_WR) {
    CCaching::getCacheManager()->erase(event.path);
  }
  unscanned_.fetch_add(1, std::memory_order_relaxed);
}
