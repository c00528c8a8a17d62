#include "session.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "record.h"

namespace scripted {
namespace {

std::atomic<int> exclusive_calls{0};

void wait_for(const std::string& path) {
  // access() rather than open(): an open of a watched file would be an event of its own.
  const auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (access(path.c_str(), F_OK) != 0 && std::chrono::steady_clock::now() < bound) {
    // Between two looks: whoever makes the file needs the processor.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

void open_and_close(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  record("engine-open", "path=" + in_quotes(path) + " errno=" + std::to_string(fd < 0 ? errno : 0));
  if (fd >= 0) {
    close(fd);
  }
}

}  // namespace

Engine& Engine::get() {
  static auto* const engine = new Engine;
  return *engine;
}

void Engine::start() {
  const std::lock_guard lock(mutex_);
  calls_.clear();
  sessions_made_ = 0;
  script_ = read_script();
}

void Engine::reload_script() {
  Script script = read_script();
  const std::lock_guard lock(mutex_);
  script_ = std::move(script);
}

void Engine::drop_sessions() {
  const std::lock_guard lock(mutex_);
  sessions_.clear();
}

SessionPointer Engine::add(vse_event_callback callback, VSEHANDLE* handle_out) {
  auto session = std::make_shared<Session>();
  session->callback = callback;
  const std::lock_guard lock(mutex_);
  session->number = ++sessions_made_;
  *handle_out = reinterpret_cast<VSEHANDLE>(script_.handle_base + session->number);
  sessions_[*handle_out] = session;
  return session;
}

SessionPointer Engine::find(VSEHANDLE handle) {
  const std::lock_guard lock(mutex_);
  const auto found = sessions_.find(handle);
  return found == sessions_.end() ? nullptr : found->second;
}

SessionPointer Engine::remove(VSEHANDLE handle) {
  const std::lock_guard lock(mutex_);
  const auto found = sessions_.find(handle);
  if (found == sessions_.end()) {
    return nullptr;
  }
  SessionPointer session = found->second;
  sessions_.erase(found);
  if (!session->used && session->number == sessions_made_) {
    --sessions_made_;
  }
  return session;
}

std::vector<Action> Engine::actions_for(const std::string& call, std::optional<unsigned> id) {
  const std::lock_guard lock(mutex_);
  const uint64_t any_id = ++calls_[{call, std::nullopt}];
  const uint64_t this_id = id ? ++calls_[{call, id}] : any_id;
  std::vector<Action> actions;
  for (const Rule& rule : script_.rules) {
    const uint64_t count = rule.id ? this_id : any_id;
    const bool meant = rule.call == call && (!rule.id || rule.id == id);
    if (meant && rule.first <= count && count <= rule.last) {
      actions.push_back(rule.action);
    }
  }
  return actions;
}

bool Engine::admit(const std::string& call, std::optional<unsigned> id) {
  bool admitted = true;
  for (const Action& action : actions_for(call, id)) {
    if (action.kind == Action::Kind::fail) {
      admitted = false;
    } else {
      perform(action);
    }
  }
  return admitted;
}

std::optional<std::string> Engine::scripted_value(unsigned property) {
  const std::lock_guard lock(mutex_);
  const auto found = script_.values.find(property);
  return found == script_.values.end() ? std::nullopt : std::make_optional(found->second);
}

void perform(const Action& action) {
  switch (action.kind) {
    case Action::Kind::sleep:
      return std::this_thread::sleep_for(std::chrono::milliseconds(action.number));
    case Action::Kind::wait:
      return wait_for(action.path);
    case Action::Kind::open:
      return open_and_close(action.path);
    case Action::Kind::exit:
      std::exit(action.number);
    case Action::Kind::throw_it:
      throw action.number;
    default:
      return;
  }
}

InUse::InUse(SessionPointer session)
    : session_(std::move(session)), before_(session_->user.exchange(gettid())) {
  session_->used = true;
  if (before_ != 0 && before_ != gettid()) {
    record("VIOLATION", "handle=" + std::to_string(session_->number) + " is in use by thread " +
                            std::to_string(before_));
  }
}

InUse::~InUse() {
  session_->user = before_;
}

Exclusive::Exclusive(const char* call) {
  if (exclusive_calls.fetch_add(1) != 0) {
    record("VIOLATION", std::string(call) + " overlaps a call that must not be overlapped");
  }
}

Exclusive::~Exclusive() {
  exclusive_calls.fetch_sub(1);
}

}  // namespace scripted
