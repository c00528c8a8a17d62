// The scripted engine's state: one per process, one session per handle.
#pragma once

#include <sys/types.h>
#include <vse.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "script.h"

namespace scripted {

/// What stands behind one handle. One thread at a time uses it; `user` finds out when that is
/// broken.
struct Session {
  unsigned number = 0;
  vse_event_callback callback = nullptr;
  std::string object;              // the path of the running scan
  std::optional<Detection> found;  // set while the event callback runs
  std::atomic<pid_t> user{0};
  std::atomic<bool> used{false};
};

using SessionPointer = std::shared_ptr<Session>;

/// Process-wide state. Lives for ever, because a daemon that gives up waiting for a scan leaves the
/// process while one of its threads is still in here.
class Engine {
 public:
  static Engine& get();

  /// Starts counting calls and handles anew and reads the script.
  void start();
  void reload_script();

  /// Frees the sessions of handles never released.
  void drop_sessions();

  /// Numbers the session. A number is given once, unless its handle is released before it was used
  /// and before another was made.
  SessionPointer add(vse_event_callback callback, VSEHANDLE* handle_out);
  SessionPointer find(VSEHANDLE handle);
  SessionPointer remove(VSEHANDLE handle);

  /// Counts one call and does what the script says for it.
  /// @return false when the script makes this call fail
  bool admit(const std::string& call, std::optional<unsigned> id = std::nullopt);

  /// What the script gives in place of a property's real value.
  std::optional<std::string> scripted_value(unsigned property);

 private:
  Engine() = default;
  std::vector<Action> actions_for(const std::string& call, std::optional<unsigned> id);

  std::mutex mutex_;
  Script script_;
  std::map<std::pair<std::string, std::optional<unsigned>>, uint64_t> calls_;
  std::map<VSEHANDLE, SessionPointer> sessions_;
  unsigned sessions_made_ = 0;  // the last number given
};

/// Does one sleep, wait, open or exit; a wait ends after 60 seconds at the latest.
void perform(const Action& action);

/// Holds a session for the calling thread, nested calls of the same thread included; records
/// "VIOLATION" when another thread holds it.
class InUse {
 public:
  explicit InUse(SessionPointer session);
  ~InUse();
  InUse(const InUse&) = delete;
  InUse& operator=(const InUse&) = delete;

 private:
  SessionPointer session_;
  pid_t before_;
};

/// Held by the calls that never overlap each other (vseInit, loading definitions); records
/// "VIOLATION" when they do.
class Exclusive {
 public:
  explicit Exclusive(const char* call);
  ~Exclusive();
  Exclusive(const Exclusive&) = delete;
  Exclusive& operator=(const Exclusive&) = delete;
};

}  // namespace scripted
