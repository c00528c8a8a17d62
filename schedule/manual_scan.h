// The scheduled scans: the jobs of the commands file, when each last ran, and the walk through a
// folder.
//
// Everything here runs on the service thread. When that is asked to stop, a scan ends between two
// files, without a stop record or an entry in the history.
#pragma once

#include <ctime>
#include <list>
#include <map>
#include <string>

#include "commandparser.h"
#include "vse.h"

/// The executor of the process.
class CommandExec {
 public:
  static CommandExec* getCommandExec();

  CommandExec(const CommandExec&) = delete;
  CommandExec& operator=(const CommandExec&) = delete;

  /// Replaces the jobs; those that stay keep their history. Identical commands are one job.
  void update(const std::list<Command>& commands);

  /// Runs the jobs that are due, in the order of their texts. A job without a period leaves the
  /// list once it was due, whether its scan could start or not.
  void perform();

  /// Whether a job is due in the current pass.
  bool isTimeToRun(const Command& command) const;

  /// Publishes the jobs in the status area; a text that does not fit leaves the old one.
  void syncCommandsList();

  /// Gets the engine handle of one scan; release() comes before the next one.
  /// @return whether there is one
  bool initialize();
  void release();

  /// Runs one scan of the command's folder. An exception ends this scan alone and is logged; as
  /// without an engine, there is no stop record and no entry in the history.
  void exec(const Command& command);

  /// Scans the files of one folder, and of its subfolders down to the scan depth.
  /// @param path the folder; empty for the command's own
  /// @param level 0 for the command's folder
  void handleDir(const Command& command, const std::string& path, int level);

  /// Scans one regular file of the folder that handleDir() lists.
  void scanFile(const std::string& path, const Command& command);

  void setScanDepth(int depth) { scan_depth_ = depth; }

 private:
  CommandExec() = default;
  ~CommandExec() = default;

  // The session id of records without a handle is -1, which is this value.
  inline static const VSEHANDLE no_handle =
      reinterpret_cast<VSEHANDLE>(-1);  // NOLINT(performance-no-int-to-ptr)

  std::tm now_{};
  ConfParser::time_T loaded_;
  std::map<std::string, Command> jobs_;     ///< by Command::ToString()
  std::map<std::string, std::tm> history_;  ///< the pass in which a repeating job last ran
  int scan_depth_ = 0;
  VSEHANDLE m_scan_handle = no_handle;  ///< (VSEHANDLE)-1 between scans
  int detections_ = 0;                  ///< of the scan in progress
  int listed_ = -1;                     ///< the folder in which scanFile() removes its file
};
