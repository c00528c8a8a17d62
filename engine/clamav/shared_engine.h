// SPDX-License-Identifier: GPL-2.0-only
#pragma once

#include <chrono>
#include <optional>

#include "definition_update.h"
#include "definitions.h"
#include "libclamav.h"
#include "mutex.h"

namespace clamav_engine {

/// The engine in force of one database directory and family, which all handles on these share. Each
/// scan holds the one that was in force when it began, so an engine that an update has replaced
/// goes with its last scan. Any thread may call it.
class SharedEngine {
 public:
  explicit SharedEngine(Definitions definitions) : definitions_(std::move(definitions)) {}

  /// Loads the definitions unless they are loaded. Meanwhile other loads wait, but no scan does.
  /// @return false when they do not load. That is not tried again within five seconds, so not for
  ///         every thread that wants a handle at once: each attempt may take half a minute.
  bool load();

  /// The engine in force; null before the first load().
  Engine current() const;

  /// See update_definitions(). What it loads is in force for every scan that begins afterwards.
  bool update(const UpdateFiles& files);

 private:
  void replace(Engine engine);

  const Definitions definitions_;
  Mutex load_mutex_;
  std::optional<Clock::time_point> failed_ PELO_GUARDED_BY(load_mutex_);
  mutable Mutex mutex_;
  Engine engine_ PELO_GUARDED_BY(mutex_);
};

}  // namespace clamav_engine
