// The example program against the real kernel.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>

#include "child_process.h"
#include "fsfilter.h"
#include "private_mounts.h"
#include "run_command_fixture.h"

namespace {

class DenySuffixTest : public PrivateMountsTest {
 protected:
  void prepare() override {
    watched_ = mount_tmpfs("watched");
    for (const char* name : {"/a.exe", "/a.txt"}) {
      (void)close(open((watched_ + name).c_str(), O_CREAT | O_WRONLY, 0644));
    }
  }

  /// Starts the program against files whose name ends in ".exe".
  void start(const std::string& mount_point) {
    program_.emplace([&] {
      (void)execl(PELO_DENY_SUFFIX, PELO_DENY_SUFFIX, ".exe", mount_point.c_str(), nullptr);
      return 127;
    });
  }

  /// @return 0, or the open's errno
  int try_to_open(const std::string& name) const {
    const int file = open((watched_ + name).c_str(), O_RDONLY | O_CLOEXEC);
    const int error = errno;
    (void)close(file);
    return file < 0 ? error : 0;
  }

  /// Whether a signal ends it, and nothing is denied any more.
  void expect_clean_end(int signal_number) {
    (void)kill(program_->pid(), signal_number);
    EXPECT_EQ(program_->wait(), 0);
    EXPECT_EQ(try_to_open("/a.exe"), 0);
    fsfilter_handle_t area = nullptr;
    EXPECT_EQ(open_filter(&area), -1) << "the status area is left behind";
  }

  std::string watched_;
  std::optional<ChildProcess> program_;
};

TEST_F(DenySuffixTest, DeniesFilesByTheirSuffixUntilTerminatedOrInterrupted) {
  for (const int signal_number : {SIGTERM, SIGINT}) {
    start(watched_);
    const auto status = std::make_unique<fsfilter_status_struct>();
    ASSERT_TRUE(eventually([&] {
      return fsfilter_read_status(status.get()) == 0 && status->mounts == watched_ + "\n";
    }));
    EXPECT_EQ(try_to_open("/a.exe"), EPERM);
    EXPECT_EQ(try_to_open("/a.txt"), 0);
    expect_clean_end(signal_number);
  }
}

/// A path to a directory that takes the kernel milliseconds to walk: links to links, each by way of
/// many detours.
std::string long_way_to(const std::string& directory) {
  std::string way = directory;
  for (int i = 0; i < 39; ++i) {
    std::string target;
    while (target.size() + 2 + way.size() < 4090) {
      target += "./";
    }
    target = "/run/" + target.substr(0, target.size() - 6) + "../" + way.substr(1);
    way = "/run/link" + std::to_string(i);
    EXPECT_EQ(symlink(target.c_str(), way.c_str()), 0);
  }
  return way;
}

TEST_F(DenySuffixTest, EndsAlthoughTheSignalComesBeforeTheLoop) {
  start(long_way_to(watched_));
  const auto status = std::make_unique<fsfilter_status_struct>();
  // Asked without a pause: the area is there before the mount point is looked for.
  while (fsfilter_read_status(status.get()) != 0 && !program_->ended()) {
  }
  expect_clean_end(SIGTERM);
}

TEST_F(DenySuffixTest, SaysWhyItCannotWatch) {
  const CommandResult result = run_command(std::string(PELO_DENY_SUFFIX) + " .exe /run/missing");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "deny_suffix: No such file or directory\n");
}

}  // namespace
