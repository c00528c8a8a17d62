// SPDX-License-Identifier: GPL-2.0-only
// libclamav itself. Its engines are costly (a full set of databases takes over a gigabyte and
// many seconds), so that all handles on one directory share one.
#ifndef PELOWATCHD_ENGINE_CLAMAV_COMPILED_ENGINE_H
#define PELOWATCHD_ENGINE_CLAMAV_COMPILED_ENGINE_H

#include <memory>
#include <string>

#include "scan_context.h"

namespace clamav_engine {

/// Initialises libclamav, once for the life of the process however often it is called.
/// The first call comes before any other thread uses libclamav.
/// @return whether libclamav is usable.
bool start_libclamav();

/// One engine of libclamav, loaded and compiled; immutable, so that any number of threads scan
/// with it at once.
class CompiledEngine {
 public:
  /// Loads all databases in `directory` that libclamav reads, and compiles them. What has the name
  /// of a database must be a regular file or a link to one: libclamav never comes back from others.
  /// @return null when the directory cannot be read, holds no signature, or one of its databases
  ///         does not load.
  static std::shared_ptr<const CompiledEngine> load(const std::string& directory);

  ~CompiledEngine();
  CompiledEngine(const CompiledEngine&) = delete;
  CompiledEngine& operator=(const CompiledEngine&) = delete;

  /// See scan_file() in scan_context.h.
  ScanOutcome scan(int fd, const char* name, const ScanOptions& options,
                   DetectionFilter& filter) const {
    return scan_file(engine_, fd, name, options, filter);
  }

 private:
  CompiledEngine();

  bool load_and_compile(const std::string& directory);

  cl_engine* const engine_;
};

}  // namespace clamav_engine

#endif
