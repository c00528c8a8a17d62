// SPDX-License-Identifier: GPL-2.0-only
// The calls of vse.h on libclamav: what belongs to the process (the handles, the shared engines)
// and the border that no exception crosses.
#include <vse.h>

#include <cstdint>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "annotated_mutex.h"
#include "definition_update.h"
#include "definitions.h"
#include "session.h"
#include "shared_engines.h"
#include "work_folder.h"

namespace clamav_engine {
namespace {

/// What the calls share between threads. The handles are owned here, because at its end the daemon
/// leaves those of its workers to vseGlobalRelease.
class Process {
 public:
  /// Never destroyed: the daemon's last calls come while static objects are being destroyed.
  static Process& get() {
    static Process* const process = new Process;
    return *process;
  }

  int start() {
    if (!start_libclamav() || !make_work_folder()) {
      return kFailure;
    }
    const MutexLock lock(mutex_);
    started_ = true;
    return VSE_OK;
  }

  int stop() {
    const MutexLock lock(mutex_);
    if (!started_) {
      return kFailure;
    }
    started_ = false;
    sessions_.clear();
    engines_.clear();
    remove_work_folder();
    return VSE_OK;
  }

  int open_session(const char* directory, Family family, vse_event_callback callback,
                   VSEHANDLE& out) {
    if (!is_started()) {
      return kFailure;
    }
    const Definitions definitions{std::filesystem::canonical(directory), family};
    std::shared_ptr<const CompiledEngine> engine = engines_.get(definitions);
    if (engine == nullptr) {
      return kFailure;
    }
    auto session = std::make_unique<Session>(std::move(engine), definitions, callback);
    const VSEHANDLE handle = session.get();
    const MutexLock lock(mutex_);
    if (!started_) {
      return kFailure;
    }
    sessions_.emplace(handle, std::move(session));
    out = handle;
    return VSE_OK;
  }

  int close_session(VSEHANDLE handle) {
    std::unique_ptr<Session> ended;  // goes after the lock: it may take a whole engine with it
    const MutexLock lock(mutex_);
    const auto found = sessions_.find(handle);
    if (found == sessions_.end()) {
      return kFailure;
    }
    ended = std::move(found->second);
    sessions_.erase(found);
    return VSE_OK;
  }

  int update(const Definitions& definitions, const UpdateFiles& files) {
    std::shared_ptr<const CompiledEngine> engine = update_definitions(definitions, files);
    if (engine == nullptr) {
      return kFailure;
    }
    engines_.replace(definitions, std::move(engine));
    return VSE_OK;
  }

 private:
  Process() = default;

  bool is_started() {
    const MutexLock lock(mutex_);
    return started_;
  }

  SharedEngines engines_;
  AnnotatedMutex mutex_;
  bool started_ PELO_GUARDED_BY(mutex_) = false;
  std::map<VSEHANDLE, std::unique_ptr<Session>> sessions_ PELO_GUARDED_BY(mutex_);
};

/// Runs the body of a call and turns what it throws into a failure. Only std::exception is caught:
/// a thread that is being cancelled unwinds through here and must not be stopped.
template <typename Body>
int guarded(Body&& body) {
  try {
    return body();
  } catch (const std::exception&) {
    return kFailure;
  }
}

const char* as_path(std::uintptr_t argument) {
  return reinterpret_cast<const char*>(argument);  // NOLINT: vse.h passes paths as integers
}

}  // namespace
}  // namespace clamav_engine

using clamav_engine::guarded;
using clamav_engine::kFailure;
using clamav_engine::Process;
using clamav_engine::Session;

int vseGlobalInit(const char*) {
  return guarded([] { return Process::get().start(); });
}

int vseGlobalRelease() {
  return guarded([] { return Process::get().stop(); });
}

int vseInit(uintptr_t, unsigned int flags, const char* database_directory,
            vse_event_callback callback, void*, VSEHANDLE* handle_out) {
  const auto family = clamav_engine::family_of(flags);
  if (!family || database_directory == nullptr || handle_out == nullptr) {
    return kFailure;
  }
  return guarded([&] {
    return Process::get().open_session(database_directory, *family, callback, *handle_out);
  });
}

int vseRelease(VSEHANDLE handle) {
  return guarded([&] { return Process::get().close_session(handle); });
}

int vseSet(VSEHANDLE handle, unsigned int property_id, unsigned int index, const void* value,
           unsigned int value_size, uintptr_t) {
  if (handle == nullptr) {
    return kFailure;
  }
  return static_cast<Session*>(handle)->set(property_id, index, value, value_size);
}

int vseGet(VSEHANDLE handle, unsigned int property_id, unsigned int index, void* buffer,
           unsigned int buffer_size, uintptr_t) {
  if (handle == nullptr) {
    return kFailure;
  }
  return static_cast<const Session*>(handle)->get(property_id, index, buffer, buffer_size);
}

int vseExec(VSEHANDLE handle, unsigned int operation, uintptr_t argument_1, uintptr_t argument_2,
            uintptr_t argument_3) {
  if (handle == nullptr) {
    return kFailure;
  }
  return guarded([&]() -> int {
    auto& session = *static_cast<Session*>(handle);
    switch (operation) {
      case VSE_EXEC_SCAN_PATH:
        return session.scan_path(clamav_engine::as_path(argument_1));
      case VSE_EXEC_SCAN_FD:
        return session.scan_fd(clamav_engine::as_path(argument_1), static_cast<int>(argument_2));
      case VSE_EXEC_LOAD_DEFINITIONS:
        return Process::get().update(session.definitions(), {clamav_engine::as_path(argument_1),
                                                             clamav_engine::as_path(argument_3)});
      default:
        return kFailure;
    }
  });
}
