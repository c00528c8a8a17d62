// SPDX-License-Identifier: GPL-2.0-only
#include "shared_engines.h"

#include <sys/stat.h>

#include <filesystem>
#include <system_error>
#include <utility>

#include "definition_view.h"

namespace clamav_engine {
namespace {

namespace fs = std::filesystem;

/// A text that is another one after any file in the directory was made, changed, or replaced.
std::string state_of(const fs::path& directory) {
  std::string state;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; entry != end; entry.increment(error)) {
    struct stat status {};
    (void)stat(entry->path().c_str(), &status);
    state += entry->path().filename().native() + '/';
    for (const auto number : {status.st_ino, static_cast<ino_t>(status.st_ctim.tv_sec),
                              static_cast<ino_t>(status.st_ctim.tv_nsec)}) {
      state += std::to_string(number) + '/';
    }
  }
  return state;
}

}  // namespace

std::shared_ptr<const CompiledEngine> load_engine(const Definitions& definitions) {
  const DefinitionView view(definitions);
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
  constexpr std::chrono::minutes kRemembered(1);
  std::string state = state_of(definitions.directory);
  const auto failed = failures_.find(definitions);
  if (failed != failures_.end() && failed->second.directory_state == state &&
      std::chrono::steady_clock::now() - failed->second.at < kRemembered) {
    return nullptr;
  }
  std::shared_ptr<const CompiledEngine> engine = load_engine(definitions);
  if (engine == nullptr) {
    failures_[definitions] = {std::move(state), std::chrono::steady_clock::now()};
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
