#include "barriers.h"

void StartBarrier::set_parties(int parties) {
  ScopedLock lock(mutex_);
  parties_ = parties;
  changed_.notify_all();
}

void StartBarrier::arrive_and_wait() {
  ScopedLock lock(mutex_);
  ++arrived_;
  changed_.notify_all();
  while (arrived_ < parties_) {
    changed_.wait(lock);
  }
}

void UpdateBarrier::set_parties(int parties) {
  ScopedLock lock(mutex_);
  parties_ = parties;
  complete_if_all_arrived();
}

void UpdateBarrier::request() {
  ScopedLock lock(mutex_);
  update_.fetch_add(1, std::memory_order_release);
  arrived_ = 0;
  pending_.store(parties_ > 0, std::memory_order_release);
  changed_.notify_all();
}

void UpdateBarrier::open() {
  ScopedLock lock(mutex_);
  open_ = true;
  changed_.notify_all();
}

bool UpdateBarrier::arrive(unsigned renewed_for) {
  ScopedLock lock(mutex_);
  if (renewed_for == update()) {
    ++arrived_;
    complete_if_all_arrived();
  }
  return wait_for_others(lock, renewed_for);
}

bool UpdateBarrier::wait_again(unsigned renewed_for) {
  ScopedLock lock(mutex_);
  return wait_for_others(lock, renewed_for);
}

void UpdateBarrier::let_through() {
  ScopedLock lock(mutex_);
  ++turns_;
  changed_.notify_all();
}

bool UpdateBarrier::wait_for_others(ScopedLock<Mutex>& lock, unsigned renewed_for) {
  const unsigned turn = turns_;
  while (pending() && renewed_for == update() && turn == turns_ && !open_) {
    changed_.wait(lock);
  }
  return renewed_for == update() || open_;
}

void UpdateBarrier::complete_if_all_arrived() {
  if (pending() && arrived_ >= parties_) {
    arrived_ = 0;
    pending_.store(false, std::memory_order_release);
    changed_.notify_all();
  }
}
