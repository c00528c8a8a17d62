// The interface of vse.h, offered by an engine that does what tests tell it: see tests/README.md.
#include <fcntl.h>
#include <unistd.h>
#include <vse.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "record.h"
#include "session.h"

namespace scripted {
namespace {

constexpr int engine_failure = -1;

std::string field(const char* name, const std::string& value) {
  return std::string(name) + "=" + value + " ";
}

template <typename Number>
std::string field(const char* name, Number value) {
  return field(name, std::to_string(value));
}

std::string handle_field(VSEHANDLE handle) {
  const SessionPointer session = Engine::get().find(handle);
  return session ? field("handle", session->number) : "handle=unknown ";
}

/// Records the end of a call. @return its result
int end_of(const char* call, const std::string& fields, int result) {
  record(call, fields + "result=" + std::to_string(result));
  return result;
}

/// A set value as a decimal number: 4 bytes signed, 8 bytes unsigned.
std::string set_value(const void* value, unsigned size) {
  int32_t number = 0;
  uint64_t long_number = 0;
  if (size == sizeof(number)) {
    std::memcpy(&number, value, sizeof(number));
    return std::to_string(number);
  }
  if (size == sizeof(long_number)) {
    std::memcpy(&long_number, value, sizeof(long_number));
    return std::to_string(long_number);
  }
  return "?";
}

/// The first 4096 bytes of the file to be scanned, by descriptor where there is one (without
/// moving its position), else by path.
std::string head_of(int fd, const char* path) {
  const int opened = fd >= 0 ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  std::string head(4096, '\0');
  const ssize_t got = pread(fd >= 0 ? fd : opened, head.data(), head.size(), 0);
  head.resize(got > 0 ? static_cast<size_t>(got) : 0);
  if (opened >= 0) {
    close(opened);
  }
  return head;
}

/// Reports one detection through the callback.
/// @return what the scan's result is after it
int report(Session& session, VSEHANDLE handle, const Detection& detection) {
  session.found = detection;
  if (session.callback != nullptr) {
    (void)session.callback(handle, vseEvIdDetect, nullptr);
  }
  session.found.reset();
  return detection.code;
}

int scan(Session& session, VSEHANDLE handle, int fd, const char* path) {
  session.object = path;
  int result = VSE_SCAN_CLEAN;
  for (const Action& directive : read_directives(head_of(fd, path))) {
    if (directive.kind == Action::Kind::detect) {
      result = std::max(result, report(session, handle, directive.detection));
    } else if (directive.kind == Action::Kind::code) {
      result = directive.number;
    } else {
      perform(directive);
    }
  }
  return result;
}

/// The property of the running detection as text; nothing for one that does not hold now.
std::optional<std::string> property_text(const Session& session, unsigned property) {
  if (!session.found) {
    return std::nullopt;
  }
  const Detection& found = *session.found;
  const std::map<unsigned, std::string> values = {
      {VSE_PROP_SCAN_RESULT, std::to_string(found.result)},
      {VSE_PROP_DETECTION_TYPE, std::to_string(found.type)},
      {VSE_PROP_DETECTION_ACCURACY, std::to_string(found.accuracy)},
      {VSE_PROP_DETECTION_NAME, found.name},
      {VSE_PROP_ARCHIVE_NAME, found.archive},
      {VSE_PROP_OBJECT_NAME, session.object}};
  const auto value = values.find(property);
  return value == values.end() ? std::nullopt : std::make_optional(value->second);
}

bool is_text(unsigned property) {
  return property == VSE_PROP_DETECTION_NAME || property == VSE_PROP_ARCHIVE_NAME ||
         property == VSE_PROP_OBJECT_NAME;
}

int get_property(Session& session, unsigned property, void* buffer, unsigned buffer_size) {
  const auto found = property_text(session, property);
  if (buffer == nullptr || !found || buffer_size == 0) {
    return engine_failure;
  }
  const std::string text = Engine::get().scripted_value(property).value_or(*found);
  if (is_text(property)) {
    const size_t length = std::min<size_t>(text.size(), buffer_size - 1);
    std::memcpy(buffer, text.data(), length);
    static_cast<char*>(buffer)[length] = '\0';
    return VSE_OK;
  }
  const auto number = static_cast<int32_t>(std::stoll(text));
  if (buffer_size != sizeof(number)) {
    return engine_failure;
  }
  std::memcpy(buffer, &number, sizeof(number));
  return VSE_OK;
}

int scan_file(VSEHANDLE handle, unsigned operation, int fd, const char* path) {
  const std::string call = handle_field(handle) + field("operation", operation) +
                           field("path", in_quotes_or_null(path)) + field("fd", fd);
  record("vseExec-begin", call);
  int result = engine_failure;
  const bool admitted = Engine::get().admit("vseExec", operation);
  const SessionPointer session = Engine::get().find(handle);
  if (admitted && session != nullptr && path != nullptr) {
    const InUse in_use(session);
    result = scan(*session, handle, fd, path);
  }
  return end_of("vseExec", call, result);
}

int load_definitions(VSEHANDLE handle, const char* first, const char* second) {
  const Exclusive exclusive("loading definitions");
  const SessionPointer session = Engine::get().find(handle);
  std::optional<InUse> in_use;
  if (session != nullptr) {
    in_use.emplace(session);
  }
  Engine::get().reload_script();
  const std::string call = handle_field(handle) + field("operation", +VSE_EXEC_LOAD_DEFINITIONS) +
                           field("first", in_quotes_or_null(first)) +
                           field("second", in_quotes_or_null(second));
  record("vseExec-begin", call);
  const bool admitted = Engine::get().admit("vseExec", VSE_EXEC_LOAD_DEFINITIONS);
  return end_of("vseExec", call, admitted && session != nullptr ? VSE_OK : engine_failure);
}

}  // namespace
}  // namespace scripted

using namespace scripted;

int vseGlobalInit(const char* cloud_access_key) {
  open_record();
  Engine::get().start();
  const std::string key = field("key", in_quotes_or_null(cloud_access_key));
  record("vseGlobalInit-begin", key);
  return end_of("vseGlobalInit", key,
                Engine::get().admit("vseGlobalInit") ? VSE_OK : engine_failure);
}

int vseGlobalRelease(void) {
  const bool admitted = Engine::get().admit("vseGlobalRelease");
  const int result = end_of("vseGlobalRelease", "", admitted ? VSE_OK : engine_failure);
  Engine::get().drop_sessions();
  return result;
}

int vseInit(uintptr_t reserved, unsigned int flags, const char* database_directory,
            vse_event_callback callback, void* callback_context, VSEHANDLE* handle_out) {
  const Exclusive exclusive("vseInit");
  Engine::get().reload_script();
  std::string call = field("reserved", reserved) + field("flags", flags) +
                     field("database", in_quotes_or_null(database_directory)) +
                     field("callback", std::string(callback == nullptr ? "null" : "set")) +
                     field("context", std::string(callback_context == nullptr ? "null" : "set"));
  record("vseInit-begin", call);
  int result = engine_failure;
  if (Engine::get().admit("vseInit") && handle_out != nullptr) {
    const SessionPointer session = Engine::get().add(callback, handle_out);
    call += field("handle", session->number) +
            field("value", static_cast<int64_t>(reinterpret_cast<intptr_t>(*handle_out)));
    result = VSE_OK;
  }
  return end_of("vseInit", call, result);
}

int vseRelease(VSEHANDLE handle) {
  const std::string call = handle_field(handle);
  int result = Engine::get().admit("vseRelease") ? VSE_OK : engine_failure;
  const SessionPointer session = Engine::get().remove(handle);
  if (session == nullptr) {
    record("VIOLATION", "released what is no handle");
    result = engine_failure;
  } else {
    const InUse in_use(session);
  }
  return end_of("vseRelease", call, result);
}

int vseSet(VSEHANDLE handle, unsigned int property_id, unsigned int index, const void* value,
           unsigned int value_size, uintptr_t reserved) {
  const SessionPointer session = Engine::get().find(handle);
  int result = engine_failure;
  if (Engine::get().admit("vseSet", property_id) && session != nullptr && value != nullptr) {
    const InUse in_use(session);
    result = VSE_OK;
  }
  return end_of("vseSet",
                handle_field(handle) + field("property", property_id) + field("index", index) +
                    field("size", value_size) + field("value", set_value(value, value_size)) +
                    field("reserved", reserved),
                result);
}

int vseGet(VSEHANDLE handle, unsigned int property_id, unsigned int index, void* buffer,
           unsigned int buffer_size, uintptr_t reserved) {
  const SessionPointer session = Engine::get().find(handle);
  int result = engine_failure;
  if (Engine::get().admit("vseGet", property_id) && session != nullptr) {
    const InUse in_use(session);
    result = get_property(*session, property_id, buffer, buffer_size);
  }
  return end_of("vseGet",
                handle_field(handle) + field("property", property_id) + field("index", index) +
                    field("size", buffer_size) + field("reserved", reserved),
                result);
}

int vseExec(VSEHANDLE handle, unsigned int operation, uintptr_t argument_1, uintptr_t argument_2,
            uintptr_t argument_3) {
  const auto* first = reinterpret_cast<const char*>(argument_1);
  switch (operation) {
    case VSE_EXEC_SCAN_PATH:
      return scan_file(handle, operation, -1, first);
    case VSE_EXEC_SCAN_FD:
      return scan_file(handle, operation, static_cast<int>(argument_2), first);
    case VSE_EXEC_LOAD_DEFINITIONS:
      return load_definitions(handle, first, reinterpret_cast<const char*>(argument_3));
    default:
      record("VIOLATION", "vseExec with operation " + std::to_string(operation));
      return engine_failure;
  }
}
