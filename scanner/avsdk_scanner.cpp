#include "avsdk_scanner.h"

#include <unistd.h>

#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>

#include "daemon_config.h"
#include "detection_events.h"
#include "logger.h"
#include "mutex.h"
#include "vse.h"

namespace {

const std::string path_separator = "/";

Mutex avmutex;  // handle creation and definition updates

const GlobalConfig& settings() {
  return *GlobalConfig::getGlobalConfig();
}

// All of the adapter's 4-byte properties.
int set_number(void* handle, unsigned int property, unsigned int index, int value) {
  static_assert(sizeof value == 4);
  return vseSet(handle, property, index, &value, sizeof value, 0);
}

// One bit for each type of detection, at the type's code.
std::uint64_t ignore_mask() {
  const auto bit = [](bool set, unsigned int type) { return set ? std::uint64_t{1} << type : 0; };
  const GlobalConfig& config = settings();
  return bit(config.IgnoreAdwareDetections, 2) | bit(config.IgnoreApplicationDetections, 3) |
         bit(config.IgnoreArchiveBombDetections, 5) | bit(config.IgnoreJokeDetections, 12) |
         bit(config.IgnoreRemoteTemplateDetections, 20) | bit(config.IgnoreSpywareDetections, 22) |
         bit(config.IgnoreToolDetections, 23);
}

unsigned int init_flags() {
  return AVSDK_scanner::get_definition_type(settings().DefinitionType) | VSE_INIT_BASE;
}

// Null when the engine makes none.
void* create_handle() PELO_REQUIRES(avmutex) {
  void* handle = nullptr;
  const int result =
      vseInit(0, init_flags(), settings().DatabaseDirectory.c_str(), myEvents, nullptr, &handle);
  return result == VSE_OK ? handle : nullptr;
}

int outcome(int engine_code) {
  if (engine_code == VSE_SCAN_REMOVE) {
    return 2;
  }
  return engine_code == VSE_SCAN_DETECTED || engine_code == VSE_SCAN_DETECTED_OTHER ? 1 : 0;
}

std::uintptr_t text_argument(const char* text) {
  return reinterpret_cast<std::uintptr_t>(text);
}

// The name as an argument; null if the file cannot be read.
std::uintptr_t if_readable(const std::string& file) {
  return access(file.c_str(), R_OK) == 0 ? text_argument(file.c_str()) : 0;
}

}  // namespace

AVSDK_scanner* AVSDK_scanner::getAVSDK_scanner() {
  static AVSDK_scanner scanner;
  return &scanner;
}

AVSDK_scanner::AVSDK_scanner() {
  (void)Logger::getLogger();  // outlives the engine, which may report while it is released
  initialized_ = vseGlobalInit(settings().EnableCloudScanning ? settings().CloudAccessKey.c_str()
                                                              : nullptr) == VSE_OK;
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
    ScopedLock lock(avmutex);
    (void)vsePrepare(init_flags(), settings().DatabaseDirectory.c_str());
  }
}

bool AVSDK_scanner::get_thread_scan_handler(void** handle, bool apply_settings) {
  *handle = nullptr;
  if (!initialized_) {
    return false;
  }
  ScopedLock lock(avmutex);
  *handle = create_handle();
  if (*handle != nullptr && apply_settings) {
    set_scanner_settings(handle);
    if (set_number(*handle, VSE_PROP_SESSION_OPTIONS, 0, VSE_SESSION_OPTIONS_DEFAULT) != VSE_OK) {
      (void)vseRelease(std::exchange(*handle, nullptr));  // nobody is to use it
    }
  }
  return *handle != nullptr;
}

void AVSDK_scanner::release_thread_scan_handler(void* handle) {
  if (initialized_) {
    (void)vseRelease(handle);
  }
}

void AVSDK_scanner::set_scanner_settings(void** handle) {
  const std::uint64_t mask = ignore_mask();
  if (mask != 0 && vseSet(*handle, VSE_PROP_IGNORE_MASK, 0, &mask, sizeof mask, 0) != VSE_OK) {
    Logger::append_error(session_id(*handle), 9, "failed to set ignore flags while avsdk init");
  }
}

int AVSDK_scanner::get_scanner_type(ConfParser::detect_action_t action) {
  return action == ConfParser::REPORT || action == ConfParser::DISINFECT ? action
                                                                         : ConfParser::DELETE;
}

unsigned int AVSDK_scanner::get_definition_type(ConfParser::definition_type_t type) {
  return type == ConfParser::V2    ? VSE_INIT_FAMILY_V2
         : type == ConfParser::V2S ? VSE_INIT_FAMILY_V2S
                                   : VSE_INIT_FAMILY_V1;
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
  Logger::append_scan_file({session_id(handle), path});
  return true;
}

int AVSDK_scanner::scan_file(void* handle, const char* path, int max_archive_depth,
                             ConfParser::detect_action_t action, int decompress_limit) {
  return scan_file(handle, -1, path, max_archive_depth, action, decompress_limit);
}

int AVSDK_scanner::scan_file(void* handle, int fd, const char* path, int max_archive_depth,
                             ConfParser::detect_action_t action, int decompress_limit) {
  if (!init_scan(handle, action, path)) {
    return 0;
  }
  (void)set_number(handle, VSE_PROP_MAX_ARCHIVE_DEPTH, 0, max_archive_depth);
  (void)set_number(handle, VSE_PROP_DECOMPRESS, VSE_DECOMPRESS_LIMIT, decompress_limit);
  const bool by_path = fd < 0;
  return outcome(vseExec(handle, by_path ? VSE_EXEC_SCAN_PATH : VSE_EXEC_SCAN_FD,
                         text_argument(path), by_path ? 0 : static_cast<std::uintptr_t>(fd), 0));
}

bool AVSDK_scanner::apply_update(const std::string& directory) {
  static constexpr const NamePair* families[] = {&defV1Names_full, &defV2Names_full,
                                                 &defV2sNames_full};
  const auto family = static_cast<unsigned int>(settings().DefinitionType);
  if (!initialized_ || family >= std::size(families)) {
    return false;
  }
  const std::string first = directory + path_separator + families[family]->front();
  const std::string second = directory + path_separator + families[family]->back();
  const std::uintptr_t first_argument = if_readable(first);
  const std::uintptr_t second_argument = if_readable(second);
  if (first_argument == 0 && second_argument == 0) {
    return false;
  }
  updates_in_progress_.fetch_add(1);
  const auto ended = [](std::atomic<int>* updates) { updates->fetch_sub(1); };
  const std::unique_ptr<std::atomic<int>, decltype(ended)> in_progress(&updates_in_progress_,
                                                                       ended);
  ScopedLock lock(avmutex);
  void* temporary = create_handle();
  if (temporary == nullptr) {
    return false;
  }
  const int result =
      vseExec(temporary, VSE_EXEC_LOAD_DEFINITIONS, first_argument, 0, second_argument);
  (void)vseRelease(temporary);
  return result == VSE_OK;
}
