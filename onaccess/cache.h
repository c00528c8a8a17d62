// The paths of files that a scan found clean.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <string_view>

/// One for the process. The key is the path alone, compared byte by byte: what is renamed onto a
/// cached path is taken for clean until it is written. Any thread; a lookup takes the lock shared
/// and allocates nothing. An operation that cannot take the lock does nothing and returns false or
/// 0.
class CCaching {
 public:
  static constexpr int max_size_default = 1000;

  /// The cache of this process.
  static CCaching* getCacheManager();

  CCaching();
  ~CCaching();
  CCaching(const CCaching&) = delete;
  CCaching& operator=(const CCaching&) = delete;

  /// Adds a path. In a full cache the path that sorts lowest goes first, also when the added one is
  /// already present. @return true
  bool add(const std::string& path) { return add(path.c_str()); }
  bool add(const char* path);

  void erase(const std::string& path) { erase(path.c_str()); }
  void erase(const char* path);

  bool lookup(const std::string& path) { return lookup(path.c_str()); }
  bool lookup(const char* path);

  /// A path's file was written, or a scan found something in it. erase() notes that, too.
  void note_change(const char* path);

  /// A number that differs when changes of the path were noted in between; other paths may share
  /// it. A scan that saw it change has read the file as it was.
  unsigned changes(const char* path) const;

  /// Paths in the cache, and the capacity. A capacity of 0 or less keeps the newest path only.
  int size();
  int max() const { return max_size_.load(std::memory_order_relaxed); }

  /// Changes the capacity. Paths above it stay until later additions push them out, one each.
  void set_size(int capacity);

  void clear();

  /// The lock itself. @return true when it is held now
  bool rdlock();
  bool wrlock();
  void unlock();

 private:
  void insert(const char* path);

  std::atomic<int> max_size_{max_size_default};
  std::map<std::string, int, std::less<>> entries_;
  std::array<std::atomic<unsigned>, 256> changes_{};  ///< by the path's hash
  pthread_rwlock_t lock_;
};
