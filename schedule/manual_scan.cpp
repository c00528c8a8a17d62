#include "manual_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <memory>

#include "avsdk_scanner.h"
#include "daemon_config.h"
#include "detached_thread.h"
#include "detected_file.h"
#include "detection_events.h"
#include "filter_service.h"
#include "job_schedule.h"
#include "logger.h"

namespace {

// The session id of records without a handle is -1, which is this value.
const VSEHANDLE no_handle = reinterpret_cast<VSEHANDLE>(-1);  // NOLINT(performance-no-int-to-ptr)

struct CloseDirectory {
  void operator()(DIR* directory) const { (void)closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// Gives the engine handle back when the scan ends, also when it is unwound.
class ScanSession {
 public:
  explicit ScanSession(CommandExec& executor)
      : executor_(executor), started_(executor.initialize()) {}
  ~ScanSession() {
    if (started_) {
      executor_.release();
    }
  }
  ScanSession(const ScanSession&) = delete;
  ScanSession& operator=(const ScanSession&) = delete;
  bool started() const { return started_; }

 private:
  CommandExec& executor_;
  bool started_;
};

void log_with_system_text(const char* message, const std::string& folder, int error) {
  char text[200] = "";
  Logger::append(1, std::string("handleDir handleDir:") + message + folder + " " +
                        strerror_r(error, text, sizeof text) + "\n");
}

// What was a regular file a moment ago may be a pipe now, whose open would wait for a writer. Not
// with O_NONBLOCK, which would pass over files whose holder gives up a lease first.
int open_regular_file(const std::string& path) {
  const int place = open(path.c_str(), O_PATH | O_CLOEXEC);
  struct stat status {};
  int fd = -1;
  if (place >= 0 && fstat(place, &status) == 0 && S_ISREG(status.st_mode)) {
    fd = open(("/proc/self/fd/" + std::to_string(place)).c_str(), O_RDONLY | O_CLOEXEC);
  }
  if (place >= 0) {
    (void)close(place);
  }
  return fd;
}

// Not tried again: the number is free whatever the result, and may already be another thread's.
bool close_file(int fd, const std::string& path) {
  if (close(fd) == 0) {
    return true;
  }
  Logger::append(3, "scanFile unable to close:" + path + "\n");
  return false;
}

}  // namespace

CommandExec* CommandExec::getCommandExec() {
  static CommandExec executor;
  return &executor;
}

CommandExec::CommandExec() : m_scan_handle(no_handle) {}

void CommandExec::update(const std::list<Command>& commands) {
  Logger::append(3, "update command file is updated\n");
  loaded_ = ConfParser::time_T(std::time(nullptr));
  jobs_.clear();
  for (const Command& command : commands) {
    jobs_.insert_or_assign(command.ToString(), command);
  }
  std::erase_if(history_, [this](const auto& run) {
    const bool gone = !jobs_.contains(run.first);
    if (gone) {
      Logger::append(3, "update erase history for cmd:" + run.first + "\n");
    }
    return gone;
  });
  syncCommandsList();
}

void CommandExec::perform() {
  Logger::append(3, "perform  has started\n");
  setScanDepth(GlobalConfig::getGlobalConfig()->MaxRecursion);
  const std::time_t seconds = std::time(nullptr);
  (void)localtime_r(&seconds, &now_);
  Logger::append(3, "perform commands count is " + std::to_string(jobs_.size()) + "\n");
  for (auto job = jobs_.begin(); job != jobs_.end();) {
    Logger::append(3, "perform command:" + job->first + "\n");
    const bool due = isTimeToRun(job->second);
    if (due) {
      exec(job->second);
    }
    job = due && job->second.repeat == ConfParser::NO ? jobs_.erase(job) : std::next(job);
  }
  syncCommandsList();
}

bool CommandExec::isTimeToRun(const Command& command) const {
  const auto last = history_.find(command.ToString());
  return is_due(command, now_, loaded_, last == history_.end() ? nullptr : &last->second);
}

void CommandExec::syncCommandsList() {
  std::string text;
  for (const auto& [key, command] : jobs_) {
    text += key + "\n";
  }
  if (text.size() > FSFILTER_TEXT_SIZE) {
    Logger::append(1, "syncCommandsList jobs list is too big\n");
  } else if (!fsfilter::get()->publish_jobs(text)) {
    Logger::append(1, "syncCommandsList failed to acces the shared memory\n");
  }
}

bool CommandExec::initialize() {
  // Whoever sees it fail searches for this text.
  // clang-format off
  assert((VSEHANDLE)-1==m_scan_handle);  // NOLINT(performance-no-int-to-ptr): as no_handle
  // clang-format on
  if (!AVSDK_scanner::getAVSDK_scanner()->get_thread_scan_handler(&m_scan_handle, true)) {
    m_scan_handle = no_handle;
    Logger::append(1, "initialize Unable to initialize scan engine\n");
  }
  return m_scan_handle != no_handle;
}

void CommandExec::release() {
  AVSDK_scanner::getAVSDK_scanner()->release_thread_scan_handler(m_scan_handle);
  m_scan_handle = no_handle;
}

// The start record is written before there is a handle, so its session id is always -1.
void CommandExec::exec(const Command& command) {
  Logger::append(3, "exec  has started\n");
  Logger::append_manual_scan_start(
      {session_id(m_scan_handle), command.folder, GlobalConfig::getGlobalConfig()->MaxRecursion});
  const ScanSession session(*this);
  if (!session.started()) {
    return;
  }
  detections_ = 0;
  handleDir(command, "", 0);
  Logger::append_manual_scan_stop({session_id(m_scan_handle), command.folder, detections_ > 0});
  if (command.repeat != ConfParser::NO) {
    history_[command.ToString()] = now_;
  }
}

void CommandExec::handleDir(const Command& command, const std::string& path, int level) {
  if (level > scan_depth_) {
    return;
  }
  const std::string& folder = path.empty() ? command.folder : path;
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) {
    log_with_system_text("unable to stat:", folder, errno);
    return;
  }
  if (!S_ISDIR(status.st_mode)) {
    log_with_system_text("not a directory:", folder, errno);
    return;
  }
  const Directory directory(opendir(folder.c_str()));
  if (directory == nullptr) {
    Logger::append(1, "handleDir unable to open:" + folder + "\n");
    return;
  }
  while (const dirent* entry = readdir(directory.get())) {
    DetachedThread::cancellation_point();
    handle_entry(command, folder, dirfd(directory.get()), entry->d_name, level);
  }
}

void CommandExec::handle_entry(const Command& command, const std::string& folder, int directory,
                               const char* name, int level) {
  const std::string full = folder + "/" + name;
  struct stat status {};
  if (stat(full.c_str(), &status) != 0) {
    Logger::append(1, "handleDir unable to stat:" + full + "\n");
    return;
  }
  if (S_ISREG(status.st_mode)) {
    scanFile(full, command, directory, name);
  } else if (S_ISDIR(status.st_mode) && command.recursive && std::strcmp(name, ".") != 0 &&
             std::strcmp(name, "..") != 0) {
    handleDir(command, full, level + 1);
  }
}

void CommandExec::scanFile(const std::string& path, const Command& command, int directory,
                           const char* name) {
  Logger::append(3, "scanFile has started\n");
  const int fd = open_regular_file(path);
  if (fd < 0) {
    Logger::append(1, "scanFile can't open file " + path + "\n");
    return;
  }
  const GlobalConfig& config = *GlobalConfig::getGlobalConfig();
  const int outcome = AVSDK_scanner::getAVSDK_scanner()->scan_file(
      m_scan_handle, fd, path.c_str(), config.ScheduledMaxArchiveDepth, command.action,
      config.DecompressLimit);
  if (outcome == 2) {
    (void)remove_if_same_at(directory, name, identify(fd));
  }
  if (outcome != 0) {
    ++detections_;
  }
  if (close_file(fd, path)) {
    Logger::append(3, "scanFile has finished\n");
  }
}
