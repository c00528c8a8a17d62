// SPDX-License-Identifier: GPL-2.0-only
#include "shared_engine.h"

#include <utility>

#include "definition_load.h"

namespace clamav_engine {

bool SharedEngine::load() {
  constexpr std::chrono::seconds remembered(5);
  ScopedLock lock(load_mutex_);
  if (current() != nullptr) {
    return true;
  }
  if (failed_ && Clock::now() - *failed_ < remembered) {
    return false;
  }
  Engine engine = load_definitions(definitions_);
  if (engine == nullptr) {
    failed_ = Clock::now();
    return false;
  }
  replace(std::move(engine));
  return true;
}

Engine SharedEngine::current() const {
  ScopedLock lock(mutex_);
  return engine_;
}

bool SharedEngine::update(const UpdateFiles& files) {
  Engine engine = update_definitions(definitions_, files);
  const bool updated = engine != nullptr;
  if (updated) {
    replace(std::move(engine));
  }
  return updated;
}

// The replaced engine is destroyed with the argument, after the lock is released, unless a scan
// still holds it.
void SharedEngine::replace(Engine engine) {
  ScopedLock lock(mutex_);
  engine_.swap(engine);
}

}  // namespace clamav_engine
