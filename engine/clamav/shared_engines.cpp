// SPDX-License-Identifier: GPL-2.0-only
#include "shared_engines.h"

namespace clamav_engine {

std::shared_ptr<const CompiledEngine> SharedEngines::get(const std::string& directory) {
  const MutexLock lock(mutex_);
  std::weak_ptr<const CompiledEngine>& known = engines_[directory];
  std::shared_ptr<const CompiledEngine> engine = known.lock();
  if (engine == nullptr) {
    engine = CompiledEngine::load(directory);
    known = engine;
  }
  return engine;
}

void SharedEngines::forget(const std::string& directory) {
  const MutexLock lock(mutex_);
  engines_.erase(directory);
}

}  // namespace clamav_engine
