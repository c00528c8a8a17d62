// SPDX-License-Identifier: GPL-2.0-only
// The calls of vse.h on libclamav: what belongs to the process (the handles, the shared engines)
// and the border that no exception crosses.
#include <vse.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <list>
#include <map>
#include <string>

#include "definitions.h"
#include "libclamav.h"
#include "mutex.h"
#include "session.h"
#include "shared_engine.h"
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
    if (!start_libclamav() || !open_work_folder()) {
      return failure;
    }
    ScopedLock lock(mutex_);
    started_ = true;
    return VSE_OK;
  }

  int stop() {
    ScopedLock lock(mutex_);
    if (!started_) {
      return failure;
    }
    started_ = false;
    sessions_.clear();
    engines_.clear();
    return VSE_OK;
  }

  /// Loads the definitions, or finds them loaded. They stay for all sessions to come.
  /// @return null when that failed.
  SharedEngine* load_engine(unsigned int flags, const char* directory) {
    SharedEngine* const engine = find_engine(flags, directory);
    return engine != nullptr && engine->load() ? engine : nullptr;
  }

  int open_session(unsigned int flags, const char* directory, vse_event_callback callback,
                   VSEHANDLE& out) {
    SharedEngine* const engine = load_engine(flags, directory);
    if (engine == nullptr) {
      return failure;
    }
    ScopedLock lock(mutex_);
    out = &sessions_.emplace_back(*engine, callback);
    return VSE_OK;
  }

  int close_session(VSEHANDLE handle) {
    ScopedLock lock(mutex_);
    const auto closed =
        sessions_.remove_if([&](const Session& session) { return &session == handle; });
    return closed == 1 ? VSE_OK : failure;
  }

 private:
  /// The engine of these flags and this directory, loaded or not; null when there can be none.
  SharedEngine* find_engine(unsigned int flags, const char* directory) {
    const auto* const family =
        std::find_if(families.begin(), families.end(),
                     [&](const Family& candidate) { return candidate.flags == flags; });
    if (family == families.end() || directory == nullptr) {
      return nullptr;
    }
    const Definitions definitions{std::filesystem::canonical(directory), family};
    ScopedLock lock(mutex_);
    return started_ ? &engines_.try_emplace(definitions, definitions).first->second : nullptr;
  }

  Mutex mutex_;
  bool started_ PELO_GUARDED_BY(mutex_) = false;
  std::map<Definitions, SharedEngine> engines_ PELO_GUARDED_BY(mutex_);
  std::list<Session> sessions_ PELO_GUARDED_BY(mutex_);
};

/// Runs the body of a call and turns what it throws into a failure.
template <typename Body>
int guarded(Body&& body) {
  try {
    return body();
  } catch (const std::exception&) {
    return failure;
  }
}

const char* as_path(std::uintptr_t argument) {
  return reinterpret_cast<const char*>(argument);  // NOLINT: vse.h passes paths as integers
}

}  // namespace
}  // namespace clamav_engine

using clamav_engine::failure;
using clamav_engine::guarded;
using clamav_engine::Process;
using clamav_engine::Session;

int vseGlobalInit(const char*) {
  return guarded([] { return Process::get().start(); });
}

int vseGlobalRelease() {
  return guarded([] { return Process::get().stop(); });
}

int vsePrepare(unsigned int flags, const char* database_directory) {
  return guarded([&] {
    return Process::get().load_engine(flags, database_directory) == nullptr ? failure : VSE_OK;
  });
}

int vseInit(uintptr_t, unsigned int flags, const char* database_directory,
            vse_event_callback callback, void*, VSEHANDLE* handle_out) {
  if (handle_out == nullptr) {
    return failure;
  }
  return guarded([&] {
    return Process::get().open_session(flags, database_directory, callback, *handle_out);
  });
}

int vseRelease(VSEHANDLE handle) {
  return guarded([&] { return Process::get().close_session(handle); });
}

int vseSet(VSEHANDLE handle, unsigned int property_id, unsigned int index, const void* value,
           unsigned int value_size, uintptr_t) {
  return handle == nullptr
             ? failure
             : static_cast<Session*>(handle)->set(property_id, index, value, value_size);
}

int vseGet(VSEHANDLE handle, unsigned int property_id, unsigned int index, void* buffer,
           unsigned int buffer_size, uintptr_t) {
  return handle == nullptr
             ? failure
             : static_cast<const Session*>(handle)->get(property_id, index, buffer, buffer_size);
}

int vseExec(VSEHANDLE handle, unsigned int operation, uintptr_t argument_1, uintptr_t argument_2,
            uintptr_t argument_3) {
  if (handle == nullptr) {
    return failure;
  }
  return guarded([&]() -> int {
    auto& session = *static_cast<Session*>(handle);
    switch (operation) {
      case VSE_EXEC_SCAN_PATH:
        return session.scan_path(clamav_engine::as_path(argument_1));
      case VSE_EXEC_SCAN_FD:
        return session.scan_fd(clamav_engine::as_path(argument_1), static_cast<int>(argument_2));
      case VSE_EXEC_LOAD_DEFINITIONS:
        return session.engine().update(
                   {clamav_engine::as_path(argument_1), clamav_engine::as_path(argument_3)})
                   ? VSE_OK
                   : failure;
      default:
        return failure;
    }
  });
}
