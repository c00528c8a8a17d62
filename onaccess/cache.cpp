#include "cache.h"

#include <cstdlib>
#include <ctime>

namespace {

/// Holds the cache's lock for a scope, if it could be taken.
class CacheLock {
 public:
  CacheLock(CCaching& cache, bool (CCaching::*take)()) : cache_(cache), held_((cache.*take)()) {}
  ~CacheLock() {
    if (held_) {
      cache_.unlock();
    }
  }
  CacheLock(const CacheLock&) = delete;
  CacheLock& operator=(const CacheLock&) = delete;
  bool held() const { return held_; }

 private:
  CCaching& cache_;
  bool held_;
};

}  // namespace

CCaching* CCaching::getCacheManager() {
  static CCaching cache;
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  return &cache;
}

CCaching::CCaching() {
  pthread_rwlockattr_t attributes;
  (void)pthread_rwlockattr_init(&attributes);
  (void)pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_PRIVATE);
  (void)pthread_rwlock_init(&lock_, &attributes);
  (void)pthread_rwlockattr_destroy(&attributes);
}

CCaching::~CCaching() {
  (void)pthread_rwlock_destroy(&lock_);
}

bool CCaching::add(const std::string& path) {
  const CacheLock lock(*this, &CCaching::wrlock);
  if (!lock.held()) {
    return false;
  }
  _insert(path);
  return true;
}

void CCaching::_insert(const std::string& path) {
  if (!entries_.empty() && static_cast<long long>(entries_.size()) >= max_size_) {
    entries_.erase(entries_.begin());
  }
  entries_.emplace_hint(entries_.begin(), path, 1);
}

void CCaching::note_change(std::string_view path) {
  changes_[std::hash<std::string_view>{}(path) % changes_.size()].fetch_add(1);
}

unsigned CCaching::changes(std::string_view path) const {
  return changes_[std::hash<std::string_view>{}(path) % changes_.size()].load();
}

void CCaching::forget(std::string_view path) {
  note_change(path);
  const CacheLock lock(*this, &CCaching::wrlock);
  if (!lock.held()) {
    return;
  }
  if (const auto found = entries_.find(path); found != entries_.end()) {
    entries_.erase(found);
  }
}

bool CCaching::lookup(const std::string& path) {
  const CacheLock lock(*this, &CCaching::rdlock);
  return lock.held() && entries_.contains(path);
}

int CCaching::size() {
  const CacheLock lock(*this, &CCaching::rdlock);
  return lock.held() ? static_cast<int>(entries_.size()) : 0;
}

void CCaching::set_size(int capacity) {
  const CacheLock lock(*this, &CCaching::wrlock);
  if (lock.held()) {
    max_size_ = capacity;
  }
}

void CCaching::clear() {
  const CacheLock lock(*this, &CCaching::wrlock);
  if (lock.held()) {
    entries_.clear();
  }
}

bool CCaching::rdlock() {
  return pthread_rwlock_rdlock(&lock_) == 0;
}

bool CCaching::wrlock() {
  return pthread_rwlock_wrlock(&lock_) == 0;
}

void CCaching::unlock() {
  (void)pthread_rwlock_unlock(&lock_);
}
