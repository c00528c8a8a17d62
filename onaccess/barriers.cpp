#include "barriers.h"

void UpdateBarrier::set_parties(int parties) {
  ScopedLock lock(mutex_);
  parties_ = parties;
}

void UpdateBarrier::request() {
  ScopedLock lock(mutex_);
  update_.fetch_add(1, std::memory_order_release);
  arrived_ = 0;
  updating_.store(parties_ > 0 ? 1 : 0);
  changed_.notify_all();
}

bool UpdateBarrier::arrive(unsigned renewed_for, unsigned turn) {
  ScopedLock lock(mutex_);
  if (renewed_for == update() && ++arrived_ == parties_) {
    updating_.store(0);
    changed_.notify_all();
  }
  while (turn == turn_.load() && updating_.load() != 0 && renewed_for == update()) {
    changed_.wait(lock);
  }
  return turn != turn_.load() || renewed_for == update();
}

void UpdateBarrier::let_through() {
  ScopedLock lock(mutex_);
  turn_.fetch_add(1, std::memory_order_release);
  changed_.notify_all();
}
