#include "detection_events.h"

#include <syslog.h>

#include <cstdio>
#include <exception>
#include <iterator>
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
    "Nothing found",          // 0
    "Not scanned",            // 1
    "Damaged",                // 2
    "Encrypted",              // 3
    "Unsupported type",       // 4
    "Maximum archive depth",  // 5
    "Found",                  // 6
    "Disinfected",            // 7
    "Deleted",                // 8
    "Unknown result",         // 9
    "Disinfection failed",    // 10
    "Delete failed",          // 11
    "Unknown result",         // 12
    "Error",                  // 13
};

void log_failed_read(void* handle, std::uint32_t error_number, const char* message) {
  Logger::error_info error;
  error.session_id = session_id(handle);
  error.error_number = error_number;
  error.error_description = message;
  Logger::append_error(error);
}

bool read_text(void* handle, unsigned int property, std::string& out) {
  char text[text_size] = "";
  if (vseGet(handle, property, 0, text, sizeof text, 0) != VSE_OK) {
    return false;
  }
  text[sizeof text - 1] = '\0';
  out = text;
  return true;
}

bool read_code(void* handle, unsigned int property, unsigned int& code) {
  static_assert(sizeof code == 4);
  return vseGet(handle, property, 0, &code, sizeof code, 0) == VSE_OK;
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
  if (event_id != VSE_EVENT_DETECT) {
    return 0;
  }
  try {
    report_detection(handle);
  } catch (const std::exception&) {
    // Out of memory, or an event library that throws: the verdict stands without the report, and
    // nothing may unwind through the engine.
  }
  return 0;
}

void get_object_name(void* handle, std::string& out) {
  if (!read_text(handle, VSE_PROP_OBJECT_NAME, out)) {
    log_failed_read(handle, 3, "vseEvIdDetect but failed to get file info.");
  }
}

void get_archive_name(void* handle, std::string& out) {
  if (!read_text(handle, VSE_PROP_ARCHIVE_NAME, out)) {
    log_failed_read(handle, 7, "vseEvIdDetect but failed to get file archive info.");
  }
}

void get_detection_props(void* handle, std::string& name, std::string& type,
                         std::string& accuracy) {
  unsigned int code = 0;
  if (read_code(handle, VSE_PROP_DETECTION_TYPE, code)) {
    get_string_detection_type(code, type);
  } else {
    log_failed_read(handle, 4, "vseEvIdDetect but failed to get detection type");
  }
  if (!read_text(handle, VSE_PROP_DETECTION_NAME, name)) {
    log_failed_read(handle, 5, "vseEvIdDetect but failed to get detection name");
  }
  if (read_code(handle, VSE_PROP_DETECTION_ACCURACY, code)) {
    get_string_detection_accuracy(code, accuracy);
  } else {
    log_failed_read(handle, 6, "vseEvIdDetect but failed to get detection accuracy");
  }
}

void get_detection_type(void* handle, std::string& out) {
  unsigned int code = 0;
  if (!read_code(handle, VSE_PROP_DETECTION_TYPE, code)) {
    log_failed_read(handle, 4, "vseEvIdDetect but failed to get detection type");
  } else if (code < std::size(detectionTypesStrings)) {
    out = detectionTypesStrings[code];
  } else {
    out.clear();
  }
}

void get_scan_result(void* handle, std::string& out) {
  unsigned int code = 0;
  if (read_code(handle, VSE_PROP_SCAN_RESULT, code)) {
    get_string_scan_result(code, out);
  } else {
    log_failed_read(handle, 8, "vseEvIdDetect but failed to get scan result info.");
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
  const auto object_name = escape_for_xml(info.path + info.archive_name);
  const auto detection_name = escape_for_xml(info.detection_name);
  const auto detection_type = escape_for_xml(type);
  char xml[1024];
  (void)std::snprintf(xml, sizeof xml,
                      "<xs:add-s resource-type=\"AntiVirus\"><AntiVirus object-name=\"%s\" "
                      "detection-name=\"%s\" detection-type=\"%s\"/></xs:add-s>",
                      object_name.get(), detection_name.get(), detection_type.get());
  event_push("scanner", "quillboxd", xml, 0, 0);
}
