// One scan of a folder: its records, how far the walk goes, what it removes, and how a file is
// opened and closed.
#include "manual_scan.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "child_process.h"
#include "executor_fixture.h"
#include "logger.h"
#include "vse.h"
#include "wait.h"

namespace {

/// The engine's call that finds no memory the next time.
std::string no_memory_for;

template <typename Call>
Call engine(const char* call) {
  if (call == no_memory_for) {
    no_memory_for.clear();
    throw std::bad_alloc();
  }
  return reinterpret_cast<Call>(dlsym(RTLD_NEXT, call));
}

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

// These stand before the engine's in this program.

int vseInit(uintptr_t reserved, unsigned int flags, const char* database_directory,
            vse_event_callback callback, void* callback_context, VSEHANDLE* handle_out) {
  return engine<decltype(&vseInit)>("vseInit")(reserved, flags, database_directory, callback,
                                               callback_context, handle_out);
}

int vseExec(VSEHANDLE handle, unsigned int operation, uintptr_t argument_1, uintptr_t argument_2,
            uintptr_t argument_3) {
  return engine<decltype(&vseExec)>("vseExec")(handle, operation, argument_1, argument_2,
                                               argument_3);
}

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

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char exec_started[] = "exec  has started\n";
constexpr char file_started[] = "scanFile has started\n";

class FolderScan : public ExecutorTest {
 protected:
  void scan_share() { executor().exec(recursive_for(share_)); }
};

// Records

TEST_F(FolderScan, WritesItsRecordsInOrderAndStartAndStopAtAnyLevel) {
  const std::string file = put("file");
  config().MaxRecursion = 17;  // which the start record names, not the depth in force
  const std::string start = start_record(share_, 17);
  std::vector<std::string> expected;
  for (const auto& [handle, level] : {std::pair(1, 0), {2, 2}, {3, 3}}) {
    log_up_to(level);
    executor().exec(command_for(share_));
    const std::vector<std::string> trace = {exec_started,  start,
                                            file_started,  file_record(file, handle),
                                            file_finished, stop_record(share_, false, handle)};
    for (const int record : level == 0   ? std::vector<int>{1, 5}
                            : level == 2 ? std::vector<int>{1, 3, 5}
                                         : std::vector<int>{0, 1, 2, 3, 4, 5}) {
      expected.push_back(trace[static_cast<std::size_t>(record)]);
    }
  }
  EXPECT_EQ(logged(), expected);
  EXPECT_EQ(engine_calls("vseRelease"), 3) << "each has a handle of its own";
}

TEST_F(FolderScan, HandsItsOwnLimitsAndActionToTheEngine) {
  const std::string file = put("file");
  config().ScheduledMaxArchiveDepth = 9;
  config().MaxArchiveDepth = 3;
  config().DecompressLimit = 77;
  Command command = command_for(share_);
  command.action = ConfParser::DISINFECT;
  executor().exec(command);
  EXPECT_EQ(engine_calls("vseSet handle=1 property=4 index=0 size=4 value=1 "), 1);
  EXPECT_EQ(engine_calls("vseSet handle=1 property=30 index=0 size=4 value=9 "), 1);
  EXPECT_EQ(engine_calls("vseSet handle=1 property=7 index=6 size=4 value=77 "), 1);
  EXPECT_EQ(engine_calls("vseExec handle=1 operation=9 path=\"" + file + "\""), 1);
}

TEST_F(FolderScan, ThatFindsNoMemoryEndsAloneAndIsTriedAgain) {
  const std::string second = put("file");
  const std::string first = share_ + "//file";
  for (const char* call : {"vseInit", "vseExec"}) {
    executor().update({});  // which forgets the runs
    executor().update({command_for(share_), command_for(share_ + "/")});
    no_memory_for = call;
    const std::size_t before = scanned().size();
    executor().perform();
    EXPECT_EQ(scanned().size(), before + 1) << call;
    executor().perform();
    EXPECT_EQ(scanned().size(), before + 2) << call;
    EXPECT_EQ(engine_calls("vseRelease"), engine_calls("vseInit"));
  }
  EXPECT_THAT(scanned(), ElementsAre(first, first, second, second));
  EXPECT_EQ(logged_times("exec " + share_ + "/ was not scanned to its end\n"), 2);
}

using FolderScanDeathTest = FolderScan;

TEST_F(FolderScanDeathTest, ASecondHandleBeforeTheFirstIsGivenBackIsAMistake) {
  ASSERT_TRUE(executor().initialize());
  EXPECT_DEATH((void)executor().initialize(),
               "schedule_test: manual_scan:55: bool CommandExec::initialize\\(\\): "
               "Assertion `\\(VSEHANDLE\\)-1==m_scan_handle' failed\\.\n");
  executor().release();
  EXPECT_TRUE(executor().initialize());
  executor().release();
}

// Detections

TEST_F(FolderScan, CountsItsOwnDetectionsAndLeavesTheFiles) {
  int handle = 0;
  (void)put("clean");
  for (const auto& [content, detected] :
       {std::pair("!detect code=1\n", true), {"!code 3\n", false}, {"!code 2\n", true}}) {
    const std::string file = put("file", content);
    scan_share();
    EXPECT_EQ(logged().back(), stop_record(share_, detected, ++handle)) << content;
    EXPECT_TRUE(fs::exists(file)) << content;
  }
  EXPECT_EQ(scanned().size(), 6U);
}

TEST_F(FolderScan, RemovesTheNamesOfFilesThatTheEngineWantsRemovedAndNothingElse) {
  const char wanted[] = "!detect code=7\n";
  (void)put("bad", wanted);
  (void)put("sub/deep", wanted);
  (void)put("reported", "!detect code=1\n");
  (void)put("sub/clean");
  // A file in a folder behind a link, another one behind links, and one with two names.
  fs::create_directory(directory_.path("elsewhere"));
  (void)directory_.put("elsewhere/bad", wanted);
  fs::create_directory_symlink(directory_.path("elsewhere"), in_share("folder"));
  fs::create_symlink(directory_.put("target", wanted), directory_.path("middle"));
  fs::create_symlink(directory_.path("middle"), in_share("link"));
  fs::create_hard_link(directory_.put("other", wanted), in_share("second"));
  scan_share();
  EXPECT_EQ(logged().back(), stop_record(share_, true));
  EXPECT_EQ(scanned().size(), 7U);
  for (const char* gone :
       {"share/bad", "share/sub/deep", "elsewhere/bad", "share/link", "share/second"}) {
    EXPECT_FALSE(fs::exists(fs::symlink_status(directory_.path(gone)))) << gone;
  }
  for (const char* kept :
       {"share/reported", "share/sub/clean", "share/folder", "target", "middle", "other"}) {
    EXPECT_TRUE(fs::exists(directory_.path(kept))) << kept;
  }
}

TEST_F(FolderScan, RemovesTheFileInItsFolderWhereverThatIsByNow) {
  const std::string file = put("sub/file", "!wait " + gate() + "\n!detect code=7\n");
  std::thread scan([this] { scan_share(); });
  EXPECT_TRUE(eventually([&] { return scan_has_begun(file); }));
  fs::rename(in_share("sub"), directory_.path("moved"));
  (void)put("sub/file", "innocent");
  open_gate();
  scan.join();
  EXPECT_EQ(logged().back(), stop_record(share_, true));
  EXPECT_FALSE(fs::exists(directory_.path("moved/file")));
  EXPECT_EQ(directory_.read("share/sub/file"), "innocent");
}

// How far the walk goes

struct Walk {
  const char* folder;
  bool recursive;
  int depth;
  std::vector<std::string> files;
};

TEST_F(FolderScan, GoesDownToTheScanDepthThroughLinksToo) {
  for (const char* name : {"0", "a/1", "a/b/2", "a/b/c/3"}) {
    (void)put(name);
  }
  fs::create_directory(directory_.path("loop"));
  (void)directory_.put("loop/file", "");
  fs::create_directory_symlink(directory_.path("loop"), directory_.path("loop/again"));
  fs::create_directory_symlink(share_, directory_.path("link"));
  for (const Walk& walk :
       {Walk{"share", false, 5, {"share/0"}},
        {"share", true, 2, {"share/0", "share/a/1", "share/a/b/2"}},
        {"share", true, 0, {"share/0"}},
        {"share", true, -1, {}},
        {"share/a/", false, 5, {"share/a//1"}},
        {"link", true, 1, {"link/0", "link/a/1"}},
        {"loop", false, 2, {"loop/file"}},
        {"loop", true, 2, {"loop/again/again/file", "loop/again/file", "loop/file"}}}) {
    const std::size_t before = scanned().size();
    const std::size_t records = logged().size();
    executor().setScanDepth(walk.depth);
    Command command = command_for(directory_.path(walk.folder));
    command.recursive = walk.recursive;
    executor().exec(command);
    EXPECT_EQ(logged().size() - records, 3 + 3 * walk.files.size()) << "the limit is silent";
    EXPECT_EQ(scanned().size() - before, walk.files.size()) << walk.folder << walk.depth;
    for (const std::string& file : walk.files) {
      EXPECT_THAT(scanned(), Contains(directory_.path(file)));
    }
  }
}

// What cannot be scanned

TEST_F(FolderScan, AFolderThatIsNoneIsReported) {
  const std::string file = put("file", "!detect code=7\n");
  int handle = 0;
  for (const auto& [folder, report] : {std::pair(directory_.path("missing"), "unable to stat:"),
                                       {std::string(), "unable to stat:"},
                                       {file, "not a directory:"}}) {
    executor().exec(recursive_for(folder));
    EXPECT_EQ(logged().back(), stop_record(folder, false, ++handle));
    EXPECT_THAT(*(logged().end() - 2),
                StartsWith("handleDir handleDir:" + (report + folder) + " "));
  }
  EXPECT_THAT(logged()[2], EndsWith(" No such file or directory\n"));
  EXPECT_EQ(logged().size(), 12U);
  EXPECT_THAT(scanned(), IsEmpty());
}

/// As a user who may not read everything: root becomes nobody for the scan.
class UnprivilegedScan : public FolderScan {
 protected:
  void scan_as_nobody() {
    fs::permissions(directory_.path(), fs::perms(0755));
    (void)AVSDK_scanner::getAVSDK_scanner();
    Logger::open();
    const bool root = geteuid() == 0;
    ASSERT_TRUE(!root || seteuid(65534) == 0);
    scan_share();
    ASSERT_TRUE(!root || seteuid(0) == 0);
  }
};

TEST_F(UnprivilegedScan, WhatCannotBeOpenedIsReportedAndNoDetection) {
  const std::string file = put("file", "!detect code=1\n");
  const std::string readable = put("readable");
  (void)put("sub/file");
  fs::permissions(file, fs::perms::none);
  fs::permissions(in_share("sub"), fs::perms::none);
  scan_as_nobody();
  EXPECT_EQ(logged_times("scanFile can't open file " + file + "\n"), 1);
  EXPECT_EQ(logged_times("handleDir unable to open:" + in_share("sub") + "\n"), 1);
  EXPECT_EQ(logged_times(file_started), 2);
  EXPECT_EQ(logged_times(file_finished), 1);
  EXPECT_THAT(scanned(), ElementsAre(readable));
  EXPECT_EQ(logged().back(), stop_record(share_, false));
  fs::permissions(share_, fs::perms::none);
  scan_as_nobody();
  EXPECT_EQ(logged_times("handleDir unable to open:" + share_ + "\n"), 1);
  EXPECT_EQ(logged().back(), stop_record(share_, false, 2));
  fs::permissions(share_, fs::perms(0755));
}

// One file

TEST_F(FolderScan, EachFileIsClosedOnceAndACloseThatFailsIsATraceAndNotTriedAgain) {
  std::size_t scans = 0;
  for (const auto& [content, error] :
       {std::pair("", 0), {"!detect code=7\n", 0}, {"", EIO}, {"", EINTR}, {"", ENOSPC}}) {
    const std::string file = put("file", content);
    // Removed files are not found by their names any more.
    watched_close = {.path = file + (*content != '\0' ? " (deleted)" : ""), .error = error};
    scan_share();
    EXPECT_EQ(watched_close.closes, 1) << content << error;
    EXPECT_EQ(watched_close.strays, 0) << content << error;
    EXPECT_EQ(logged()[logged().size() - 2],
              error == 0 ? file_finished : "scanFile unable to close:" + file + "\n");
    EXPECT_EQ(scanned().size(), ++scans);
  }
  watched_close = {.path = put("file"), .error = EIO};
  log_up_to(2);
  const std::size_t before = logged().size();
  scan_share();
  EXPECT_EQ(logged().size(), before + 3);
  watched_close = {};
}

TEST_F(FolderScan, APipeInPlaceOfAFileIsNotOpened) {
  const std::string pipe = in_share("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0644), 0);
  executor().scanFile(pipe, command_for(share_));  // an open would wait for a writer
  EXPECT_EQ(logged_times("scanFile can't open file " + pipe + "\n"), 1);
  EXPECT_EQ(logged_times(file_finished), 0);
  EXPECT_THAT(scanned(), IsEmpty());
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

TEST_F(FolderScan, AFileUnderALeaseIsScannedOnceItsHolderGivesItUp) {
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
