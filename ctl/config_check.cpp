#include "config_check.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <initializer_list>
#include <tuple>
#include <utility>

#include "record_check.h"

namespace {

constexpr int most_threads = 1024;  // that the daemon starts, whatever the number

class ConfigChecker {
 public:
  ConfigChecker(const std::string& file, const std::string& content, const MountFiles& mounts)
      : lines_(setting_lines(content)),
        by_key_(lines_, known_),
        report_(file),
        mounts_(mounts, settings_) {
    (void)settings_.parseFile(file.c_str());
  }

  ConfigCheck run() {
    check_numbers();
    check_log_numbers();
    check_unused();
    check_cloud();
    check_database();
    check_staging();
    check_writers();
    check_log_directory();
    check_log_file();
    check_conf_path();
    HeldPaths exclusions =
        check_paths(listed({"IncludeDirectory", "IncludeFile"}),
                    listed({"ExcludeDirectory", "ExcludeFile"}), mounts_, report_);
    if (!mounts_.problem().empty()) {
      report_.add(0, "", mounts_.problem());
    }
    check_record(settings_, by_key_, report_);
    for (const FileLine& line : lines_) {
      report_unknown(line, known_, report_);
    }
    return {std::move(settings_), origins(), std::move(exclusions), report_.take()};
  }

 private:
  std::size_t line_of(const char* key) const {
    const FileLine* line = by_key_.first(key);
    return line == nullptr ? 0 : line->number;
  }

  // About a key, at its line if it has one.
  void report(const char* key, std::string text) {
    report_.add(line_of(key), key, std::move(text));
  }

  void report_if(bool wrong, const char* key, const char* text) {
    if (wrong) {
      report(key, text);
    }
  }

  void check_numbers() {
    report_if(settings_.MaxThreads <= 0, "MaxThreads",
              "no worker is started, and the daemon ends right after its start; write 1 or more");
    if (settings_.MaxThreads > most_threads) {
      report("MaxThreads",
             fmt::format("the daemon starts {0} workers; write at most {0}", most_threads));
    }
    report_if(settings_.MaxRecursion < 0, "MaxRecursion",
              "no scheduled scan looks into its folder; write 0 for the folder alone");
    report_if(settings_.MaxCacheEntries <= 0, "MaxCacheEntries",
              "the cache holds the newest path only; write 1 or more");
    for (const auto& [key, value] :
         {std::pair("MaxArchiveDepth", settings_.MaxArchiveDepth),
          std::pair("ScheduledMaxArchiveDepth", settings_.ScheduledMaxArchiveDepth)}) {
      report_if(value < 0, key,
                "the engine is handed the negative number, and whether it refuses is not looked "
                "at; write 0 to look into no archive");
    }
    report_if(settings_.DecompressLimit < 0, "DecompressLimit",
              "the engine is handed the negative number, and whether it refuses is not looked at; "
              "write 0 for its own limit");
  }

  void check_log_numbers() {
    report_if(settings_.Loglevel < 1, "Loglevel",
              "neither errors nor detections are logged; write 1, 2 or 3");
    report_if(settings_.Maxlog == 0, "Maxlog",
              "the log is emptied before every record, so it holds one; write 1 or more");
  }

  void check_unused() {
    if (const FileLine* line = by_key_.first("ScanArchive");
        line != nullptr && !settings_.ScanArchive &&
        reading_of(line->value, settings_.ScanArchive).complaint.empty()) {
      report_.add(
          *line, "has no effect: nothing uses it; write MaxArchiveDepth 0 to look into no archive");
    }
    report_if(settings_.ScanEngineDirectory != GlobalConfig().ScanEngineDirectory,
              "ScanEngineDirectory",
              "has no effect: nothing uses it; the engine is found by the dynamic loader");
  }

  void check_cloud() {
    const bool has_key = !settings_.CloudAccessKey.empty();
    report_if(has_key && by_key_.first("EnableCloudScanning") == nullptr, "CloudAccessKey",
              "has no effect without EnableCloudScanning; write \"EnableCloudScanning yes\"");
    report_if(settings_.EnableCloudScanning && !has_key, "EnableCloudScanning",
              "the engine is handed an empty key, unless the daemon is started with -k; write "
              "CloudAccessKey and the key");
  }

  void check_database() {
    if (const auto problem =
            no_directory(settings_.DatabaseDirectory, "the engine finds no definitions there")) {
      report("DatabaseDirectory", *problem);
    }
  }

  void check_staging() {
    if (const auto problem =
            no_directory(settings_.StagingDirectory, "no definition update is found there")) {
      report("StagingDirectory", *problem);
    }
  }

  void check_writers() {
    for (const auto& [key, directory, consequence] :
         {std::tuple("DatabaseDirectory", settings_.DatabaseDirectory,
                     "and so put definitions there"),
          std::tuple("StagingDirectory", settings_.StagingDirectory,
                     "and so put definitions there"),
          std::tuple("LogPath", settings_.LogPath, "where the log is"),
          std::tuple("ConfPath", settings_.ConfPath, "where the commands file is")}) {
      struct stat status {};
      if (stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
          (status.st_mode & S_IWOTH) != 0) {
        report(key, fmt::format("every user can write {}, {}; write a directory that only root can "
                                "write",
                                quoted(directory), consequence));
      }
    }
  }

  void check_log_directory() {
    const std::string& directory = settings_.LogPath;
    struct stat status {};
    if (directory.empty()) {
      report("LogPath", "has no value: the log is " + quoted(settings_.GetLogFilePath()));
    } else if (!directory.starts_with('/')) {
      report("LogPath", quoted(directory) +
                            " is relative: the log lies below the directory in which the daemon is "
                            "started; write an absolute path");
    } else if (stat(directory.c_str(), &status) != 0 && errno == ENOENT) {
      report("LogPath", quoted(directory) + " does not exist: the daemon makes it");
    } else if (const auto problem = no_directory(directory, "nothing is logged")) {
      report("LogPath", *problem);
    }
  }

  void check_log_file() {
    const std::string log = settings_.GetLogFilePath();
    struct stat status {};
    if (lstat(log.c_str(), &status) != 0) {
      return;
    }
    if (S_ISLNK(status.st_mode)) {
      report("LogPath",
             quoted(log) + " is a link, which the daemon does not follow: nothing is logged");
    } else if (S_ISDIR(status.st_mode)) {
      report("LogPath", quoted(log) + " is a directory: nothing is logged");
    }
  }

  // A default one that is missing is a daemon without scheduled scans.
  void check_conf_path() {
    const auto problem = no_directory(settings_.ConfPath, "no scheduled scan is read");
    if (problem && by_key_.first("ConfPath") != nullptr) {
      report("ConfPath", fmt::format("{}; the commands file is {}", *problem,
                                     quoted(settings_.getCommandsFileName())));
    }
  }

  std::vector<ListedPath> listed(std::initializer_list<const char*> keys) const {
    std::vector<ListedPath> paths;
    for (const char* key : keys) {
      for (const FileLine* line : by_key_.of(key)) {
        paths.push_back({line->number, line->key, line->value});
      }
    }
    return paths;
  }

  std::vector<SettingOrigin> origins() const {
    std::vector<SettingOrigin> all;
    for (const GlobalConfig::Key& key : GlobalConfig::keys()) {
      all.push_back(
          {&key, std::visit([&](auto field) { return counting(key, field); }, key.field)});
    }
    return all;
  }

  template <typename T>
  std::vector<FileLine> counting(const GlobalConfig::Key& key, T GlobalConfig::*field) const {
    std::vector<FileLine> counting_lines;
    for (const FileLine* line : by_key_.of(key.name)) {
      if (is_list(field)) {
        counting_lines.push_back(*line);
      } else if (reading_of(line->value, settings_.*field).applied) {
        return {*line};
      } else {
        break;
      }
    }
    return counting_lines;
  }

  const KeyNames known_ = key_names<GlobalConfig>();
  std::vector<FileLine> lines_;
  LinesByKey by_key_;
  Report report_;
  GlobalConfig settings_;
  WatchedMounts mounts_;
};

}  // namespace

ConfigCheck check_config(const std::string& file, const std::string& content,
                         const MountFiles& mounts) {
  return ConfigChecker(file, content, mounts).run();
}
