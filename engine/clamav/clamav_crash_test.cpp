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

/// Runs a function in a forked copy of this process, and kills that right before its system call
/// number `last`, counted from 1.
/// @return the numbers of the calls; fewer than that when the function has returned VSE_OK before.
std::vector<long> calls_until(std::size_t last, const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    (void)ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    (void)raise(SIGSTOP);
    _exit(body());
  }
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFSTOPPED(status)) << status;
  EXPECT_EQ(ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD), 0);
  std::vector<long> calls;
  while (calls.size() < last) {
    if (ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr) != 0 || waitpid(pid, &status, 0) != pid ||
        !WIFSTOPPED(status)) {
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == VSE_OK) << status;
      return calls;
    }
    __ptrace_syscall_info info{};
    (void)ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      calls.push_back(static_cast<long>(info.entry.nr));
    }
  }
  (void)kill(pid, SIGKILL);
  (void)waitpid(pid, nullptr, 0);
  return calls;
}

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

  /// Kills updates, each a step later than the last one.
  void kill_at_every_step(bool after_an_interrupted_one) {
    std::size_t kept = 0;
    std::size_t renewed = 0;
    bool killed = true;
    for (std::size_t step = 1; killed && !HasFailure(); step += stride) {
      reset_directory(after_an_interrupted_one);
      killed = calls_until(step, updating()).size() == step;
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
  static constexpr std::size_t stride = PELO_SLOW ? 7 : 1;

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
  std::string order;
  for (const long call : calls_until(SIZE_MAX, updating())) {
    const bool renames = call == SYS_renameat || call == SYS_renameat2;
    order += call == SYS_fsync ? "s" : renames ? "R" : "";
  }
  // Two files, their folder; the commit, the directory; two moves, the directory.
  EXPECT_EQ(order, "sssRsRRs");
  start();
  EXPECT_EQ(in_force(), "new");
}

}  // namespace
}  // namespace engine_test
