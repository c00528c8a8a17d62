// The daemon's one door to the scan engine.
//
// Engine handles belong to the threads that asked for them; the adapter keeps none. Scans take no
// lock. Making a handle and applying a definition update exclude each other.
#pragma once

#include <array>
#include <atomic>
#include <string>

#include "confparser.h"

/// The engine, initialised for the process by the first getAVSDK_scanner() and released at exit.
/// When that initialisation fails every later operation fails quietly: scans find nothing, handles
/// and updates are refused.
class AVSDK_scanner {
 public:
  using NamePair = std::array<std::string, 2>;

  /// Definition files of an update, by family. An update names the full ones; the incremental ones
  /// are the engine maker's other half of the table.
  inline static const NamePair defV1Names_full{"antivir.def", "aivsecon.def"};
  inline static const NamePair defV1Names_incremental{"antiviri.def", "aivseconi.def"};
  inline static const NamePair defV2Names_full{"antivir-v2.def", "aivsecon-v2.def"};
  inline static const NamePair defV2Names_incremental{"antiviri-v2.def", "aivseconi-v2.def"};
  inline static const NamePair defV2sNames_full{"antivir-v2s.def", "aivsecon-v2s.def"};
  inline static const NamePair defV2sNames_incremental{"antiviri-v2s.def", "aivseconi-v2s.def"};

  /// The adapter of this process. The first call initialises the engine, which may take long and
  /// open files: it is made before any mount is marked.
  static AVSDK_scanner* getAVSDK_scanner();

  /// Whether the engine could be initialised. Any thread.
  bool initialized() const { return initialized_; }

  /// Makes an engine that can do so load its definitions now, which may take half a minute; with
  /// any other engine nothing happens. Called before any mount is marked: no open waits for it.
  void prepare_definitions();

  /// Makes an engine handle, with the daemon's settings applied if asked for. Any thread.
  /// @param handle receives the handle, the caller's from then on; null on failure
  /// @return true when there is a usable handle
  bool get_thread_scan_handler(void** handle, bool apply_settings);

  /// Gives a handle back. It must not be in use.
  void release_thread_scan_handler(void* handle);

  /// Scans a file by its path, or an open descriptor whose path names it in reports. The limits
  /// and the action hold for this scan. For the thread that owns the handle; the descriptor stays
  /// the caller's.
  /// @param fd the descriptor; -1 is none
  /// @param max_archive_depth nested archives to look into
  /// @param decompress_limit the engine's limit for unpacking, 0 for its own
  /// @return 0 nothing to act on, errors included; 1 a detection; 2 a detection whose file the
  ///         caller removes
  int scan_file(void* handle, const char* path, int max_archive_depth,
                ConfParser::detect_action_t action, int decompress_limit);
  int scan_file(void* handle, int fd, const char* path, int max_archive_depth,
                ConfParser::detect_action_t action, int decompress_limit);

  /// The first steps of a scan: the action is set, the scan is logged.
  /// @return false when there is no engine
  bool init_scan(void* handle, ConfParser::detect_action_t action, const char* path);

  /// Hands the types of detection to ignore to the engine.
  void set_scanner_settings(void** handle);

  /// The engine's value for an action; what is no action counts as DELETE.
  int get_scanner_type(ConfParser::detect_action_t action);

  /// The engine's flags for a definition family.
  static unsigned int get_definition_type(ConfParser::definition_type_t type);

  /// Whether a raw scan code of the engine is a detection.
  bool is_infected(int engine_code);

  /// Loads new definitions from the files in `directory`; one of the family's two is enough.
  /// Handles that exist keep the old definitions. Any thread.
  /// @return true when the engine accepted them
  bool apply_update(const std::string& directory);

  /// Whether apply_update() is at work, or about to be: making a handle would wait for it.
  bool update_in_progress() const { return updates_in_progress_.load() != 0; }

 private:
  AVSDK_scanner();
  ~AVSDK_scanner();

  bool initialized_ = false;
  std::atomic<int> updates_in_progress_{0};
};
