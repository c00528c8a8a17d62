// Mounts of a test's own, for what needs root and the real kernel.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

/// A mount namespace of the test process's own, in which /run and /dev/shm are empty: nothing that
/// is mounted, marked or shared there reaches the machine. Without root the tests are skipped with
/// the reason; where CI is set they fail instead.
class PrivateMountsTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = enter();
    if (reason.empty()) {
      prepare();
      return;
    }
    if (std::getenv("CI") != nullptr) {
      FAIL() << reason;
    }
    GTEST_SKIP() << reason;  // on the machine's own mounts the test would do harm
  }

  /// Makes what the tests need, in the namespace.
  virtual void prepare() {}

  /// Mounts an empty file system. @return its directory, without symbolic links
  static std::string mount_tmpfs(const std::string& name) {
    std::string directory = "/run/" + name;
    EXPECT_EQ(mkdir(directory.c_str(), 0755), 0) << std::strerror(errno);
    EXPECT_EQ(mount("tmpfs", directory.c_str(), "tmpfs", 0, nullptr), 0) << std::strerror(errno);
    return directory;
  }

 private:
  static std::string enter() {
    if (geteuid() != 0) {
      return "needs root";
    }
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0 ||
        mount("tmpfs", "/dev/shm", "tmpfs", 0, nullptr) != 0) {
      return std::string("needs mounts of its own: ") + std::strerror(errno);
    }
    return "";
  }
};
