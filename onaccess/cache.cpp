#include "cache.h"

#include <cstdlib>
#include <ctime>
#include <memory>

namespace {

/// Gives the cache's lock back at the end of a scope; null when it could not be taken.
using CacheLock = std::unique_ptr<CCaching, decltype([](CCaching* cache) { cache->unlock(); })>;

}  // namespace

CCaching* CCaching::getCacheManager() {
  static CCaching cache;
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  return &cache;
}

bool CCaching::add(std::string_view path) {
  const CacheLock lock(wrlock() ? this : nullptr);
  if (lock == nullptr) {
    return false;
  }
  _insert(path);
  return true;
}

void CCaching::_insert(std::string_view path) {
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

void CCaching::erase(std::string_view path) {
  note_change(path);
  if (const CacheLock lock(wrlock() ? this : nullptr); lock != nullptr) {
    if (const auto found = entries_.find(path); found != entries_.end()) {
      entries_.erase(found);
    }
  }
}

bool CCaching::lookup(std::string_view path) {
  const CacheLock lock(rdlock() ? this : nullptr);
  return lock != nullptr && entries_.contains(path);
}

int CCaching::size() {
  const CacheLock lock(rdlock() ? this : nullptr);
  return lock != nullptr ? static_cast<int>(entries_.size()) : 0;
}

void CCaching::set_size(int capacity) {
  if (const CacheLock lock(wrlock() ? this : nullptr); lock != nullptr) {
    max_size_ = capacity;
  }
}

void CCaching::clear() {
  if (const CacheLock lock(wrlock() ? this : nullptr); lock != nullptr) {
    entries_.clear();
  }
}
