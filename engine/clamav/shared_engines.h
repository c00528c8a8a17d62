// SPDX-License-Identifier: GPL-2.0-only
#ifndef PELOWATCHD_ENGINE_CLAMAV_SHARED_ENGINES_H
#define PELOWATCHD_ENGINE_CLAMAV_SHARED_ENGINES_H

#include <map>
#include <memory>
#include <string>

#include "annotated_mutex.h"
#include "compiled_engine.h"

namespace clamav_engine {

/// The engines in force, one per database directory. It shares them with the handles: an engine
/// that an update has replaced goes with the last handle on it. Any thread may call it.
class SharedEngines {
 public:
  /// The engine of `directory` (an absolute path without links), loaded when there is none.
  /// Loading holds up every other call.
  /// @return null when it does not load; the next call tries again.
  std::shared_ptr<const CompiledEngine> get(const std::string& directory);

  /// Puts an engine that an update has loaded into force. Handles on the one before keep that.
  void replace(const std::string& directory, std::shared_ptr<const CompiledEngine> engine);

  /// Gives all of them up.
  void clear();

 private:
  AnnotatedMutex mutex_;
  std::map<std::string, std::shared_ptr<const CompiledEngine>> engines_ PELO_GUARDED_BY(mutex_);
};

}  // namespace clamav_engine

#endif
