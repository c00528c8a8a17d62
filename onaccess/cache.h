// The paths of files that a scan found clean.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <string_view>

/// One for the process. The key is the path alone, compared byte by byte: a file that is renamed
/// onto a cached path counts as clean until it is written. Any thread; a lookup takes the lock
/// shared. An operation that cannot take the lock does nothing and returns false or 0.
class CCaching {
 public:
  static constexpr int max_size_default = 1000;

  /// The cache of this process. Every call seeds the C library's random number generator anew.
  static CCaching* getCacheManager();

  /// Adds a path. A full cache first drops the path that sorts lowest, even if the added one is
  /// already present. @return true
  bool add(std::string_view path);

  /// Removes a path, without allocating memory.
  void erase(std::string_view path);

  bool lookup(std::string_view path);

  /// Notes that a path's file was written or that a scan found something in it. erase() notes it,
  /// too.
  void note_change(std::string_view path);

  /// A number that changes whenever a change of the path is noted; other paths may share it. If it
  /// changes during a scan, the result may be about the old content.
  unsigned changes(std::string_view path) const;

  /// The number of paths in the cache, and its capacity. With a capacity of 0 or less only the
  /// newest path is kept.
  int size();
  int max() const { return max_size_.load(std::memory_order_relaxed); }

  /// Changes the capacity. Paths above it stay; each later addition pushes one out.
  void set_size(int capacity);

  void clear();

  /// The lock itself. @return true when it is held now
  bool rdlock() { return pthread_rwlock_rdlock(&lock_) == 0; }
  bool wrlock() { return pthread_rwlock_wrlock(&lock_) == 0; }
  void unlock() { (void)pthread_rwlock_unlock(&lock_); }

 private:
  void _insert(std::string_view path);

  std::atomic<int> max_size_{max_size_default};
  std::map<std::string, int, std::less<>> entries_;
  std::array<std::atomic<unsigned>, 256> changes_{};    ///< by the path's hash
  pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;  ///< of this process alone
};
