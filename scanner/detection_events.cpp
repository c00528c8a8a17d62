#include "detection_events.h"

#include <syslog.h>

#include <cstdio>
#include <iterator>
#include <optional>
#include <string_view>

#include "mutex.h"
#include "unix_loader.h"

namespace {

constexpr unsigned int text_size = 10240;

// By the engine's detection type code: the words of the log, and the constants of the event.
constexpr const char* detectionStrings[] = {
    "None",       "Virus",          "Adware",          "Application",    "Backdoor", "Bomb",
    "Boot_Virus", "DDoS",           "Dialer",          "Downloader",     "Exploit",  "Garbage",
    "Joke",       "Macro",          "MassMailer",      "MisDisinfected", "NetWorm",  "P2PWorm",
    "Proxy",      "PWStealer",      "Remote_Template", "Security_Risk",  "Spyware",  "Tool",
    "Trojan",     "Hidden_Process", "Injected_Code",   "Packer",
};
constexpr const char* detectionTypesStrings[] = {
    "vseDetectionTypeNone",         "vseDetectionTypeVirus",
    "vseDetectionTypeAdware",       "vseDetectionTypeApplication",
    "vseDetectionTypeBackdoor",     "vseDetectionTypeBomb",
    "vseDetectionTypeBootVirus",    "vseDetectionTypeDenial",
    "vseDetectionTypeDialer",       "vseDetectionTypeDownloader",
    "vseDetectionTypeExploit",      "vseDetectionTypeGarbage",
    "vseDetectionTypeJoke",         "vseDetectionTypeMacro",
    "vseDetectionTypeMassMailer",   "vseDetectionTypeMisDisinfection",
    "vseDetectionTypeNetWorm",      "vseDetectionTypeP2PWorm",
    "vseDetectionTypeProxy",        "vseDetectionTypePasswordStealer",
    "vseDetectionTypeRemote",       "vseDetectionTypeRisk",
    "vseDetectionTypeSpyware",      "vseDetectionTypeTool",
    "vseDetectionTypeTrojan",       "vseDetectionTypeHiddenProcess",
    "vseDetectionTypeInjectedCode", "vseDetectionTypePacker",
};
static_assert(std::size(detectionStrings) == 28);
static_assert(std::size(detectionTypesStrings) == 28);

constexpr const char* accuracy_words[] = {"None", "Exact", "Heuristic", "Modified", "Possibly"};

constexpr const char* result_words[] = {
    "Nothing found",         "Not scanned",   "Damaged",        "Encrypted", "Unsupported type",
    "Maximum archive depth", "Found",         "Disinfected",    "Deleted",   "Unknown result",
    "Disinfection failed",   "Delete failed", "Unknown result", "Error"};

/// What is known of a detection: where the engine has it, and what is logged without it.
struct Detail {
  unsigned int property;
  std::uint32_t error_number;
  const char* error;
};
constexpr Detail object_name{VSE_PROP_OBJECT_NAME, 3, "vseEvIdDetect but failed to get file info."};
constexpr Detail detection_type{VSE_PROP_DETECTION_TYPE, 4,
                                "vseEvIdDetect but failed to get detection type"};
constexpr Detail detection_name{VSE_PROP_DETECTION_NAME, 5,
                                "vseEvIdDetect but failed to get detection name"};
constexpr Detail detection_accuracy{VSE_PROP_DETECTION_ACCURACY, 6,
                                    "vseEvIdDetect but failed to get detection accuracy"};
constexpr Detail archive_name{VSE_PROP_ARCHIVE_NAME, 7,
                              "vseEvIdDetect but failed to get file archive info."};
constexpr Detail scan_result{VSE_PROP_SCAN_RESULT, 8,
                             "vseEvIdDetect but failed to get scan result info."};

bool read(void* handle, const Detail& detail, void* buffer, unsigned int size) {
  if (vseGet(handle, detail.property, 0, buffer, size, 0) == VSE_OK) {
    return true;
  }
  Logger::append_error(session_id(handle), detail.error_number, detail.error);
  return false;
}

void read_text(void* handle, const Detail& detail, std::string& out) {
  char text[text_size] = "";
  if (read(handle, detail, text, sizeof text)) {
    text[sizeof text - 1] = '\0';
    out = text;
  }
}

std::optional<unsigned int> read_code(void* handle, const Detail& detail) {
  unsigned int code = 0;
  static_assert(sizeof code == 4);
  return read(handle, detail, &code, sizeof code) ? std::optional(code) : std::nullopt;
}

std::string_view entity(char c) {
  switch (c) {
    case '"':
      return "&quot;";
    case '\'':
      return "&apos;";
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    default:
      return {};
  }
}

Mutex system_log;  // openlog, syslog and closelog belong together

void notice(const char* text) {
  ScopedLock lock(system_log);
  openlog("pelowatchd", 0, LOG_USER);
  syslog(LOG_NOTICE, "%s", text);
  closelog();
}

void report_detection(void* handle) {
  Logger::detection_info info;
  get_object_name(handle, info.path);
  get_archive_name(handle, info.archive_name);
  get_detection_props(handle, info.detection_name, info.detection_type, info.detection_accuracy);
  get_scan_result(handle, info.scan_result);
  info.session_id = session_id(handle);
  Logger::append_detection(info);
  logEventToNAS(handle, info);
}

using EventPush = void (*)(const char* source, const char* destination, const char* xml, int, int);

}  // namespace

std::int64_t session_id(const void* handle) {
  return reinterpret_cast<std::intptr_t>(handle);
}

int myEvents(void* handle, unsigned int event_id, void* event_data) noexcept {
  (void)event_data;
  if (event_id != vseEvIdDetect) {
    return 0;
  }
  try {
    report_detection(handle);
  } catch (...) {
    // Out of memory: the verdict stands without the report, and nothing may unwind through the
    // engine.
  }
  return 0;
}

void get_object_name(void* handle, std::string& out) {
  read_text(handle, object_name, out);
}

void get_archive_name(void* handle, std::string& out) {
  read_text(handle, archive_name, out);
}

void get_detection_props(void* handle, std::string& name, std::string& type,
                         std::string& accuracy) {
  if (const auto code = read_code(handle, detection_type)) {
    get_string_detection_type(*code, type);
  }
  read_text(handle, detection_name, name);
  if (const auto code = read_code(handle, detection_accuracy)) {
    get_string_detection_accuracy(*code, accuracy);
  }
}

void get_detection_type(void* handle, std::string& out) {
  if (const auto code = read_code(handle, detection_type)) {
    out = *code < std::size(detectionTypesStrings) ? detectionTypesStrings[*code] : "";
  }
}

void get_scan_result(void* handle, std::string& out) {
  if (const auto code = read_code(handle, scan_result)) {
    get_string_scan_result(*code, out);
  }
}

void get_string_detection_type(unsigned int code, std::string& out) {
  if (code < std::size(detectionStrings)) {
    out = detectionStrings[code];
  }
}

void get_string_detection_accuracy(unsigned int code, std::string& out) {
  out = code < std::size(accuracy_words) ? accuracy_words[code] : "Unknown";
}

void get_string_scan_result(unsigned int code, std::string& out) {
  out = code < std::size(result_words) ? result_words[code] : "Unknown result";
}

std::size_t escape_for_xml_len(const char* text) {
  std::size_t length = 1;
  for (; *text != '\0'; ++text) {
    const std::string_view escape = entity(*text);
    length += escape.empty() ? 1 : escape.size();
  }
  return length;
}

std::unique_ptr<char[]> escape_for_xml(const std::string& text) {
  auto escaped = std::make_unique<char[]>(escape_for_xml_len(text.c_str()) + 1);
  char* end = escaped.get();
  for (const char* c = text.c_str(); *c != '\0'; ++c) {
    const std::string_view escape = entity(*c);
    if (escape.empty()) {
      *end++ = *c;
    } else {
      end += escape.copy(end, escape.size());
    }
  }
  return escaped;
}

void logEventToNAS(void* handle, const Logger::detection_info& info) {
  std::string type;
  get_detection_type(handle, type);
  CUnixLoader library;
  if (!library.loadLibrary("libquillbox.so.0")) {
    notice("Unable to load library: libquillbox");
    return;
  }
  const auto event_push = library.getProcAddress<EventPush>("event_push");
  if (event_push == nullptr) {
    notice("Unable to find function: event_push");
    return;
  }
  const auto object = escape_for_xml(info.path + info.archive_name);
  const auto name = escape_for_xml(info.detection_name);
  const auto constant = escape_for_xml(type);
  char xml[1024];
  (void)std::snprintf(xml, sizeof xml,
                      "<xs:add-s resource-type=\"AntiVirus\"><AntiVirus object-name=\"%s\" "
                      "detection-name=\"%s\" detection-type=\"%s\"/></xs:add-s>",
                      object.get(), name.get(), constant.get());
  try {
    event_push("scanner", "quillboxd", xml, 0, 0);
  } catch (...) {
    // Here, while the library is loaded: what it throws may be of a type of its own.
  }
}
