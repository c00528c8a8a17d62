// SPDX-License-Identifier: GPL-2.0-only
// An update that is killed: whatever its last system call was, the directory is good.
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "engine_fixture.h"

namespace engine_test {
namespace {

/// A forked copy of this process that runs one function, system call by system call.
class SteppedProcess {
 public:
  explicit SteppedProcess(const std::function<int()>& body) {
    pid_ = fork();
    if (pid_ == 0) {
      (void)ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      (void)raise(SIGSTOP);
      _exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    EXPECT_TRUE(WIFSTOPPED(status)) << status;
    EXPECT_EQ(ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD),
              0);
  }
  ~SteppedProcess() {
    if (running_) {
      (void)kill(pid_, SIGKILL);
      (void)waitpid(pid_, nullptr, 0);
    }
  }
  SteppedProcess(const SteppedProcess&) = delete;
  SteppedProcess& operator=(const SteppedProcess&) = delete;

  /// Runs on until right before the next system call.
  /// @return its number; -1 when the process has ended.
  long next_call() {
    for (;;) {
      int status = 0;
      if (ptrace(PTRACE_SYSCALL, pid_, nullptr, nullptr) != 0 ||
          waitpid(pid_, &status, 0) != pid_ || !WIFSTOPPED(status)) {
        running_ = false;
        exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return -1;
      }
      __ptrace_syscall_info info{};
      (void)ptrace(PTRACE_GET_SYSCALL_INFO, pid_, sizeof info, &info);
      if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
        return static_cast<long>(info.entry.nr);
      }
    }
  }

  /// The exit status of a process that has ended by itself.
  int exit_status() const { return exit_status_; }

 private:
  pid_t pid_ = -1;
  bool running_ = true;
  int exit_status_ = -1;
};

class ClamavCrash : public ClamavEngine {
 protected:
  ClamavCrash() {
    first_ = stage("antivir.def", signature("New.One", "first of new"));
    second_ = stage("aivsecon.def", signature("New.Two", "second of new"));
  }

  /// The directory with old definitions; or with those of an update whose second file has not
  /// reached its place.
  void reset_directory(bool interrupted) {
    fs::remove_all(database_);
    fs::create_directories(database_ / ".pelo-update");
    write_file(database_ / "test.ndb", signature("Test-File", standard_test_file()));
    write_file(database_ / "antivir.def", signature("One", "first of old"));
    write_file(database_ / "aivsecon.def", signature("Two", "second of older"));
    write_file(database_ / ".pelo-update" / "aivsecon.def", signature("Two", "second of old"));
    if (!interrupted) {
      fs::rename(database_ / ".pelo-update" / "aivsecon.def", database_ / "aivsecon.def");
      fs::remove(database_ / ".pelo-update");
    }
    start();
  }

  /// The name of the definitions in force; none when they do not load.
  std::string in_force() {
    const VSEHANDLE handle = make_handle();
    EXPECT_EQ(scan_path(handle, bad_), VSE_SCAN_DETECTED);
    std::string found;
    for (const std::string name : {"old", "new"}) {
      const int one = scan_path(handle, file("f", "first of " + name));
      const int two = scan_path(handle, file("f", "second of " + name));
      found += one == VSE_SCAN_DETECTED && two == VSE_SCAN_DETECTED ? name : "";
      found += one != two ? " a mixture of " + name : "";
    }
    return found;
  }

  std::function<int()> updating() {
    return [this, handle = make_handle()] { return update(handle, first_, second_); };
  }

  /// Kills an update before its call number `step`.
  /// @return false when the update has ended before.
  bool kill_update_at(int step) {
    SteppedProcess process(updating());
    for (int i = 0; i <= step; ++i) {
      if (process.next_call() == -1) {
        EXPECT_EQ(process.exit_status(), VSE_OK);
        return false;
      }
    }
    return true;
  }

  /// Kills updates, each a step later than the last one.
  void kill_at_every_step(bool after_an_interrupted_one) {
    int kept = 0;
    int renewed = 0;
    bool killed = true;
    for (int step = 0; killed && !HasFailure(); step += stride) {
      reset_directory(after_an_interrupted_one);
      killed = kill_update_at(step);
      start();
      const std::string now = in_force();
      EXPECT_THAT(now, testing::AnyOf("old", "new")) << "killed at step " << step;
      EXPECT_TRUE(killed || now == "new");
      ++(now == "old" ? kept : renewed);
      EXPECT_EQ(update(make_handle(), first_, second_), VSE_OK) << "after a kill at " << step;
      EXPECT_THAT(content_of(database_), testing::SizeIs(3)) << "killed at step " << step;
    }
    EXPECT_GT(kept, 50 / stride);
    EXPECT_GT(renewed, 10 / stride);
  }

  // The instrumented programs make many calls of their own, and each takes long.
  static constexpr int stride = PELO_SLOW ? 7 : 1;

  fs::path first_, second_;
};

TEST_F(ClamavCrash, UpdateKilledAtAnyStepLeavesAllOldOrAllNewDefinitions) {
  kill_at_every_step(false);
}

TEST_F(ClamavCrash, UpdateKilledAtAnyStepAfterAnInterruptedOne) {
  kill_at_every_step(true);
}

// labels: essential
TEST_F(ClamavCrash, FilesAreOnTheDiskBeforeTheyAreNamed) {
  SteppedProcess process(updating());
  std::string order;
  for (long call = process.next_call(); call != -1; call = process.next_call()) {
    const bool renames = call == SYS_renameat || call == SYS_renameat2;
    order += call == SYS_fsync ? "s" : renames ? "R" : "";
  }
  EXPECT_EQ(process.exit_status(), VSE_OK);
  // Two files, their folder; the commit, the directory; two moves, the directory.
  EXPECT_EQ(order, "sssRsRRs");
  start();
  EXPECT_EQ(in_force(), "new");
}

}  // namespace
}  // namespace engine_test
