#include "manual_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#undef NDEBUG  // for the declaration of __assert_fail()
#include <cassert>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>

#include "avsdk_scanner.h"
#include "daemon_config.h"
#include "descriptor.h"
#include "detached_thread.h"
#include "detected_file.h"
#include "detection_events.h"
#include "filter_service.h"
#include "job_schedule.h"
#include "logger.h"

namespace {

// A regular file may have been replaced by a pipe, whose open would wait for a writer. O_NONBLOCK
// is not used: it would skip files whose lease must first be given up by its holder.
Descriptor open_regular_file(const std::string& path) {
  const Descriptor place(open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status {};
  if (fstat(place.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return Descriptor();
  }
  const std::string same = "/proc/self/fd/" + std::to_string(place.get());
  return Descriptor(open(same.c_str(), O_RDONLY | O_CLOEXEC));
}

}  // namespace

CommandExec* CommandExec::getCommandExec() {
  static CommandExec executor;
  return &executor;
}

void CommandExec::update(const std::list<Command>& commands) {
  Logger::log(3, __func__, "command file is updated");
  loaded_ = ConfParser::time_T(std::time(nullptr));
  jobs_.clear();
  for (const Command& command : commands) {
    jobs_.insert_or_assign(command.ToString(), command);
  }
  for (auto run = history_.begin(); run != history_.end();) {
    const bool kept = jobs_.contains(run->first);
    if (!kept) {
      Logger::log(3, __func__, "erase history for cmd:" + run->first);
    }
    run = kept ? std::next(run) : history_.erase(run);
  }
  syncCommandsList();
}

void CommandExec::perform() {
  Logger::log(3, __func__, " has started");
  setScanDepth(GlobalConfig::getGlobalConfig()->MaxRecursion);
  const std::time_t seconds = std::time(nullptr);
  (void)localtime_r(&seconds, &now_);
  Logger::log(3, __func__, "commands count is " + std::to_string(jobs_.size()));
  for (auto job = jobs_.begin(); job != jobs_.end() && !DetachedThread::stopping();) {
    Logger::log(3, __func__, "command:" + job->first);
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
    Logger::log(1, __func__, "jobs list is too big");
  } else if (!fsfilter::get()->publish_jobs(text)) {
    Logger::log(1, __func__, "failed to acces the shared memory");
  }
}

bool CommandExec::initialize() {
  if (m_scan_handle != no_handle) {
    // Fails in every build, with the familiar words of an assertion.
    __assert_fail("(VSEHANDLE)-1==m_scan_handle", "manual_scan", 55,
                  "bool CommandExec::initialize()");
  }
  // A separate variable until the handle exists: a failure by exception must leave none behind.
  VSEHANDLE handle = nullptr;
  if (!AVSDK_scanner::getAVSDK_scanner()->get_thread_scan_handler(&handle, true)) {
    Logger::log(1, __func__, "Unable to initialize scan engine");
    return false;
  }
  m_scan_handle = handle;
  return true;
}

void CommandExec::release() {
  AVSDK_scanner::getAVSDK_scanner()->release_thread_scan_handler(m_scan_handle);
  m_scan_handle = no_handle;
}

// The start record is written before there is a handle, so its session id is always -1.
void CommandExec::exec(const Command& command) {
  Logger::log(3, __func__, " has started");
  try {
    Logger::append_manual_scan_start(
        {session_id(m_scan_handle), command.folder, GlobalConfig::getGlobalConfig()->MaxRecursion});
    if (!initialize()) {
      return;
    }
    detections_ = 0;
    handleDir(command, "", 0);
    if (!DetachedThread::stopping()) {
      Logger::append_manual_scan_stop({session_id(m_scan_handle), command.folder, detections_ > 0});
      if (command.repeat != ConfParser::NO) {
        history_[command.ToString()] = now_;
      }
    }
  } catch (...) {
    // No memory, or the engine has thrown.
    Logger::log_format(1, __func__, "%s was not scanned to its end", command.folder.c_str());
  }
  if (m_scan_handle != no_handle) {
    release();
  }
}

void CommandExec::handleDir(const Command& command, const std::string& path, int level) {
  if (level > scan_depth_) {
    return;
  }
  const std::string& folder = path.empty() ? command.folder : path;
  struct stat status {};
  const bool found = stat(folder.c_str(), &status) == 0;
  if (!found || !S_ISDIR(status.st_mode)) {
    Logger::log_format(1, __func__, "%s:%s:%s %s", __func__,
                       found ? "not a directory" : "unable to stat", folder.c_str(),
                       std::strerror(errno));
    return;
  }
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(folder.c_str()), closedir);
  if (directory == nullptr) {
    Logger::log(1, __func__, "unable to open:" + folder);
    return;
  }
  const dirent* entry = nullptr;
  while (!DetachedThread::stopping() && (entry = readdir(directory.get())) != nullptr) {
    const std::string_view name = entry->d_name;
    const std::string full = folder + "/" + entry->d_name;
    if (stat(full.c_str(), &status) != 0) {
      Logger::log(1, __func__, "unable to stat:" + full);
    } else if (S_ISREG(status.st_mode)) {
      listed_ = dirfd(directory.get());
      scanFile(full, command);
    } else if (S_ISDIR(status.st_mode) && command.recursive && name != "." && name != "..") {
      handleDir(command, full, level + 1);
    }
  }
}

void CommandExec::scanFile(const std::string& path, const Command& command) {
  Logger::log(3, __func__, "has started");
  Descriptor file = open_regular_file(path);
  if (!file) {
    Logger::log(1, __func__, "can't open file " + path);
    return;
  }
  const GlobalConfig& config = *GlobalConfig::getGlobalConfig();
  const int outcome = AVSDK_scanner::getAVSDK_scanner()->scan_file(
      m_scan_handle, file.get(), path.c_str(), config.ScheduledMaxArchiveDepth, command.action,
      config.DecompressLimit);
  if (outcome == 2) {
    (void)remove_if_same_at(listed_, path.c_str() + path.rfind('/') + 1, identify(file.get()));
  }
  if (outcome != 0) {
    ++detections_;
  }
  // Not tried again: the number is free in any case and may already belong to another thread.
  const bool closed = close(file.release()) == 0;
  Logger::log(3, __func__, closed ? "has finished" : "unable to close:" + path);
}
