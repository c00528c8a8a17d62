// SPDX-License-Identifier: GPL-2.0-only
// What the engine's tests share: files and databases made as they run, the public calls in short
// form, and the functions of other libraries that the engine reaches through the test program.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vse.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "private_mounts.h"
#include "standard_test_file.h"
#include "temp_directory.h"

namespace engine_test {

namespace fs = std::filesystem;

inline constexpr std::size_t mebibyte = 1U << 20U;
inline constexpr unsigned int v1 = VSE_INIT_BASE | VSE_INIT_FAMILY_V1;
inline constexpr unsigned int v2 = VSE_INIT_BASE | VSE_INIT_FAMILY_V2;
inline constexpr unsigned int v2s = VSE_INIT_BASE | VSE_INIT_FAMILY_V2S;

/// Where the engine unpacks; on a file system of the test's own, as is /var/cache.
inline constexpr const char* work_folder = "/run/pelo/engine";

// Counts of libclamav's own calls, whoever makes them.
extern std::atomic<int> libclamav_starts;  ///< of the whole process
extern std::atomic<int> engines_made;      ///< the others are those since the engine's start
extern std::atomic<int> engines_freed;

/// That many calls of renameat(2) succeed, the next one fails, and those after it succeed again.
/// Negative: none fails. The same for fsync(2).
extern std::atomic<int> renames_before_failure;
extern std::atomic<int> syncs_before_failure;

/// How many passes over a file libclamav has made on this thread.
extern thread_local int passes;

/// How far the steady clock of this process is ahead.
extern std::atomic<std::chrono::seconds> clock_ahead;

/// Called once each, at the next compilation of an engine and before the next call of symlink(2).
extern std::function<void()> at_next_compilation;
extern std::function<void()> at_next_link;

/// Called once, at the next call of pread(2) on this thread: libclamav's first one of a scan.
extern thread_local std::function<void()> at_next_read;

std::string hex(const std::string& text);

/// A line of signature text that finds `content` at a file's start. libclamav looks at no file of
/// five bytes or less.
std::string signature(const std::string& name, const std::string& content);

/// A rule that finds `content` anywhere.
std::string yara_rule(const std::string& name, const std::string& content);

/// What a shell command makes of its standard input.
std::string output_of(const std::string& command, const std::string& input);

void write_file(const fs::path& path, const std::string& content);

/// Name and content of everything below `directory` but an update's lock.
std::map<std::string, std::string> content_of(const fs::path& directory);

std::size_t open_descriptors();

/// What one call of the event callback could read.
struct Event {
  unsigned int id = 0;
  std::thread::id thread;
  vse_scan_result result{};
  std::uint32_t type = 99;
  vse_accuracy accuracy{};
  std::string name;
  std::string archive;
  std::string object;
};

/// The events of this thread's scans, oldest first.
extern thread_local std::vector<Event> events;

// The public calls in short form.
std::uintptr_t argument(const char* path);
std::uint32_t get_number(VSEHANDLE handle, unsigned int property);
int set_number(VSEHANDLE handle, unsigned int property, std::uint32_t value,
               unsigned int index = 0);
int ignore_types(VSEHANDLE handle, std::uint64_t mask);
int scan_path(VSEHANDLE handle, const fs::path& path);
int scan_fd(VSEHANDLE handle, const char* path, int fd);
int update(VSEHANDLE handle, const fs::path& first, const fs::path& second = {});

/// A scan code that no caller takes for a clean file or a detection.
testing::Matcher<int> IsScanError();

/// The engine, started, with a handle on a database that knows the standard test file; that file, a
/// clean one, and an empty staging directory. When it ends no engine may be left, and no temporary
/// file of libclamav.
class ClamavEngine : public PrivateMountsTest {
  const TempDirectory directory_;

 protected:
  ClamavEngine();
  ~ClamavEngine() override;
  void prepare() override;

  /// Starts the engine, anew if it runs, so that everything is loaded again. There are no handles.
  void start();
  void stop();

  /// Starts the engine anew and makes the handle.
  void reopen();

  /// A new handle on `directory`, or null.
  VSEHANDLE make_handle(const fs::path& directory, unsigned int flags = VSE_INIT_BASE);
  VSEHANDLE make_handle() { return make_handle(database_); }

  void add_database(const std::string& name, const std::string& content);

  /// Makes a file for scanning.
  fs::path file(const std::string& name, const std::string& content);
  /// Makes a file for an update.
  fs::path stage(const std::string& name, const std::string& content);

  /// Scans a file of this content. Only its events and passes are kept.
  int scan(const std::string& content);

  /// The event of the last scan; without any text when there was none.
  static Event event() { return events.empty() ? Event{} : events.back(); }

  vse_scan_result result() const {
    return static_cast<vse_scan_result>(get_number(handle_, VSE_PROP_SCAN_RESULT));
  }

  const fs::path root_ = directory_.path();
  const fs::path database_ = root_ / "database";
  const fs::path staging_ = root_ / "staging";
  fs::path clean_, bad_;
  VSEHANDLE handle_ = nullptr;

 private:
  bool started_ = false;
};

}  // namespace engine_test
