// A tiny file system in user space, whose server does what real ones do: to open its one file it
// opens another file, on another mount.
#ifndef PELOWATCHD_E2E_FUSE_SERVER_H
#define PELOWATCHD_E2E_FUSE_SERVER_H

#include <atomic>
#include <csignal>
#include <optional>
#include <string>

#include "process.h"

namespace e2e {

/// When the server opens its backing file.
enum class BackingUse {
  never,           // and the kernel may remember what walks have found
  opens,           // when its file is opened
  opens_and_walks  // also when a path in it is looked up, and when attributes are asked for
};

/// Serves a mount on `folder` in a process of its own, with the file "file" in it. When the server
/// ends, what waits for it fails.
class FuseServer {
 public:
  FuseServer(const std::string& folder, const std::string& backing_file, BackingUse use);
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
  void hang() const { server_->signal(SIGSTOP); }
  /// It ends, and what waits for it fails. May be called again, and without a mount.
  void end();

 private:
  std::string folder_;
  std::string failure_;
  int device_ = -1;
  std::atomic<bool>* opens_hang_;  // shared with the server
  std::optional<Process> server_;
};

/// Skips the test where there are no file systems in user space; with CI set it fails instead.
void require(const FuseServer& server);

}  // namespace e2e

#endif
