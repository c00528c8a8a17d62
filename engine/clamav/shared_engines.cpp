// SPDX-License-Identifier: GPL-2.0-only
#include "shared_engines.h"

#include <utility>

namespace clamav_engine {

std::shared_ptr<const CompiledEngine> load_engine(const Definitions& definitions,
                                                  const Replacements& replacements) {
  const DefinitionView view(definitions, replacements);
  return view.complete() ? CompiledEngine::load(view.folder()) : nullptr;
}

std::shared_ptr<const CompiledEngine> SharedEngines::get(const Definitions& definitions) {
  const MutexLock lock(mutex_);
  std::shared_ptr<const CompiledEngine>& engine = engines_[definitions];
  if (engine == nullptr) {
    engine = load_unless_in_vain(definitions);
  }
  return engine;
}

std::shared_ptr<const CompiledEngine> SharedEngines::load_unless_in_vain(
    const Definitions& definitions) {
  constexpr std::chrono::seconds kRemembered(5);
  const auto failed = failures_.find(definitions);
  if (failed != failures_.end() &&
      std::chrono::steady_clock::now() - failed->second < kRemembered) {
    return nullptr;
  }
  std::shared_ptr<const CompiledEngine> engine = load_engine(definitions, kNoReplacements);
  if (engine == nullptr) {
    failures_[definitions] = std::chrono::steady_clock::now();
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
  failures_.clear();
}

}  // namespace clamav_engine
