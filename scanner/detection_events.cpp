#include "detection_events.h"

#include <syslog.h>

#include <cstdio>
#include <iterator>
#include <span>
#include <string_view>

#include "mutex.h"
#include "unix_loader.h"

namespace {

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

// The word of a code; `otherwise` for one that has none.
std::string word(std::span<const char* const> words, unsigned int code,
                 const std::string& otherwise) {
  return code < words.size() ? words[code] : otherwise;
}

void get_detection_constant(unsigned int code, std::string& out) {
  out = word(detectionTypesStrings, code, "");
}

// What is known of a detection: where the engine has it, and what is logged without it.
struct Detail {
  unsigned int property;
  std::uint32_t error_number;
  const char* missing;
};
constexpr Detail detection_type{VSE_PROP_DETECTION_TYPE, 4, "detection type"};

bool read(void* handle, const Detail& detail, void* buffer, unsigned int size) {
  if (vseGet(handle, detail.property, 0, buffer, size, 0) == VSE_OK) {
    return true;
  }
  const std::string error = std::string("vseEvIdDetect but failed to get ") + detail.missing;
  Logger::append_error(session_id(handle), detail.error_number, error.c_str());
  return false;
}

void read_text(void* handle, const Detail& detail, std::string& out) {
  char text[10240] = "";
  if (read(handle, detail, text, sizeof text)) {
    text[sizeof text - 1] = '\0';
    out = text;
  }
}

void read_code(void* handle, const Detail& detail, void (*get_word)(unsigned int, std::string&),
               std::string& out) {
  unsigned int code = 0;
  static_assert(sizeof code == 4);
  if (read(handle, detail, &code, sizeof code)) {
    get_word(code, out);
  }
}

Mutex system_log;  // openlog, syslog and closelog belong together

void notice(const char* text) {
  ScopedLock lock(system_log);
  openlog("pelowatchd", 0, LOG_USER);
  syslog(LOG_NOTICE, "%s", text);
  closelog();
}

using EventPush = void (*)(const char* source, const char* destination, const char* xml, int, int);

}  // namespace

std::int64_t session_id(const void* handle) {
  return reinterpret_cast<std::intptr_t>(handle);
}

int myEvents(void* handle, unsigned int event_id, void*) noexcept {
  if (event_id != vseEvIdDetect) {
    return 0;
  }
  try {
    Logger::detection_info info;
    get_object_name(handle, info.path);
    get_archive_name(handle, info.archive_name);
    get_detection_props(handle, info.detection_name, info.detection_type, info.detection_accuracy);
    get_scan_result(handle, info.scan_result);
    info.session_id = session_id(handle);
    Logger::append_detection(info);
    logEventToNAS(handle, info);
  } catch (...) {
    // Out of memory: the verdict stands without the report, and nothing may unwind through the
    // engine.
  }
  return 0;
}

void get_object_name(void* handle, std::string& out) {
  read_text(handle, {VSE_PROP_OBJECT_NAME, 3, "file info."}, out);
}

void get_archive_name(void* handle, std::string& out) {
  read_text(handle, {VSE_PROP_ARCHIVE_NAME, 7, "file archive info."}, out);
}

void get_detection_props(void* handle, std::string& name, std::string& type,
                         std::string& accuracy) {
  read_code(handle, detection_type, get_string_detection_type, type);
  read_text(handle, {VSE_PROP_DETECTION_NAME, 5, "detection name"}, name);
  read_code(handle, {VSE_PROP_DETECTION_ACCURACY, 6, "detection accuracy"},
            get_string_detection_accuracy, accuracy);
}

void get_detection_type(void* handle, std::string& out) {
  read_code(handle, detection_type, get_detection_constant, out);
}

void get_scan_result(void* handle, std::string& out) {
  read_code(handle, {VSE_PROP_SCAN_RESULT, 8, "scan result info."}, get_string_scan_result, out);
}

void get_string_detection_type(unsigned int code, std::string& out) {
  out = word(detectionStrings, code, out);
}

void get_string_detection_accuracy(unsigned int code, std::string& out) {
  out = word(accuracy_words, code, "Unknown");
}

void get_string_scan_result(unsigned int code, std::string& out) {
  out = word(result_words, code, "Unknown result");
}

std::size_t escape_for_xml_len(const char* text) {
  return escape_for_xml(text).size() + 1;
}

std::string escape_for_xml(const std::string& text) {
  constexpr std::string_view characters = "\"'&<>";
  constexpr const char* entities[] = {"&quot;", "&apos;", "&amp;", "&lt;", "&gt;"};
  std::string escaped;
  for (const char c : text) {
    const std::size_t place = characters.find(c);
    escaped += place < characters.size() ? entities[place] : std::string(1, c);
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
  char xml[1024];
  (void)std::snprintf(xml, sizeof xml,
                      "<xs:add-s resource-type=\"AntiVirus\"><AntiVirus object-name=\"%s\" "
                      "detection-name=\"%s\" detection-type=\"%s\"/></xs:add-s>",
                      escape_for_xml(info.path + info.archive_name).c_str(),
                      escape_for_xml(info.detection_name).c_str(), escape_for_xml(type).c_str());
  try {
    event_push("scanner", "quillboxd", xml, 0, 0);
  } catch (...) {
    // Here, while the library is loaded: what it throws may be of a type of its own.
  }
}
