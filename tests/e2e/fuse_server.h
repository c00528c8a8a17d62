// A tiny file system in user space, whose server does what real ones do: to open its one file it
// opens another file, on another mount.
#ifndef PELOWATCHD_E2E_FUSE_SERVER_H
#define PELOWATCHD_E2E_FUSE_SERVER_H

#include <atomic>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "process.h"

namespace e2e {

/// When the server opens its backing file.
enum class BackingUse {
  never,           // and the kernel may remember what walks have found
  opens,           // when its file is opened
  opens_and_walks  // also when a path in it is looked up, and when attributes are asked for
};

/// Stops a process, and waits until each of its threads has stopped: until then one may still take
/// a request, for which who waits for the answer cannot be killed.
void stop_wholly(const Process& process);

/// Serves a mount on `folder` in a process of its own, with the file "file" in it. When the server
/// ends, what waits for it fails.
class FuseServer {
 public:
  /// @param user whose mount it is; only root's is open to other users, root among them
  FuseServer(const std::string& folder, const std::string& backing_file, BackingUse use,
             uid_t user = 0);
  ~FuseServer();
  FuseServer(const FuseServer&) = delete;
  FuseServer& operator=(const FuseServer&) = delete;

  /// Why there is no mount; empty when there is one.
  const std::string& failure() const { return failure_; }
  std::string file() const { return folder_ + "/file"; }

  /// From now on it answers no open of its file; everything else it answers as before. Not even
  /// SIGKILL ends who waits for such an answer.
  void hang_opens() { *opens_hang_ = true; }
  /// From now on it answers nothing at all.
  void hang() const { stop_wholly(*server_); }
  void go_on() const { server_->signal(SIGCONT); }
  /// It ends, and what waits for it fails. May be called again, and without a mount.
  void end();

 private:
  std::string folder_;
  std::string failure_;
  int device_ = -1;
  std::atomic<bool>* opens_hang_;  // shared with the server
  std::optional<Process> server_;
};

/// A folder that a program of the system serves, such as one of Debian's, in a process of its own.
class ServedFolder {
 public:
  /// Starts the program, which stays in the foreground, and waits until the folder is mounted.
  ServedFolder(const std::string& folder, const std::vector<std::string>& command);
  ~ServedFolder();
  ServedFolder(const ServedFolder&) = delete;
  ServedFolder& operator=(const ServedFolder&) = delete;

  /// Why there is no mount; empty when there is one.
  const std::string& failure() const { return failure_; }

  /// From now on it answers nothing at all.
  void hang() const { stop_wholly(server_); }
  void go_on() const { server_.signal(SIGCONT); }

  /// It ends, what waits for it fails, and the mount goes. May be called again.
  void end();

 private:
  std::string folder_;
  std::string failure_;
  Process server_;
};

/// Skips the test where there are no file systems in user space, or not the program; with CI set it
/// fails instead, but for programs that an emulated machine does not have.
void require(const FuseServer& server);
void require(const ServedFolder& folder);

}  // namespace e2e

#endif
