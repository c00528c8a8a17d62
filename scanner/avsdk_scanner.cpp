#include "avsdk_scanner.h"

#include <unistd.h>

#include <cstdint>
#include <iterator>

#include "daemon_config.h"
#include "detection_events.h"
#include "logger.h"
#include "mutex.h"
#include "vse.h"

namespace {

const std::string path_separator = "/";

Mutex avmutex;  // handle creation and definition updates

// All of the adapter's 4-byte properties.
int set_number(void* handle, unsigned int property, unsigned int index, int value) {
  static_assert(sizeof value == 4);
  return vseSet(handle, property, index, &value, sizeof value, 0);
}

// One bit for each type of detection, at the type's code.
std::uint64_t ignore_mask(const GlobalConfig& config) {
  const auto bit = [](bool set, unsigned int type) { return set ? std::uint64_t{1} << type : 0; };
  return bit(config.IgnoreAdwareDetections, 2) | bit(config.IgnoreApplicationDetections, 3) |
         bit(config.IgnoreArchiveBombDetections, 5) | bit(config.IgnoreJokeDetections, 12) |
         bit(config.IgnoreRemoteTemplateDetections, 20) | bit(config.IgnoreSpywareDetections, 22) |
         bit(config.IgnoreToolDetections, 23);
}

unsigned int init_flags(const GlobalConfig& config) {
  return AVSDK_scanner::get_definition_type(config.DefinitionType) | VSE_INIT_BASE;
}

bool create_handle(void** handle) {
  const GlobalConfig& config = *GlobalConfig::getGlobalConfig();
  *handle = nullptr;
  if (vseInit(0, init_flags(config), config.DatabaseDirectory.c_str(), myEvents, nullptr, handle) !=
      VSE_OK) {
    *handle = nullptr;
    return false;
  }
  return true;
}

void set_limits(void* handle, int max_archive_depth, int decompress_limit) {
  (void)set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, 0, max_archive_depth);
  (void)set_number(handle, VSE_PROP_DECOMPRESS, VSE_DECOMPRESS_LIMIT, decompress_limit);
}

int outcome(int engine_code) {
  switch (engine_code) {
    case VSE_SCAN_DETECTED:
    case VSE_SCAN_DETECTED_OTHER:
      return 1;
    case VSE_SCAN_REMOVE:
      return 2;
    default:
      return 0;
  }
}

class Counted {
 public:
  explicit Counted(std::atomic<int>& counter) : counter_(counter) { counter_.fetch_add(1); }
  ~Counted() { counter_.fetch_sub(1); }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  std::atomic<int>& counter_;
};

std::uintptr_t text_argument(const char* text) {
  return reinterpret_cast<std::uintptr_t>(text);
}

// By family; null for what is none.
const AVSDK_scanner::NamePair* update_names(ConfParser::definition_type_t type) {
  static constexpr const AVSDK_scanner::NamePair* names[] = {&AVSDK_scanner::defV1Names_full,
                                                             &AVSDK_scanner::defV2Names_full,
                                                             &AVSDK_scanner::defV2sNames_full};
  const auto family = static_cast<unsigned int>(type);
  return family < std::size(names) ? names[family] : nullptr;
}

}  // namespace

AVSDK_scanner* AVSDK_scanner::getAVSDK_scanner() {
  static AVSDK_scanner scanner;
  return &scanner;
}

AVSDK_scanner::AVSDK_scanner() {
  const GlobalConfig& config = *GlobalConfig::getGlobalConfig();
  (void)Logger::getLogger();  // outlives the engine, which may report while it is released
  const char* key = config.EnableCloudScanning ? config.CloudAccessKey.c_str() : nullptr;
  initialized_ = vseGlobalInit(key) == VSE_OK;
  if (!initialized_) {
    Logger::append_error(-1, 1, "Unable to initialize scan engine");
  }
}

AVSDK_scanner::~AVSDK_scanner() {
  if (initialized_) {
    (void)vseGlobalRelease();
  }
}

void AVSDK_scanner::prepare_definitions() {
  if (initialized_ && vsePrepare != nullptr) {
    const GlobalConfig& config = *GlobalConfig::getGlobalConfig();
    ScopedLock lock(avmutex);
    (void)vsePrepare(init_flags(config), config.DatabaseDirectory.c_str());
  }
}

bool AVSDK_scanner::get_thread_scan_handler(void** handle, bool apply_settings) {
  *handle = nullptr;
  if (!initialized_) {
    return false;
  }
  {
    ScopedLock lock(avmutex);
    if (!create_handle(handle)) {
      return false;
    }
    if (!apply_settings) {
      return true;
    }
    set_scanner_settings(handle);
    if (set_number(*handle, VSE_PROP_SESSION_OPTIONS, 0, VSE_SESSION_OPTIONS_DEFAULT) == VSE_OK) {
      return true;
    }
  }
  // A handle whose options were refused is not used, so it is given back here.
  (void)vseRelease(*handle);
  *handle = nullptr;
  return false;
}

void AVSDK_scanner::release_thread_scan_handler(void* handle) {
  if (initialized_) {
    (void)vseRelease(handle);
  }
}

void AVSDK_scanner::set_scanner_settings(void** handle) {
  const std::uint64_t mask = ignore_mask(*GlobalConfig::getGlobalConfig());
  if (mask != 0 && vseSet(*handle, VSE_PROP_IGNORE_MASK, 0, &mask, sizeof mask, 0) != VSE_OK) {
    Logger::append_error(session_id(*handle), 9, "failed to set ignore flags while avsdk init");
  }
}

int AVSDK_scanner::get_scanner_type(ConfParser::detect_action_t action) {
  return action == ConfParser::REPORT || action == ConfParser::DISINFECT ? action
                                                                         : ConfParser::DELETE;
}

unsigned int AVSDK_scanner::get_definition_type(ConfParser::definition_type_t type) {
  switch (type) {
    case ConfParser::V2:
      return VSE_INIT_FAMILY_V2;
    case ConfParser::V2S:
      return VSE_INIT_FAMILY_V2S;
    default:
      return VSE_INIT_FAMILY_V1;
  }
}

bool AVSDK_scanner::is_infected(int engine_code) {
  return outcome(engine_code) != 0;
}

bool AVSDK_scanner::init_scan(void* handle, ConfParser::detect_action_t action, const char* path) {
  if (!initialized_) {
    Logger::log(1, __func__, "scan engine has not been properly initialized");
    return false;
  }
  if (set_number(handle, VSE_PROP_SCAN_ACTION, 0, get_scanner_type(action)) != VSE_OK) {
    Logger::append_error(-1, 9, "Unable to set property scan action in AVSDK engine");
  }
  if (Logger::wants(2)) {
    Logger::append_scan_file({session_id(handle), path});
  }
  return true;
}

int AVSDK_scanner::scan_file(void* handle, const char* path, int max_archive_depth,
                             ConfParser::detect_action_t action, int decompress_limit) {
  if (!init_scan(handle, action, path)) {
    return 0;
  }
  set_limits(handle, max_archive_depth, decompress_limit);
  return outcome(vseExec(handle, VSE_EXEC_SCAN_PATH, text_argument(path), 0, 0));
}

int AVSDK_scanner::scan_file(void* handle, int fd, const char* path, int max_archive_depth,
                             ConfParser::detect_action_t action, int decompress_limit) {
  if (!init_scan(handle, action, path)) {
    return 0;
  }
  set_limits(handle, max_archive_depth, decompress_limit);
  return outcome(
      vseExec(handle, VSE_EXEC_SCAN_FD, text_argument(path), static_cast<std::uintptr_t>(fd), 0));
}

bool AVSDK_scanner::apply_update(const std::string& directory) {
  if (!initialized_) {
    return false;
  }
  const NamePair* names = update_names(GlobalConfig::getGlobalConfig()->DefinitionType);
  if (names == nullptr) {
    return false;
  }
  const std::string first = directory + path_separator + (*names)[0];
  const std::string second = directory + path_separator + (*names)[1];
  const bool have_first = access(first.c_str(), R_OK) == 0;
  const bool have_second = access(second.c_str(), R_OK) == 0;
  if (!have_first && !have_second) {
    return false;
  }
  const Counted in_progress(updates_in_progress_);
  ScopedLock lock(avmutex);
  void* temporary = nullptr;
  if (!create_handle(&temporary)) {
    return false;
  }
  const int result = vseExec(temporary, VSE_EXEC_LOAD_DEFINITIONS,
                             text_argument(have_first ? first.c_str() : nullptr), 0,
                             text_argument(have_second ? second.c_str() : nullptr));
  (void)vseRelease(temporary);
  return result == VSE_OK;
}
