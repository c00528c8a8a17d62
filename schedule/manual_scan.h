// The scheduled scans: the jobs of the commands file, when each last ran, and the walk through a
// folder.
//
// Everything here runs on the service thread. A stop unwinds that thread between two files; what a
// scan holds, the engine handle, one directory a level and one file, goes with the unwinding.
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

  /// Runs one scan of the command's folder.
  void exec(const Command& command);

  /// Scans the files of one folder, and of its subfolders down to the scan depth.
  /// @param path the folder; empty for the command's own
  /// @param level 0 for the command's folder
  void handleDir(const Command& command, const std::string& path, int level);

  /// Scans one regular file.
  /// @param directory open on the file's folder, `name` its name there: where it is removed
  void scanFile(const std::string& path, const Command& command, int directory, const char* name);

  void setScanDepth(int depth) { scan_depth_ = depth; }

 private:
  CommandExec();
  ~CommandExec() = default;

  void handle_entry(const Command& command, const std::string& folder, int directory,
                    const char* name, int level);

  std::tm now_{};
  ConfParser::time_T loaded_;
  std::map<std::string, Command> jobs_;     ///< by Command::ToString()
  std::map<std::string, std::tm> history_;  ///< the pass in which a repeating job last ran
  int scan_depth_ = 0;
  VSEHANDLE m_scan_handle;  ///< (VSEHANDLE)-1 between scans
  int detections_ = 0;      ///< of the scan in progress
};
