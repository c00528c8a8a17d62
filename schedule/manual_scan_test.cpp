// One scan of a folder: its records, how far the walk goes, what it passes over and what it
// removes.
#include "manual_scan.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "detached_thread.h"
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

namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char exec_started[] = "exec  has started\n";
constexpr char file_started[] = "scanFile has started\n";

class FolderScan : public ExecutorTest {
 protected:
  void scan_share() { executor().exec(recursive_for(share_)); }
  static void scan_share_of(void* self) { static_cast<FolderScan*>(self)->scan_share(); }

  /// Whether the last scan has found something, by its record.
  bool detected() const {
    const std::vector<std::string> all = logged();
    return !all.empty() && all.back() == stop_record(share_, true);
  }

  long open_descriptors() const {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  }
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
}

TEST_F(FolderScan, EachHasAHandleOfItsOwnAndGivesItBack) {
  executor().exec(command_for(share_));
  executor().exec(command_for(share_));
  EXPECT_EQ(logged_times(start_record(share_)), 2);
  EXPECT_EQ(logged_times(stop_record(share_, false, 1)), 1);
  EXPECT_EQ(logged_times(stop_record(share_, false, 2)), 1);
  EXPECT_EQ(count_calls("vseRelease handle=1 result=0"), 1);
  EXPECT_EQ(calls().back(), "vseRelease handle=2 result=0");
}

TEST_F(FolderScan, AHandleWithItsHighestBitSetIsANegativeSession) {
  if (sizeof(void*) == 8) {
    script("handle-base 0xfffffffffffffff0\n");
  } else {
    script("handle-base 0xfffffff0\n");
  }
  executor().exec(command_for(share_));
  EXPECT_EQ(logged().back(),
            "Scan completed: Session ID: -15\nPath: \"" + share_ + "\"\nDetections: \"no\"\n");
}

TEST_F(FolderScan, HandsItsOwnLimitsAndActionToTheEngine) {
  const std::string file = put("file");
  config().ScheduledMaxArchiveDepth = 9;
  config().MaxArchiveDepth = 3;
  config().DecompressLimit = 77;
  Command command = command_for(share_);
  command.action = ConfParser::DISINFECT;
  executor().exec(command);
  EXPECT_EQ(count_calls("vseSet handle=1 property=4 index=0 size=4 value=1 "), 1);
  EXPECT_EQ(count_calls("vseSet handle=1 property=30 index=0 size=4 value=9 "), 1);
  EXPECT_EQ(count_calls("vseSet handle=1 property=7 index=6 size=4 value=77 "), 1);
  EXPECT_EQ(count_calls("vseExec handle=1 operation=9 path=\"" + file + "\""), 1);
}

// Without an engine

struct Failure {
  const char* script;
  long releases;  ///< of a handle that takes no settings
};

class WithoutEngine : public FolderScan, public testing::WithParamInterface<Failure> {};

TEST_P(WithoutEngine, ThereIsTheStartRecordOnly) {
  (void)put("file");
  script(GetParam().script);
  scan_share();
  EXPECT_EQ(logged_times(exec_started), 1);
  EXPECT_EQ(logged_times(start_record(share_)), 1);
  EXPECT_EQ(logged().back(), no_engine);
  EXPECT_THAT(scanned(), IsEmpty());
  EXPECT_EQ(count_calls("vseRelease"), GetParam().releases);
}

INSTANTIATE_TEST_SUITE_P(Failing, WithoutEngine,
                         testing::Values(Failure{"fail vseInit\n", 0},
                                         Failure{"fail vseSet:9\n", 1},
                                         Failure{"fail vseGlobalInit\n", 0}));

TEST_F(FolderScan, TheOneAfterAFailedOneRuns) {
  const std::string file = put("file");
  script("fail vseInit 1\n");
  scan_share();
  scan_share();
  EXPECT_THAT(scanned(), ElementsAre(file));
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
    EXPECT_EQ(count_calls("vseRelease"), count_calls("vseInit"));
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

struct Finding {
  const char* content;
  bool detected;
};

TEST_F(FolderScan, CountsItsOwnDetectionsAndLeavesTheFiles) {
  int handle = 0;
  for (const Finding& one :
       {Finding{"!detect code=1\n", true}, Finding{"!code 3\n", false}, Finding{"!code 2\n", true},
        Finding{"!code 4\n", false}, Finding{"!code 5\n", false}, Finding{"!code 6\n", false},
        Finding{"!code 8\n", false}, Finding{"!code -1\n", false}, Finding{"!code 99\n", false}}) {
    const std::string file = put("file", one.content);
    (void)put("clean");
    scan_share();
    EXPECT_EQ(logged().back(), stop_record(share_, one.detected, ++handle)) << one.content;
    EXPECT_TRUE(fs::exists(file)) << one.content;
  }
  EXPECT_EQ(scanned().size(), 2U * 9U);
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
  EXPECT_TRUE(detected());
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

/// A scan on a thread of its own, held in its only file, which the engine wants removed.
class HeldScan : public FolderScan {
 protected:
  HeldScan() {
    (void)put("sub/file", "!wait " + gate() + "\n!detect code=7\n");
    scan_ = std::thread([this] { scan_share(); });
    EXPECT_TRUE(eventually([this] { return scan_has_begun(in_share("sub/file")); }));
  }
  void finish() {
    open_gate();
    scan_.join();
    EXPECT_TRUE(detected());
  }

 private:
  std::thread scan_;
};

TEST_F(HeldScan, RemovesTheFileOfItsNameAfterwards) {
  finish();
  EXPECT_FALSE(fs::exists(in_share("sub/file")));
}

TEST_F(HeldScan, NeverRemovesAFileThatTookTheName) {
  fs::rename(in_share("sub/file"), in_share("sub/moved"));
  (void)put("sub/file", "innocent");
  finish();
  EXPECT_EQ(directory_.read("share/sub/file"), "innocent");
  EXPECT_TRUE(fs::exists(in_share("sub/moved")));
}

TEST_F(HeldScan, NeverRemovesALinkToAnotherFileThatTookTheName) {
  fs::rename(in_share("sub/file"), directory_.path("moved"));
  fs::create_symlink(directory_.put("innocent", ""), in_share("sub/file"));
  finish();
  EXPECT_TRUE(fs::is_symlink(in_share("sub/file")));
  EXPECT_TRUE(fs::exists(directory_.path("innocent")));
  EXPECT_TRUE(fs::exists(directory_.path("moved")));
}

TEST_F(HeldScan, RemovesTheFileInItsFolderWhereverThatIsByNow) {
  fs::rename(in_share("sub"), directory_.path("moved"));
  (void)put("sub/file", "innocent");
  finish();
  EXPECT_FALSE(fs::exists(directory_.path("moved/file")));
  EXPECT_EQ(directory_.read("share/sub/file"), "innocent");
}

TEST_F(HeldScan, GetsOverAFileThatIsGone) {
  fs::remove(in_share("sub/file"));
  finish();
}

TEST_F(HeldScan, ADescriptorThatSomebodyClosedIsReportedAndLeftAlone) {
  const std::string record = directory_.read("engine-calls");
  const std::size_t begin = record.find(" fd=", record.find("vseExec-begin")) + 4;
  // Past ThreadSanitizer, which rightly calls a foreign close a race.
  ASSERT_EQ(syscall(SYS_close, std::stoi(record.substr(begin))), 0);
  finish();
  EXPECT_EQ(logged_times("scanFile unable to close:" + in_share("sub/file") + "\n"), 1);
  EXPECT_EQ(logged_times(file_finished), 0);
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

TEST_F(FolderScan, NamesOfAnyKindAreScanned) {
  (void)put(" %s%n\\'\xff");
  (void)put(std::string(255, 'n'));
  (void)put("...");
  scan_share();
  EXPECT_THAT(scanned(), ElementsAre(in_share(" %s%n\\x5c'\\xff"), in_share("..."),
                                     in_share(std::string(255, 'n'))));
}

TEST_F(FolderScan, ManyFilesAndFoldersLeaveNoDescriptorOpen) {
  for (int i = 0; i < 300; ++i) {
    (void)put("sub" + std::to_string(i) + "/file", i % 3 == 0 ? "!detect code=7\n" : "");
  }
  (void)AVSDK_scanner::getAVSDK_scanner();
  (void)Logger::start();
  const long before = open_descriptors();
  scan_share();
  EXPECT_EQ(scanned().size(), 300U);
  EXPECT_EQ(open_descriptors(), before);
}

// What cannot be scanned

TEST_F(FolderScan, AFolderThatDoesNotExistIsReported) {
  int handle = 0;
  for (const std::string& folder : {directory_.path("missing"), std::string()}) {
    executor().exec(recursive_for(folder));
    EXPECT_EQ(logged_times("handleDir handleDir:unable to stat:" + folder +
                           " No such file or directory\n"),
              1);
    EXPECT_EQ(logged().back(), stop_record(folder, false, ++handle));
  }
  EXPECT_EQ(logged().size(), 8U);
}

TEST_F(FolderScan, AFolderThatIsAFileIsReported) {
  const std::string file = put("file", "!detect code=7\n");
  executor().exec(recursive_for(file));
  ASSERT_EQ(logged().size(), 4U);
  EXPECT_EQ(logged()[2].find("handleDir handleDir:not a directory:" + file + " "), 0U);
  EXPECT_THAT(logged()[2], MatchesRegex(".* [A-Z][^\n]+\n")) << "some text of the system";
  EXPECT_EQ(logged().back(), stop_record(file, false));
  EXPECT_THAT(scanned(), IsEmpty());
}

TEST_F(FolderScan, LinksToNowhereAreReportedAndPipesSocketsAndDevicesPassedOverSilently) {
  const std::string file = put("file");
  fs::create_symlink("nothing", in_share("dangling"));
  fs::create_symlink("round", in_share("round"));
  ASSERT_EQ(mkfifo(in_share("pipe").c_str(), 0644), 0);
  fs::create_symlink("/dev/null", in_share("device"));
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(in_share("socket").copy(address.sun_path, sizeof address.sun_path - 1),
            sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  scan_share();
  EXPECT_THAT(scanned(), ElementsAre(file));
  EXPECT_EQ(logged_times("handleDir unable to stat:" + in_share("dangling") + "\n"), 1);
  EXPECT_EQ(logged_times("handleDir unable to stat:" + in_share("round") + "\n"), 1);
  EXPECT_EQ(logged().size(), 8U);
  (void)close(listener);
}

/// As a user who may not read everything: root becomes nobody for the scan.
class UnprivilegedScan : public FolderScan {
 protected:
  void scan_as_nobody() {
    fs::permissions(directory_.path(), fs::perms(0755));
    (void)AVSDK_scanner::getAVSDK_scanner();
    (void)Logger::start();
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

// Being stopped

TEST_F(FolderScan, AStopEndsItBetweenTwoFilesAndGivesTheHandleBack) {
  for (int i = 0; i < 20; ++i) {
    (void)put("sub/file" + std::to_string(i), "!wait " + gate() + "\n");
  }
  (void)AVSDK_scanner::getAVSDK_scanner();
  (void)Logger::start();
  const long before = open_descriptors();
  DetachedThread thread;
  ASSERT_EQ(thread.start(&scan_share_of, this), 0);
  ASSERT_TRUE(eventually([this] {
    return directory_.read("engine-calls").find("vseExec-begin") != std::string::npos;
  }));
  thread.ask_to_stop();
  EXPECT_FALSE(thread.wait_until_left(std::chrono::milliseconds(50))) << "in the middle of a file";
  open_gate();
  ASSERT_TRUE(thread.wait_until_left(generous_bound));
  EXPECT_EQ(scanned().size(), 1U);
  EXPECT_EQ(calls().back(), "vseRelease handle=1 result=0");
  EXPECT_EQ(open_descriptors(), before);
  scan_share();
  EXPECT_EQ(scanned().size(), 21U) << "the next one runs";
}

}  // namespace
