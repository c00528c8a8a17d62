// SPDX-License-Identifier: GPL-2.0-only
#include "shared_engines.h"

#include <utility>

namespace clamav_engine {

std::shared_ptr<const CompiledEngine> SharedEngines::get(const std::string& directory) {
  const MutexLock lock(mutex_);
  std::shared_ptr<const CompiledEngine>& engine = engines_[directory];
  if (engine == nullptr) {
    engine = CompiledEngine::load(directory);
  }
  return engine;
}

void SharedEngines::replace(const std::string& directory,
                            std::shared_ptr<const CompiledEngine> engine) {
  const MutexLock lock(mutex_);
  engines_[directory].swap(engine);  // the old one goes, if it goes, after the lock
}

void SharedEngines::clear() {
  const MutexLock lock(mutex_);
  engines_.clear();
}

}  // namespace clamav_engine
