#include "config_check.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <initializer_list>
#include <utility>

#include "record_check.h"

namespace {

constexpr const char* negative_depth =
    "the engine is handed the negative number, and whether it refuses is not looked at; write 0 to "
    "look into no archive";

struct LeastNumber {
  const char* key;
  int GlobalConfig::*field;
  int least;
  const char* below;  ///< what happens then
};

constexpr LeastNumber least_numbers[] = {
    {"MaxThreads", &GlobalConfig::MaxThreads, 1,
     "no worker is started, and the daemon ends right after its start; write 1 or more"},
    {"MaxRecursion", &GlobalConfig::MaxRecursion, 0,
     "no scheduled scan looks into its folder; write 0 for the folder alone"},
    {"MaxCacheEntries", &GlobalConfig::MaxCacheEntries, 1,
     "the cache holds the newest path only; write 1 or more"},
    {"MaxArchiveDepth", &GlobalConfig::MaxArchiveDepth, 0, negative_depth},
    {"ScheduledMaxArchiveDepth", &GlobalConfig::ScheduledMaxArchiveDepth, 0, negative_depth},
    {"DecompressLimit", &GlobalConfig::DecompressLimit, 0,
     "the engine is handed the negative number, and whether it refuses is not looked at; write 0 "
     "for its own limit"},
    {"Loglevel", &GlobalConfig::Loglevel, 1,
     "neither errors nor detections are logged; write 1, 2 or 3"},
};

struct Directory {
  const char* key;
  std::string GlobalConfig::*field;
  const char* missing;   ///< what follows when it is none
  const char* writable;  ///< what follows when every user can write it
};

constexpr Directory directories[] = {
    {"DatabaseDirectory", &GlobalConfig::DatabaseDirectory, "the engine finds no definitions there",
     "and so put definitions there"},
    {"StagingDirectory", &GlobalConfig::StagingDirectory, "no definition update is found there",
     "and so put definitions there"},
    {"LogPath", &GlobalConfig::LogPath, "nothing is logged", "where the log is"},
    {"ConfPath", &GlobalConfig::ConfPath, "no scheduled scan is read",
     "where the commands file is"},
};

class ConfigChecker {
 public:
  ConfigChecker(const std::string& file, const std::string& content, const MountFiles& mounts)
      : lines_(content), report_(file), mounts_(mounts, settings_) {
    (void)settings_.parseFile(file.c_str());
  }

  ConfigCheck run() {
    check_numbers();
    check_unused();
    check_cloud();
    for (const Directory& directory : directories) {
      check_directory(directory);
    }
    check_log_file();
    HeldPaths exclusions =
        check_paths(listed({"IncludeDirectory", "IncludeFile"}),
                    listed({"ExcludeDirectory", "ExcludeFile"}), mounts_, report_);
    if (!mounts_.problem().empty()) {
      report_.add(0, "", mounts_.problem());
    }
    check_record(settings_, settings_.parser(), lines_, report_);
    check_unknown<GlobalConfig>(settings_.parser(), "", report_);
    return {std::move(settings_), std::move(exclusions), report_.take()};
  }

 private:
  bool has(const char* key) const { return settings_.parser().peek(key) != nullptr; }

  // About a key, at its line if it has one.
  void report(const char* key, std::string text) {
    report_.add(line_of(settings_.parser(), key, 0), key, std::move(text));
  }

  void report_if(bool wrong, const char* key, const char* text) {
    if (wrong) {
      report(key, text);
    }
  }

  void check_numbers() {
    for (const auto& [key, field, least, below] : least_numbers) {
      report_if(settings_.*field < least, key, below);
    }
    if (settings_.MaxThreads > most_workers) {
      report("MaxThreads",
             fmt::format("the daemon starts {0} workers; write at most {0}", most_workers));
    }
    report_if(settings_.Maxlog == 0, "Maxlog",
              "the log is emptied before every record, so it holds one; write 1 or more");
  }

  void check_unused() {
    const ConfParser::Value* archives = settings_.parser().peek("ScanArchive");
    report_if(!settings_.ScanArchive && reading_of(archives->text, false).complaint.empty(),
              "ScanArchive",
              "has no effect: nothing uses it; write MaxArchiveDepth 0 to look into no archive");
    report_if(settings_.ScanEngineDirectory != GlobalConfig().ScanEngineDirectory,
              "ScanEngineDirectory",
              "has no effect: nothing uses it; the engine is found by the dynamic loader");
  }

  void check_cloud() {
    const bool has_key = !settings_.CloudAccessKey.empty();
    report_if(has_key && !has("EnableCloudScanning"), "CloudAccessKey",
              "has no effect without EnableCloudScanning; write \"EnableCloudScanning yes\"");
    report_if(settings_.EnableCloudScanning && !has_key, "EnableCloudScanning",
              "the engine is handed an empty key, unless the daemon is started with -k; write "
              "CloudAccessKey and the key");
  }

  void check_directory(const Directory& directory) {
    const std::string& path = settings_.*directory.field;
    if (const auto problem = problem_with(directory, path)) {
      report(directory.key, *problem);
    }
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
        (status.st_mode & S_IWOTH) != 0) {
      report(directory.key, fmt::format("every user can write {}, {}; write a directory that only "
                                        "root can write",
                                        quote(path), directory.writable));
    }
  }

  std::optional<std::string> problem_with(const Directory& directory,
                                          const std::string& path) const {
    const std::string_view key = directory.key;
    if (key == "LogPath") {
      return problem_with_log_path(path, directory.missing);
    }
    std::optional<std::string> problem = no_directory(path, directory.missing);
    if (key == "ConfPath" && problem) {
      // A default one that is missing is a daemon without scheduled scans.
      return has("ConfPath") ? std::optional(fmt::format("{}; the commands file is {}", *problem,
                                                         quote(settings_.getCommandsFileName())))
                             : std::nullopt;
    }
    return problem;
  }

  // Opened before the daemon detaches, unlike what the others name.
  std::optional<std::string> problem_with_log_path(const std::string& path,
                                                   const char* consequence) const {
    struct stat status {};
    if (path.empty()) {
      return "has no value: the log is " + quote(settings_.GetLogFilePath());
    }
    if (!path.starts_with('/')) {
      return quote(path) +
             " is relative: the log lies below the directory in which the daemon is started; write "
             "an absolute path";
    }
    if (stat(path.c_str(), &status) != 0 && errno == ENOENT) {
      return quote(path) + " does not exist: the daemon makes it";
    }
    return no_directory(path, consequence);
  }

  void check_log_file() {
    const std::string log = settings_.GetLogFilePath();
    struct stat status {};
    if (lstat(log.c_str(), &status) != 0) {
      return;
    }
    if (S_ISLNK(status.st_mode)) {
      report("LogPath",
             quote(log) + " is a link, which the daemon does not follow: nothing is logged");
    } else if (S_ISDIR(status.st_mode)) {
      report("LogPath", quote(log) + " is a directory: nothing is logged");
    }
  }

  std::vector<ListedPath> listed(std::initializer_list<const char*> keys) const {
    std::vector<ListedPath> paths;
    for (const char* key : keys) {
      const auto [first, last] = settings_.parser().values().equal_range(key);
      for (auto setting = first; setting != last; ++setting) {
        paths.push_back({setting->second.line, key, setting->second.text});
      }
    }
    return paths;
  }

  const FileLines lines_;
  FileReport report_;
  GlobalConfig settings_;
  WatchedMounts mounts_;
};

}  // namespace

ConfigCheck check_config(const std::string& file, const std::string& content,
                         const MountFiles& mounts) {
  return ConfigChecker(file, content, mounts).run();
}
