// SPDX-License-Identifier: GPL-2.0-only
#ifndef PELOWATCHD_ENGINE_CLAMAV_SHARED_ENGINES_H
#define PELOWATCHD_ENGINE_CLAMAV_SHARED_ENGINES_H

#include <map>
#include <memory>
#include <string>

#include "annotated_mutex.h"
#include "compiled_engine.h"

namespace clamav_engine {

/// The engines in use, one per database directory. It owns none of them: the handles do, and an
/// engine goes with the last handle on it. Any thread may call it.
class SharedEngines {
 public:
  /// The engine of `directory` (an absolute path without links), loaded when there is none.
  /// Loading holds up every other call.
  /// @return null when it does not load; the next call tries again.
  std::shared_ptr<const CompiledEngine> get(const std::string& directory);

  /// Makes the next get() load `directory` anew. Handles on the present engine keep it.
  void forget(const std::string& directory);

 private:
  AnnotatedMutex mutex_;
  std::map<std::string, std::weak_ptr<const CompiledEngine>> engines_ PELO_GUARDED_BY(mutex_);
};

}  // namespace clamav_engine

#endif
