// One scan of a folder: its records, how far the walk goes, what it passes over and what it
// removes.
#include "manual_scan.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "detached_thread.h"
#include "executor_test.h"
#include "logger.h"
#include "wait.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char exec_started[] = "exec  has started\n";
constexpr char file_started[] = "scanFile has started\n";
constexpr char file_finished[] = "scanFile has finished\n";

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

TEST_F(FolderScan, WritesItsRecordsInOrder) {
  const std::string file = put("file");
  executor().exec(command_for(share_));
  EXPECT_THAT(logged(), ElementsAre(exec_started, start_record(share_), file_started,
                                    file_record(file), file_finished, stop_record(share_, false)));
}

TEST_F(FolderScan, TheStartRecordNamesTheSettingAndNotTheDepthInForce) {
  config().MaxRecursion = 17;
  executor().exec(command_for(share_));
  EXPECT_EQ(logged_times(start_record(share_, 17)), 1);
}

TEST_F(FolderScan, StartAndStopAreRecordedAtAnyLevel) {
  (void)put("file");
  config().Loglevel = 0;
  executor().exec(command_for(share_));
  EXPECT_THAT(logged(), ElementsAre(start_record(share_), stop_record(share_, false)));
}

TEST_F(FolderScan, FilesAreRecordedAtTheDebugLevel) {
  const std::string file = put("file");
  config().Loglevel = 2;
  executor().exec(command_for(share_));
  EXPECT_THAT(logged(),
              ElementsAre(start_record(share_), file_record(file), stop_record(share_, false)));
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

TEST_F(FolderScan, WithoutAHandleThereIsTheStartRecordOnly) {
  (void)put("file");
  script("fail vseInit\n");
  scan_share();
  EXPECT_THAT(logged(), ElementsAre(exec_started, start_record(share_), no_engine));
  EXPECT_THAT(scanned(), IsEmpty());
  EXPECT_EQ(count_calls("vseRelease"), 0);
}

TEST_F(FolderScan, AHandleThatTakesNoSettingsIsNone) {
  (void)put("file");
  script("fail vseSet:9\n");
  scan_share();
  EXPECT_EQ(logged().back(), no_engine);
  EXPECT_THAT(scanned(), IsEmpty());
}

TEST_F(FolderScan, WithoutAnEngineThereIsTheStartRecordOnly) {
  script("fail vseGlobalInit\n");
  scan_share();
  EXPECT_EQ(logged_times(no_engine), 1);
  EXPECT_EQ(logged_times(start_record(share_)), 1);
  EXPECT_EQ(logged_times(stop_record(share_, false)), 0);
}

TEST_F(FolderScan, TheOneAfterAFailedOneRuns) {
  const std::string file = put("file");
  script("fail vseInit 1\n");
  scan_share();
  scan_share();
  EXPECT_THAT(scanned(), ElementsAre(file));
}

#ifndef NDEBUG
using FolderScanDeathTest = FolderScan;

TEST_F(FolderScanDeathTest, ASecondHandleBeforeTheFirstIsGivenBackIsAMistake) {
  ASSERT_TRUE(executor().initialize());
  EXPECT_DEATH((void)executor().initialize(), "\\(VSEHANDLE\\)-1==m_scan_handle");
  executor().release();
  EXPECT_TRUE(executor().initialize());
  executor().release();
}
#endif

// Detections

TEST_F(FolderScan, ADetectionIsCountedAndItsFileStays) {
  const std::string one = put("one", "!detect code=1\n");
  (void)put("two");
  scan_share();
  EXPECT_TRUE(detected());
  EXPECT_TRUE(fs::exists(one));
}

TEST_F(FolderScan, TheOtherCodeOfADetectionIsOneToo) {
  const std::string file = put("file", "!code 2\n");
  scan_share();
  EXPECT_TRUE(detected());
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(FolderScan, OtherCodesOfTheEngineAreNoDetections) {
  for (const char* code : {"3", "4", "5", "6", "8", "-1", "99"}) {
    (void)put(code, std::string("!code ") + code + "\n");
  }
  scan_share();
  EXPECT_EQ(scanned().size(), 7U);
  EXPECT_EQ(logged().back(), stop_record(share_, false));
}

TEST_F(FolderScan, AnEarlierScansDetectionsAreNotCounted) {
  const std::string file = put("file", "!detect code=1\n");
  scan_share();
  fs::remove(file);
  scan_share();
  EXPECT_EQ(logged_times(stop_record(share_, true, 1)), 1);
  EXPECT_EQ(logged().back(), stop_record(share_, false, 2));
}

// Removal

TEST_F(FolderScan, OnlyTheFilesTheEngineWantsRemovedAreGone) {
  const std::string bad = put("bad", "!detect code=7\n");
  const std::string deep = put("sub/deep", "!detect code=7\n");
  const std::string reported = put("reported", "!detect code=1\n");
  const std::string clean = put("sub/clean");
  scan_share();
  EXPECT_TRUE(detected());
  EXPECT_FALSE(fs::exists(bad));
  EXPECT_FALSE(fs::exists(deep));
  EXPECT_TRUE(fs::exists(reported));
  EXPECT_TRUE(fs::exists(clean));
}

TEST_F(FolderScan, AFileReachedThroughALinkStaysAndSoDoesTheLink) {
  const std::string target = directory_.put("target", "!detect code=7\n");
  fs::create_symlink(target, in_share("link"));
  scan_share();
  EXPECT_THAT(scanned(), ElementsAre(in_share("link")));
  EXPECT_TRUE(detected());
  EXPECT_TRUE(fs::exists(target));
  EXPECT_TRUE(fs::is_symlink(in_share("link")));
}

TEST_F(FolderScan, AFileBehindALinkedFolderIsRemovedInIt) {
  fs::create_directory(directory_.path("elsewhere"));
  const std::string target = directory_.put("elsewhere/bad", "!detect code=7\n");
  fs::create_directory_symlink(directory_.path("elsewhere"), in_share("link"));
  scan_share();
  EXPECT_FALSE(fs::exists(target));
}

TEST_F(FolderScan, OfAFileWithTwoNamesTheScannedOneIsRemoved) {
  const std::string other = directory_.put("other", "!detect code=7\n");
  fs::create_hard_link(other, in_share("file"));
  scan_share();
  EXPECT_FALSE(fs::exists(in_share("file")));
  EXPECT_TRUE(fs::exists(other));
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

TEST_F(HeldScan, NeverRemovesALinkThatTookTheNameNorItsTarget) {
  fs::rename(in_share("sub/file"), directory_.path("moved"));
  fs::create_symlink(directory_.path("moved"), in_share("sub/file"));
  finish();
  EXPECT_TRUE(fs::is_symlink(in_share("sub/file")));
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

TEST_F(FolderScan, WithoutRecursionSubfoldersArePassedOverSilently) {
  const std::string file = put("file");
  (void)put("sub/file");
  executor().exec(command_for(share_));
  EXPECT_THAT(scanned(), ElementsAre(file));
  EXPECT_EQ(logged().size(), 6U);
}

TEST_F(FolderScan, TheDeepestLevelIsTheScanDepth) {
  (void)put("0");
  (void)put("a/1");
  (void)put("a/b/2");
  (void)put("a/b/c/3");
  executor().setScanDepth(2);
  scan_share();
  EXPECT_THAT(scanned(), ElementsAre(in_share("0"), in_share("a/1"), in_share("a/b/2")));
  EXPECT_EQ(logged().size(), 3U + 3U * 3U) << "the limit is silent";
}

TEST_F(FolderScan, AtDepthZeroOnlyTheFolderItselfIsScanned) {
  const std::string file = put("file");
  (void)put("sub/file");
  executor().setScanDepth(0);
  scan_share();
  EXPECT_THAT(scanned(), ElementsAre(file));
}

TEST_F(FolderScan, BelowDepthZeroNothingIsScanned) {
  (void)put("file");
  executor().setScanDepth(-1);
  scan_share();
  EXPECT_THAT(logged(),
              ElementsAre(exec_started, start_record(share_), stop_record(share_, false)));
}

TEST_F(FolderScan, ALinkToAFileIsScannedUnderItsOwnPath) {
  const std::string target = directory_.put("target", "");
  fs::create_symlink(target, in_share("link"));
  executor().exec(command_for(share_));
  EXPECT_THAT(scanned(), ElementsAre(in_share("link")));
}

TEST_F(FolderScan, ALinkToAFolderIsEnteredWhenRecursive) {
  fs::create_directory(directory_.path("elsewhere"));
  (void)directory_.put("elsewhere/file", "");
  fs::create_directory_symlink(directory_.path("elsewhere"), in_share("link"));
  executor().exec(command_for(share_));
  EXPECT_THAT(scanned(), IsEmpty());
  scan_share();
  EXPECT_THAT(scanned(), ElementsAre(in_share("link/file")));
}

TEST_F(FolderScan, ALoopOfLinksEndsAtTheScanDepth) {
  (void)put("file");
  fs::create_directory_symlink(share_, in_share("loop"));
  executor().setScanDepth(3);
  scan_share();
  EXPECT_THAT(scanned(), ElementsAre(in_share("file"), in_share("loop/file"),
                                     in_share("loop/loop/file"), in_share("loop/loop/loop/file")));
}

TEST_F(FolderScan, AFolderThatIsALinkIsScanned) {
  (void)put("file");
  const std::string link = directory_.path("link");
  fs::create_directory_symlink(share_, link);
  executor().exec(command_for(link));
  EXPECT_THAT(scanned(), ElementsAre(link + "/file"));
}

TEST_F(FolderScan, ASlashAtTheEndOfTheFolderIsDoubled) {
  (void)put("file");
  executor().exec(command_for(share_ + "/"));
  EXPECT_THAT(scanned(), ElementsAre(share_ + "//file"));
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
  (void)Logger::getLogger();
  const long before = open_descriptors();
  scan_share();
  EXPECT_EQ(scanned().size(), 300U);
  EXPECT_EQ(open_descriptors(), before);
}

// What cannot be scanned

TEST_F(FolderScan, OfAFolderThatDoesNotExist) {
  fs::remove(share_);
  scan_share();
  EXPECT_THAT(logged(), ElementsAre(exec_started, start_record(share_),
                                    "handleDir handleDir:unable to stat:" + share_ +
                                        " No such file or directory\n",
                                    stop_record(share_, false)));
}

TEST_F(FolderScan, OfNoFolder) {
  executor().exec(Command());
  EXPECT_EQ(logged_times("handleDir handleDir:unable to stat: No such file or directory\n"), 1);
  EXPECT_EQ(logged().back(), stop_record("", false));
}

TEST_F(FolderScan, OfAFile) {
  const std::string file = put("file", "!detect code=7\n");
  executor().exec(recursive_for(file));
  ASSERT_EQ(logged().size(), 4U);
  EXPECT_EQ(logged()[2].find("handleDir handleDir:not a directory:" + file + " "), 0U);
  EXPECT_THAT(logged()[2], MatchesRegex(".* [A-Z][^\n]+\n")) << "some text of the system";
  EXPECT_EQ(logged().back(), stop_record(file, false));
  EXPECT_THAT(scanned(), IsEmpty());
}

TEST_F(FolderScan, LinksThatLeadNowhereAreReportedAndPassedOver) {
  const std::string file = put("file");
  fs::create_symlink("nothing", in_share("dangling"));
  fs::create_symlink("round", in_share("round"));
  scan_share();
  EXPECT_EQ(logged_times("handleDir unable to stat:" + in_share("dangling") + "\n"), 1);
  EXPECT_EQ(logged_times("handleDir unable to stat:" + in_share("round") + "\n"), 1);
  EXPECT_THAT(scanned(), ElementsAre(file));
}

TEST_F(FolderScan, PipesSocketsAndDevicesArePassedOverSilently) {
  const std::string file = put("file");
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
  EXPECT_EQ(logged().size(), 6U);
  (void)close(listener);
}

/// As a user who may not read everything: root becomes nobody for the scan.
class UnprivilegedScan : public FolderScan {
 protected:
  void scan_as_nobody() {
    fs::permissions(directory_.path(), fs::perms(0755));
    (void)AVSDK_scanner::getAVSDK_scanner();
    (void)Logger::getLogger();
    const bool root = geteuid() == 0;
    ASSERT_TRUE(!root || seteuid(65534) == 0);
    scan_share();
    ASSERT_TRUE(!root || seteuid(0) == 0);
  }
};

TEST_F(UnprivilegedScan, AFileThatCannotBeOpenedIsReportedAndNoDetection) {
  const std::string file = put("file", "!detect code=1\n");
  const std::string readable = put("readable");
  fs::permissions(file, fs::perms::none);
  scan_as_nobody();
  EXPECT_EQ(logged_times("scanFile can't open file " + file + "\n"), 1);
  EXPECT_EQ(logged_times(file_started), 2);
  EXPECT_EQ(logged_times(file_finished), 1);
  EXPECT_THAT(scanned(), ElementsAre(readable));
  EXPECT_EQ(logged().back(), stop_record(share_, false));
}

TEST_F(UnprivilegedScan, ASubfolderThatCannotBeOpenedIsReportedAndPassedOver) {
  (void)put("sub/file");
  const std::string readable = put("readable");
  fs::permissions(in_share("sub"), fs::perms::none);
  scan_as_nobody();
  EXPECT_EQ(logged_times("handleDir unable to open:" + in_share("sub") + "\n"), 1);
  EXPECT_THAT(scanned(), ElementsAre(readable));
  fs::permissions(in_share("sub"), fs::perms(0755));
}

TEST_F(UnprivilegedScan, AFolderThatCannotBeOpenedIsReported) {
  (void)put("file");
  fs::permissions(share_, fs::perms::none);
  scan_as_nobody();
  EXPECT_THAT(logged(),
              ElementsAre(exec_started, start_record(share_),
                          "handleDir unable to open:" + share_ + "\n", stop_record(share_, false)));
  fs::permissions(share_, fs::perms(0755));
}

// Being stopped

TEST_F(FolderScan, AStopEndsItBetweenTwoFilesAndGivesTheHandleBack) {
  for (int i = 0; i < 20; ++i) {
    (void)put("sub/file" + std::to_string(i), "!wait " + gate() + "\n");
  }
  (void)AVSDK_scanner::getAVSDK_scanner();
  (void)Logger::getLogger();
  const long before = open_descriptors();
  DetachedThread thread;
  ASSERT_EQ(thread.start(&scan_share_of, this), 0);
  ASSERT_TRUE(eventually([this] {
    return directory_.read("engine-calls").find("vseExec-begin") != std::string::npos;
  }));
  thread.cancel();
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
