// A tiny file system in user space, whose server does what real ones do: to open its one file it
// opens another file, on another mount.
#pragma once

#include <atomic>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "process.h"

namespace e2e {

/// Who serves a mount in a process of its own.
class FileServer {
 public:
  virtual ~FileServer();  // the mount goes too
  FileServer(const FileServer&) = delete;
  FileServer& operator=(const FileServer&) = delete;

  /// Why there is no mount; empty when there is one.
  const std::string& failure() const { return failure_; }

  /// Skips the test when there is no mount, because there are no file systems in user space, or not
  /// the program. With CI set it fails instead, but for programs that an emulated machine lacks.
  void require() const;

  /// From now on it answers nothing at all. Returns when each of its threads has stopped: until
  /// then one may still take a request, for which who waits for the answer cannot be killed.
  void hang() const;
  void go_on() const { server_->signal(SIGCONT); }

  /// It ends, and what waits for it fails. May be called again, and without a mount.
  void end();

 protected:
  /// @param of_a_program that not every machine has
  FileServer(const std::string& folder, bool of_a_program);

  std::string folder_;
  std::string failure_;
  std::optional<Process> server_;

 private:
  bool of_a_program_;
};

/// Serves a mount with the file "file" in it.
class FuseServer : public FileServer {
 public:
  /// @param owner user and group of the mount, and who else may see what is in it
  FuseServer(const std::string& folder, const std::string& backing_file,
             const std::string& owner = "user_id=0,group_id=0,allow_other");

  std::string file() const { return folder_ + "/file"; }

  /// From now on it answers no open of its file; everything else it answers as before. Not even
  /// SIGKILL ends who waits for such an answer.
  void hang_opens() { *opens_hang_ = true; }

 private:
  Shared<std::atomic<bool>> opens_hang_;
};

/// A folder that a program of the system serves, such as one of Debian's.
class ServedFolder : public FileServer {
 public:
  /// Starts the program, which stays in the foreground, and waits until the folder is mounted.
  ServedFolder(const std::string& folder, const std::vector<std::string>& command);
};

}  // namespace e2e
