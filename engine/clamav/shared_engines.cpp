// SPDX-License-Identifier: GPL-2.0-only
#include "shared_engines.h"

#include <utility>

#include "definition_view.h"

namespace clamav_engine {

std::shared_ptr<const CompiledEngine> load_engine(const Definitions& definitions) {
  const DefinitionView view(definitions);
  return view.complete() ? CompiledEngine::load(view.folder()) : nullptr;
}

std::shared_ptr<const CompiledEngine> SharedEngines::get(const Definitions& definitions) {
  const MutexLock lock(mutex_);
  std::shared_ptr<const CompiledEngine>& engine = engines_[definitions];
  if (engine == nullptr) {
    engine = load_engine(definitions);
  }
  return engine;
}

void SharedEngines::replace(const Definitions& definitions,
                            std::shared_ptr<const CompiledEngine> engine) {
  const MutexLock lock(mutex_);
  engines_[definitions].swap(engine);  // the old one goes, if it goes, after the lock
}

void SharedEngines::clear() {
  const MutexLock lock(mutex_);
  engines_.clear();
}

}  // namespace clamav_engine
