// One file of a folder scan: how it is opened, and that it is closed once.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

#include "child_process.h"
#include "executor_fixture.h"
#include "wait.h"

namespace {

/// What the stand-in for close() does with one file, and what it has seen. Descriptors that only
/// name a place are not meant.
struct WatchedClose {
  std::string path;  ///< empty: all closes are the system's
  int error = 0;     ///< what its close fails with, if not 0; the descriptor is gone all the same
  int closes = 0;
  int strays = 0;  ///< closes of descriptors that were not open
};
WatchedClose watched_close;

bool is_watched(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  std::error_code error;
  const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
  return flags >= 0 && (flags & O_PATH) == 0 && !error && target == watched_close.path;
}

}  // namespace

// It stands before the C library's in this program; libraries it loads still call that one.
int close(int fd) {
  const bool watching = !watched_close.path.empty();
  const bool meant = watching && is_watched(fd);
  if (watching && !meant && fcntl(fd, F_GETFD) < 0) {
    ++watched_close.strays;
  }
  const auto result = static_cast<int>(syscall(SYS_close, fd));
  if (!meant) {
    return result;
  }
  ++watched_close.closes;
  errno = watched_close.error;
  return watched_close.error == 0 ? result : -1;
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FileScan : public ExecutorTest {
 protected:
  void scan_share() { executor().exec(command_for(share_)); }
  std::string close_failed(const std::string& file) const {
    return "scanFile unable to close:" + file + "\n";
  }
};

/// Scans of one file whose close is watched.
class ClosedScan : public FileScan {
 protected:
  ~ClosedScan() override { watched_close = {}; }
  std::string put_watched(const std::string& content = "", int error = 0) {
    const std::string file = put("file", content);
    watched_close = {};
    watched_close.path = file;
    watched_close.error = error;
    return file;
  }
};

TEST_F(ClosedScan, EachFileIsClosedOnce) {
  for (const char* content : {"", "!detect code=1\n", "!code 5\n", "!detect code=7\n"}) {
    // Removed files are not found by their names any more.
    const bool removed = std::string(content).find("code=7") != std::string::npos;
    const std::string file = put_watched(content);
    watched_close.path += removed ? " (deleted)" : "";
    scan_share();
    EXPECT_EQ(watched_close.closes, 1) << content;
    EXPECT_EQ(watched_close.strays, 0) << content;
    EXPECT_EQ(logged_times(close_failed(file)), 0) << content;
  }
  EXPECT_EQ(logged_times(file_finished), 4);
}

TEST_F(ClosedScan, ACloseThatFailsIsReportedAndNotTriedAgain) {
  for (const int error : {EIO, EINTR, ENOSPC}) {
    const std::string file = put_watched("", error);
    const long reported = logged_times(close_failed(file));
    const auto before = logged().size();
    scan_share();
    EXPECT_EQ(watched_close.closes, 1) << error;
    EXPECT_EQ(watched_close.strays, 0) << error;
    EXPECT_EQ(logged_times(close_failed(file)), reported + 1) << error;
    EXPECT_EQ(logged().size(), before + 6U) << "the scan goes on after it";
  }
  EXPECT_EQ(logged_times(file_finished), 0);
  EXPECT_EQ(scanned().size(), 3U);
}

TEST_F(ClosedScan, AReportOfAFailedCloseIsATrace) {
  const std::string file = put_watched("", EIO);
  log_up_to(2);
  scan_share();
  EXPECT_EQ(watched_close.closes, 1);
  EXPECT_EQ(logged_times(close_failed(file)), 0);
}

// What changes while the walk is on its way

TEST_F(FileScan, APipeInPlaceOfAFileIsNotOpened) {
  const std::string pipe = in_share("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0644), 0);
  std::atomic<bool> left{false};
  std::thread scan([&] {
    executor().scanFile(pipe, command_for(share_));
    left = true;
  });
  const bool in_time = eventually([&] { return left.load(); });
  EXPECT_TRUE(in_time) << "it waits for somebody to write into the pipe";
  const int writer = in_time ? -1 : open(pipe.c_str(), O_RDWR | O_CLOEXEC);
  scan.join();
  EXPECT_EQ(logged_times("scanFile can't open file " + pipe + "\n"), 1);
  EXPECT_EQ(logged_times(file_finished), 0);
  EXPECT_THAT(scanned(), IsEmpty());
  (void)close(writer);
}

// In another process: takes a lease that bars every open, and gives it up when somebody is waiting
// for that.
int hold_lease(const std::string& file, Gate& held) {
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, SIGIO);
  (void)sigprocmask(SIG_BLOCK, &wanted, nullptr);
  const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
  const int lease = fcntl(fd, F_SETLEASE, F_WRLCK);
  held.open();
  const timespec bound{generous_bound.count(), 0};
  if (lease != 0 || sigtimedwait(&wanted, nullptr, &bound) != SIGIO) {
    return 1;
  }
  return fcntl(fd, F_SETLEASE, F_UNLCK) == 0 ? 0 : 2;
}

TEST_F(FileScan, AFileUnderALeaseIsScannedOnceItsHolderGivesItUp) {
  const std::string file = put("file", "!detect code=1\n");
  Gate held;
  ChildProcess holder([&] { return hold_lease(file, held); });
  held.wait();
  scan_share();
  EXPECT_EQ(holder.wait(), 0);
  EXPECT_THAT(scanned(), ElementsAre(file));
  EXPECT_EQ(logged().back(), stop_record(share_, true));
}

}  // namespace
