#include "daemon_config.h"

#include <algorithm>
#include <climits>

#include "logger.h"

namespace {

std::string in_directory(const std::string& directory, const char* name) {
  return directory + (directory.ends_with('/') ? "" : "/") + name;
}

constexpr GlobalConfig::Key all_keys[] = {
    {"MaxThreads", &GlobalConfig::MaxThreads},
    {"MaxRecursion", &GlobalConfig::MaxRecursion},
    {"MaxArchiveDepth", &GlobalConfig::MaxArchiveDepth},
    {"MaxCacheEntries", &GlobalConfig::MaxCacheEntries},
    {"ScheduledMaxArchiveDepth", &GlobalConfig::ScheduledMaxArchiveDepth},
    {"DecompressLimit", &GlobalConfig::DecompressLimit},
    {"ScanArchive", &GlobalConfig::ScanArchive},
    {"DatabaseDirectory", &GlobalConfig::DatabaseDirectory},
    {"StagingDirectory", &GlobalConfig::StagingDirectory},
    {"ScanEngineDirectory", &GlobalConfig::ScanEngineDirectory},
    {"IncludeDirectory", &GlobalConfig::IncludeList},
    {"IncludeFile", &GlobalConfig::IncludeList},
    {"ExcludeDirectory", &GlobalConfig::ExcludeDirectory},
    {"ExcludeFile", &GlobalConfig::ExcludeFile},
    {"CloudAccessKey", &GlobalConfig::CloudAccessKey},
    {"IgnoreAdwareDetections", &GlobalConfig::IgnoreAdwareDetections},
    {"IgnoreApplicationDetections", &GlobalConfig::IgnoreApplicationDetections},
    {"IgnoreArchiveBombDetections", &GlobalConfig::IgnoreArchiveBombDetections},
    {"IgnoreJokeDetections", &GlobalConfig::IgnoreJokeDetections},
    {"IgnoreRemoteTemplateDetections", &GlobalConfig::IgnoreRemoteTemplateDetections},
    {"IgnoreSpywareDetections", &GlobalConfig::IgnoreSpywareDetections},
    {"IgnoreToolDetections", &GlobalConfig::IgnoreToolDetections},
    {"EnableCloudScanning", &GlobalConfig::EnableCloudScanning},
    {"DefaultAction", &GlobalConfig::DefaultAction},
    {"DefinitionType", &GlobalConfig::DefinitionType},
    {"Loglevel", &GlobalConfig::Loglevel},
    {"LogPath", &GlobalConfig::LogPath},
    {"Maxlog", &GlobalConfig::Maxlog},
    {"ConfPath", &GlobalConfig::ConfPath},
    {"AsyncLogging", &GlobalConfig::AsyncLogging},
    {"HoldLimit", &GlobalConfig::HoldLimit, true},
};

// A get that fails has logged why and left the field alone, which is all there is to do.
template <typename T>
void read(const ConfParser& parser, const char* key, T& field) {
  (void)parser.get(key, field);
}

void read(const ConfParser& parser, const char* key, std::uint64_t& bytes) {
  unsigned long long mebibytes = 0;
  if (parser.get(key, mebibytes)) {
    bytes = mebibytes << 20;
  }
}

}  // namespace

std::string trimmed_include(const std::string& entry) {
  std::string path = entry.substr(0, PATH_MAX - 1);
  if (path.ends_with('/')) {
    path.pop_back();
  }
  return path;
}

std::span<const GlobalConfig::Key> GlobalConfig::keys() {
  return all_keys;
}

GlobalConfig* GlobalConfig::getGlobalConfig() {
  static GlobalConfig config;
  return &config;
}

int GlobalConfig::parseFile(const char* path) {
  parser_ = ConfParser();  // a later -c speaks for itself, not for the file before it
  parser_.parse(std::string(path));
  if (const ConfParser::Value* log_path = parser_.peek("LogPath")) {
    LogPath = log_path->text;
  }
  configure_logger();
  for (const Key& key : keys()) {
    if (!key.additive || parser_.peek(key.name) != nullptr) {
      std::visit([this, &key](auto field) { read(parser_, key.name, this->*field); }, key.field);
      configure_logger();  // the level holds from its key on
    }
  }
  return 0;
}

void GlobalConfig::configure_logger() const {
  Logger::configure({.path = GetLogFilePath(),
                     .level = Loglevel,
                     .size_limit = Maxlog,
                     .asynchronous = AsyncLogging});
}

std::string GlobalConfig::GetLogFilePath() const {
  return in_directory(LogPath, log_file_name);
}

std::string GlobalConfig::getCommandsFileName() const {
  return in_directory(ConfPath, "sdcommands.conf");
}

bool GlobalConfig::isExcluded(const std::string& path) const {
  return std::ranges::count(ExcludeDirectory, path) + std::ranges::count(ExcludeFile, path) > 0;
}
