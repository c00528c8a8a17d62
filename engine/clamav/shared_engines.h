// SPDX-License-Identifier: GPL-2.0-only
#ifndef PELOWATCHD_ENGINE_CLAMAV_SHARED_ENGINES_H
#define PELOWATCHD_ENGINE_CLAMAV_SHARED_ENGINES_H

#include <chrono>
#include <map>
#include <memory>

#include "annotated_mutex.h"
#include "compiled_engine.h"
#include "definition_view.h"
#include "definitions.h"

namespace clamav_engine {

/// Loads what is in force in a database directory, or would be with the replacements.
/// @return null when the directory is missing, holds no signature, or one of its databases does not
///         load.
std::shared_ptr<const CompiledEngine> load_engine(const Definitions& definitions,
                                                  const Replacements& replacements);

/// The engines in force, one per database directory and family. It shares them with the handles: an
/// engine that an update has replaced goes with the last handle on it. Any thread may call it.
class SharedEngines {
 public:
  /// The engine of the definitions, loaded when there is none. Loading holds up every other call.
  /// @return null when it does not load. That is not tried again within five seconds, so not for
  ///         every thread that wants a handle at once: each attempt may take half a minute.
  std::shared_ptr<const CompiledEngine> get(const Definitions& definitions);

  /// Puts an engine that an update has loaded into force. Handles on the one before keep that.
  void replace(const Definitions& definitions, std::shared_ptr<const CompiledEngine> engine);

  /// Gives all of them up.
  void clear();

 private:
  std::shared_ptr<const CompiledEngine> load_unless_in_vain(const Definitions& definitions)
      PELO_REQUIRES(mutex_);

  AnnotatedMutex mutex_;
  std::map<Definitions, std::shared_ptr<const CompiledEngine>> engines_ PELO_GUARDED_BY(mutex_);
  std::map<Definitions, std::chrono::steady_clock::time_point> failures_ PELO_GUARDED_BY(mutex_);
};

}  // namespace clamav_engine

#endif
