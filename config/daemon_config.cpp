#include "daemon_config.h"

#include <algorithm>

#include "logger.h"

namespace {

std::string in_directory(const std::string& directory, const char* name) {
  return directory + (directory.ends_with('/') ? "" : "/") + name;
}

bool contains(const std::list<std::string>& entries, const std::string& path) {
  return std::find(entries.begin(), entries.end(), path) != entries.end();
}

}  // namespace

GlobalConfig* GlobalConfig::getGlobalConfig() {
  static GlobalConfig config;
  return &config;
}

int GlobalConfig::parseFile(const char* path) {
  parser_ = ConfParser();  // a later -c speaks for itself, not for the file before it
  parser_.parse(std::string(path));
  if (const std::string* log_path = parser_.peek("LogPath")) {
    LogPath = *log_path;
  }
  Logger::reopen();

  // A get that fails has logged why and left the field alone, which is all there is to do.
  (void)parser_.get("MaxThreads", MaxThreads);
  (void)parser_.get("MaxRecursion", MaxRecursion);
  (void)parser_.get("MaxArchiveDepth", MaxArchiveDepth);
  (void)parser_.get("MaxCacheEntries", MaxCacheEntries);
  (void)parser_.get("ScheduledMaxArchiveDepth", ScheduledMaxArchiveDepth);
  (void)parser_.get("DecompressLimit", DecompressLimit);
  (void)parser_.get("ScanArchive", ScanArchive);
  (void)parser_.get("DatabaseDirectory", DatabaseDirectory);
  (void)parser_.get("StagingDirectory", StagingDirectory);
  (void)parser_.get("ScanEngineDirectory", ScanEngineDirectory);
  (void)parser_.get("IncludeDirectory", IncludeList);
  (void)parser_.get("IncludeFile", IncludeList);
  (void)parser_.get("ExcludeDirectory", ExcludeDirectory);
  (void)parser_.get("ExcludeFile", ExcludeFile);
  (void)parser_.get("CloudAccessKey", CloudAccessKey);
  (void)parser_.get("IgnoreAdwareDetections", IgnoreAdwareDetections);
  (void)parser_.get("IgnoreApplicationDetections", IgnoreApplicationDetections);
  (void)parser_.get("IgnoreArchiveBombDetections", IgnoreArchiveBombDetections);
  (void)parser_.get("IgnoreJokeDetections", IgnoreJokeDetections);
  (void)parser_.get("IgnoreRemoteTemplateDetections", IgnoreRemoteTemplateDetections);
  (void)parser_.get("IgnoreSpywareDetections", IgnoreSpywareDetections);
  (void)parser_.get("IgnoreToolDetections", IgnoreToolDetections);
  (void)parser_.get("EnableCloudScanning", EnableCloudScanning);
  (void)parser_.get("DefaultAction", DefaultAction);
  (void)parser_.get("DefinitionType", DefinitionType);
  (void)parser_.get("Loglevel", Loglevel);
  (void)parser_.get("LogPath", LogPath);
  unsigned long long mebibytes = 0;
  if (parser_.get("Maxlog", mebibytes)) {
    Maxlog = mebibytes << 20;
  }
  (void)parser_.get("ConfPath", ConfPath);
  (void)parser_.get("AsyncLogging", AsyncLogging);
  return 0;
}

std::string GlobalConfig::GetLogFilePath() const {
  return in_directory(LogPath, "pelowatchd.log");
}

std::string GlobalConfig::getCommandsFileName() const {
  return in_directory(ConfPath, "sdcommands.conf");
}

bool GlobalConfig::isExcluded(const std::string& path) const {
  return contains(ExcludeDirectory, path) || contains(ExcludeFile, path);
}
