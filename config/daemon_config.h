// The daemon's settings: one record, filled before the daemon's threads exist, then only read.
#pragma once

#include <cstdint>
#include <list>
#include <span>
#include <string>
#include <variant>

#include "confparser.h"

/// Where the daemon's pid file is, and its name, to which ".pid" is appended.
inline constexpr char pidfile_directory[] = "/var/run/pelo/";
inline constexpr char pidfile_name[] = "pelowatchd";

/// The name of the log file in its directory.
inline constexpr char log_file_name[] = "pelowatchd.log";

/// How long after its start the daemon looks for due scans, and reads the commands file, first.
inline constexpr unsigned first_pass_delay = 10;  // seconds

/// The most on-access workers that are started, whatever MaxThreads says.
inline constexpr int most_workers = 1024;

/// The path by which the filter is told of an entry of the include list: cut at what it can hold,
/// and then without one slash at its end.
std::string trimmed_include(const std::string& entry);

/// Every field carries the name of its configuration key; the default stands beside it. The main
/// thread writes it while it reads the command line; afterwards any thread reads it without a lock.
class GlobalConfig {
 public:
  /// A key of the configuration file and the field it sets. The type of the field is the type of
  /// the value, but for the 64-bit number: the field holds bytes and the value is in MiB. Two keys
  /// may add to one list.
  struct Key {
    const char* name;
    std::variant<int GlobalConfig::*, bool GlobalConfig::*, std::uint64_t GlobalConfig::*,
                 std::string GlobalConfig::*, std::list<std::string> GlobalConfig::*,
                 ConfParser::detect_action_t GlobalConfig::*,
                 ConfParser::definition_type_t GlobalConfig::*>
        field;
    bool additive = false;  ///< not a key of the appliance: nothing is logged if it is missing
  };

  /// Every key, in the order in which they are read.
  static std::span<const Key> keys();

  /// The settings of this process, built with their defaults on first use. Tools may have others.
  static GlobalConfig* getGlobalConfig();

  /// Applies every key of a configuration file. What the file lacks, or gives in a form that does
  /// not convert, keeps its value and is logged; a file that cannot be read changes nothing.
  /// `LogPath` is applied first, so that what reading the file logs lands where the file says.
  /// @return 0 always: every file is accepted
  int parseFile(const char* path);

  /// Passes the log settings to the logger. parseFile() calls it; others that change one must, too.
  void configure_logger() const;

  /// The log file: "pelowatchd.log" in LogPath, which must not be empty.
  std::string GetLogFilePath() const;

  /// The commands file: "sdcommands.conf" in ConfPath, which must not be empty.
  std::string getCommandsFileName() const;

  /// Whether `path` equals an ExcludeDirectory or ExcludeFile entry, character for character.
  bool isExcluded(const std::string& path) const;

  /// What the settings were read from: the file of the last -c.
  const ConfParser& parser() const { return parser_; }

  int MaxThreads = 5;                ///< on-access workers
  int MaxRecursion = 5;              ///< deepest folder level of a scheduled scan
  int MaxArchiveDepth = 2;           ///< on access
  int MaxCacheEntries = 1000;        ///< paths
  int ScheduledMaxArchiveDepth = 5;  ///< in scheduled scans
  int DecompressLimit = 0;           ///< handed to the engine; 0 is its own limit
  bool ScanArchive = true;           ///< read and kept; no component uses it
  std::string DatabaseDirectory = "/opt/pelo/share";
  std::string StagingDirectory = "/tmp";  ///< where definition updates are looked for
  std::string ScanEngineDirectory = "/opt/pelo/lib64/";  ///< read and kept; no component uses it
  std::list<std::string> IncludeList;  ///< IncludeDirectory, then IncludeFile: one list
  std::list<std::string> ExcludeDirectory;
  std::list<std::string> ExcludeFile;
  std::string CloudAccessKey;
  bool IgnoreAdwareDetections = true;
  bool IgnoreApplicationDetections = true;
  bool IgnoreArchiveBombDetections = false;
  bool IgnoreJokeDetections = false;
  bool IgnoreRemoteTemplateDetections = false;
  bool IgnoreSpywareDetections = false;
  bool IgnoreToolDetections = false;
  bool EnableCloudScanning = false;
  ConfParser::detect_action_t DefaultAction = ConfParser::REPORT;
  ConfParser::definition_type_t DefinitionType = ConfParser::LEGACY;
  int Loglevel = 2;  ///< 1 error, 2 debug, 3 trace
  std::string LogPath = "/var/log";
  std::uint64_t Maxlog = 16ULL << 20;  ///< bytes; the key's value is in MiB
  std::string ConfPath = "/opt/pelo/etc";
  /// Without it only "/" is watched and the mount table is never read. No key or option sets it.
  bool mount_tracking = true;
  bool AsyncLogging = false;
  int HoldLimit = 30;  ///< seconds that an open may wait for a worker; 0 or less: for ever

 private:
  ConfParser parser_;
};
