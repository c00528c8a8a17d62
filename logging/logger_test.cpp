// The logger without a thread of its own. Its thread is tested in logger_async_test.cpp.
#include "logger.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <barrier>
#include <cerrno>
#include <ctime>
#include <limits>
#include <thread>
#include <vector>

#include "daemon_config.h"
#include "log_records.h"

namespace {
bool truncation_fails = false;
}

// Stands before the C library's in this program: there is no file whose truncation fails for root.
int ftruncate(int fd, off_t length) noexcept {
  if (truncation_fails) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_ftruncate, fd, length));
}

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

GlobalConfig& settings() {
  return *GlobalConfig::getGlobalConfig();
}

class LoggerTest : public testing::Test {
 protected:
  LoggerTest() {
    settings().LogPath = directory_.path();
    settings().Loglevel = 3;
  }

  string file() const { return directory_.path("pelowatchd.log"); }
  std::vector<string> records() const { return log_records(file()); }
  std::uintmax_t file_size() const { return std::filesystem::file_size(file()); }

  TempDirectory directory_;
};

// One of each kind, with the least that tells them apart.
void append_error() {
  Logger::error_info info;
  info.session_id = -1;
  info.error_number = 9;
  info.path = "/p";
  info.archive_name = "a";
  info.error_description = "no luck";
  Logger::append_error(info);
}

void append_detection() {
  Logger::detection_info info;
  info.session_id = 4097;
  info.path = "/p";
  info.archive_name = "a.exe";
  info.detection_name = "Some.Name";
  info.detection_type = "Trojan";
  info.detection_accuracy = "Exact";
  info.scan_result = "Found";
  Logger::append_detection(info);
}

const string error_text =
    "Error occurred in: Session ID: -1\nPath: \"/p\"\nArchive name: \"a\"\n"
    "Error number: 0x00000009\nError Description: \"no luck\"\n";
const string detection_text =
    "infection detected in: Session ID: 4097\nPath: \"/p\"\nArchive name: \"a.exe\"\n"
    "Detection name: \"Some.Name\"\nDetection type: \"Trojan\"\nDetection accuracy: \"Exact\"\n"
    "Scan result: \"Found\"\n";
const string scan_file_text = "File scan: Session ID: 7\nPath: \"/p\"\n";
const string scan_started_text = "Scan started: Session ID: 7\nPath: \"/p\"\nRecursion: 5\n";
const string scan_completed_text =
    "Scan completed: Session ID: 7\nPath: \"/p\"\nDetections: \"no\"\n";

// Texts of the records

TEST_F(LoggerTest, ErrorRecord) {
  append_error();
  EXPECT_THAT(records(), ElementsAre(error_text));
}

TEST_F(LoggerTest, ErrorNumberHasEightUpperCaseHexadecimalDigits) {
  Logger::error_info info;
  info.error_number = 0xdeadbeef;
  Logger::append_error(info);
  EXPECT_THAT(records(),
              ElementsAre("Error occurred in: Session ID: 0\nPath: \"\"\nArchive name: \"\"\n"
                          "Error number: 0xDEADBEEF\nError Description: \"\"\n"));
}

TEST_F(LoggerTest, DetectionRecord) {
  append_detection();
  EXPECT_THAT(records(), ElementsAre(detection_text));
}

TEST_F(LoggerTest, ScanFileRecord) {
  Logger::append_scan_file({7, "/p"});
  EXPECT_THAT(records(), ElementsAre(scan_file_text));
}

TEST_F(LoggerTest, ScanStartRecord) {
  Logger::append_manual_scan_start({7, "/p", 5});
  EXPECT_THAT(records(), ElementsAre(scan_started_text));
}

TEST_F(LoggerTest, ScanStartRecordKeepsANegativeRecursion) {
  Logger::append_manual_scan_start({7, "/p", -1});
  EXPECT_THAT(records(), ElementsAre("Scan started: Session ID: 7\nPath: \"/p\"\nRecursion: -1\n"));
}

TEST_F(LoggerTest, ScanEndRecordSaysYesOrNo) {
  Logger::append_manual_scan_stop({7, "/p", false});
  Logger::append_manual_scan_stop({7, "/p", true});
  EXPECT_THAT(records(),
              ElementsAre(scan_completed_text,
                          "Scan completed: Session ID: 7\nPath: \"/p\"\nDetections: \"yes\"\n"));
}

TEST_F(LoggerTest, SessionIdsHaveSixtyFourBits) {
  Logger::append_scan_file({std::numeric_limits<std::int64_t>::min(), ""});
  Logger::append_scan_file({std::numeric_limits<std::int64_t>::max(), ""});
  EXPECT_THAT(records(), ElementsAre("File scan: Session ID: -9223372036854775808\nPath: \"\"\n",
                                     "File scan: Session ID: 9223372036854775807\nPath: \"\"\n"));
}

TEST_F(LoggerTest, RecordFieldsAreZeroAndEmptyUnlessFilled) {
  const Logger::error_info error;
  EXPECT_EQ(error.session_id, 0);
  EXPECT_EQ(error.error_number, 0U);
  const Logger::detection_info detection;
  EXPECT_EQ(detection.session_id, 0);
  EXPECT_EQ(detection.scan_result, "");
}

TEST_F(LoggerTest, NamesAreNeverUsedAsAFormat) {
  Logger::append_scan_file({7, "/%s%n%d"});
  EXPECT_THAT(records(), ElementsAre("File scan: Session ID: 7\nPath: \"/%s%n%d\"\n"));
}

TEST_F(LoggerTest, NamesKeepQuotesNewlinesAndAnyByte) {
  Logger::append_scan_file({7, "/a\"b\nc\x01\xff"});
  EXPECT_THAT(records(), ElementsAre("File scan: Session ID: 7\nPath: \"/a\"b\nc\x01\xff\"\n"));
}

TEST_F(LoggerTest, ErrorAndDetectionRecordsAreCutAt1023Bytes) {
  const string name(2000, 'x');
  Logger::error_info error;
  error.path = name;
  Logger::append_error(error);
  Logger::detection_info detection;
  detection.path = name;
  Logger::append_detection(detection);
  EXPECT_THAT(
      records(),
      ElementsAre(("Error occurred in: Session ID: 0\nPath: \"" + name).substr(0, 1023),
                  ("infection detected in: Session ID: 0\nPath: \"" + name).substr(0, 1023)));
}

TEST_F(LoggerTest, ScanRecordsAreCutAt511Bytes) {
  const string name(2000, 'x');
  Logger::append_scan_file({7, name});
  Logger::append_manual_scan_start({7, name, 5});
  Logger::append_manual_scan_stop({7, name, true});
  EXPECT_THAT(records(),
              ElementsAre(("File scan: Session ID: 7\nPath: \"" + name).substr(0, 511),
                          ("Scan started: Session ID: 7\nPath: \"" + name).substr(0, 511),
                          ("Scan completed: Session ID: 7\nPath: \"" + name).substr(0, 511)));
}

TEST_F(LoggerTest, FreeTextIsWrittenAsItStands) {
  Logger::append(1, "no %s newline");
  Logger::append(1, string("one\ntwo\n"));
  EXPECT_THAT(records(), ElementsAre("no %s newline", "one\ntwo\n"));
}

TEST_F(LoggerTest, FreeTextOfAnyLengthIsWrittenWhole) {
  const string text(100'000, 'x');
  Logger::append(1, text);
  Logger::append_format(1, "%s%d\n", text.c_str(), 5);
  EXPECT_THAT(records(), ElementsAre(text, text + "5\n"));
}

// Levels

TEST_F(LoggerTest, TextIsWrittenWhileLoglevelIsAtLeastItsLevel) {
  for (int loglevel = 0; loglevel <= 4; ++loglevel) {
    settings().Loglevel = loglevel;
    for (int level = 1; level <= 3; ++level) {
      Logger::append(level, std::to_string(loglevel) + ":" + std::to_string(level));
    }
  }
  EXPECT_THAT(records(),
              ElementsAre("1:1", "2:1", "2:2", "3:1", "3:2", "3:3", "4:1", "4:2", "4:3"));
}

TEST_F(LoggerTest, FormattedTextIsWrittenWhileLoglevelIsAtLeastItsLevel) {
  settings().Loglevel = 2;
  Logger::append_format(2, "%s", "two");
  Logger::append_format(3, "%s", "three");
  EXPECT_THAT(records(), ElementsAre("two"));
}

TEST_F(LoggerTest, AtLevelZeroOnlyScheduledScansAreWritten) {
  settings().Loglevel = 0;
  append_error();
  append_detection();
  Logger::append_scan_file({7, "/p"});
  Logger::append_manual_scan_start({7, "/p", 5});
  Logger::append_manual_scan_stop({7, "/p", false});
  EXPECT_THAT(records(), ElementsAre(scan_started_text, scan_completed_text));
}

TEST_F(LoggerTest, AtLevelOneFileScansAreNotWritten) {
  settings().Loglevel = 1;
  append_error();
  append_detection();
  Logger::append_scan_file({7, "/p"});
  Logger::append_manual_scan_start({7, "/p", 5});
  Logger::append_manual_scan_stop({7, "/p", false});
  EXPECT_THAT(records(),
              ElementsAre(error_text, detection_text, scan_started_text, scan_completed_text));
}

TEST_F(LoggerTest, AtLevelTwoFileScansAreWritten) {
  settings().Loglevel = 2;
  Logger::append_scan_file({7, "/p"});
  EXPECT_THAT(records(), ElementsAre(scan_file_text));
}

TEST_F(LoggerTest, WriteSyncAndWriteAsyncAskForNoLevel) {
  settings().Loglevel = 0;
  Logger::write_sync("one");
  Logger::write_async("two");
  EXPECT_THAT(records(), ElementsAre("one", "two"));
}

TEST_F(LoggerTest, WantsALevelUpToLoglevel) {
  settings().Loglevel = 2;
  EXPECT_TRUE(Logger::wants(2));
  EXPECT_FALSE(Logger::wants(3));
}

// The header

/// Chooses a time zone in which it is 3:05 in the morning, of a day whose number is not that of
/// its month: every field is told from the others, and shows whether it is padded.
void make_it_five_past_three() {
  const std::time_t now = std::time(nullptr);
  const std::time_t into_day = now % 86400;
  std::time_t east = 3 * 3600 + 5 * 60 - into_day;
  std::tm local{};
  const std::time_t shifted = now + east;
  gmtime_r(&shifted, &local);
  if (local.tm_mday == local.tm_mon + 1) {
    east += into_day > 3 * 3600 + 5 * 60 ? 86400 : -86400;
  }
  const std::time_t west = east < 0 ? -east : east;
  char zone[32];
  (void)std::snprintf(zone, sizeof zone, "TEST%c%d:%02d:%02d", east < 0 ? '+' : '-',
                      static_cast<int>(west / 3600), static_cast<int>(west / 60 % 60),
                      static_cast<int>(west % 60));
  setenv("TZ", zone, 1);
  tzset();
}

TEST_F(LoggerTest, HeaderHasUnpaddedTimeThenMonthDayYear) {
  make_it_five_past_three();
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  Logger::append(1, "text\n");
  const string date = std::to_string(local.tm_mon + 1) + "/" + std::to_string(local.tm_mday) + "/" +
                      std::to_string(local.tm_year + 1900);
  EXPECT_THAT(read_file(file()), MatchesRegex("\nAt 3:5:[0-9] " + date + "\ntext\n"));
}

TEST_F(LoggerTest, HeaderIsTheLocalTimeOfWriting) {
  const std::time_t before = std::time(nullptr);
  Logger::append(1, "text\n");
  const std::time_t after = std::time(nullptr);
  std::tm at{};
  at.tm_isdst = -1;
  ASSERT_EQ(std::sscanf(read_file(file()).c_str(), "\nAt %d:%d:%d %d/%d/%d\n", &at.tm_hour,
                        &at.tm_min, &at.tm_sec, &at.tm_mon, &at.tm_mday, &at.tm_year),
            6);
  at.tm_mon -= 1;
  at.tm_year -= 1900;
  const std::time_t written = std::mktime(&at);
  EXPECT_LE(before, written);
  EXPECT_LE(written, after);
}

TEST_F(LoggerTest, RecordIsInTheFileWhenTheCallReturns) {
  Logger::append(1, "one");
  EXPECT_THAT(records(), ElementsAre("one"));
  Logger::append(1, "two");
  EXPECT_THAT(records(), ElementsAre("one", "two"));
}

// The file

TEST_F(LoggerTest, LogPathWithTrailingSlashGivesTheSameFile) {
  settings().LogPath = directory_.path() + "/";
  Logger::append(1, "text");
  EXPECT_THAT(records(), ElementsAre("text"));
}

TEST_F(LoggerTest, FoldersOfTheLogPathAreMadeWithMode0755) {
  settings().LogPath = directory_.path("a/b");
  umask(0);
  Logger::append(1, "text");
  EXPECT_THAT(log_records(directory_.path("a/b/pelowatchd.log")), ElementsAre("text"));
  for (const char* folder : {"a", "a/b"}) {
    struct stat status {};
    ASSERT_EQ(stat(directory_.path(folder).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0755U) << folder;
  }
}

TEST_F(LoggerTest, FileIsMadeWithMode0640WhateverTheMask) {
  umask(0);
  Logger::append(1, "text");
  struct stat status {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

/// The descriptor that this process has open on the file, or -1.
int descriptor_of(const string& file) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == file) {
      return std::stoi(entry.path().filename());
    }
  }
  return -1;
}

TEST_F(LoggerTest, FileIsClosedOnExec) {
  Logger::append(1, "text");
  const int fd = descriptor_of(file());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(LoggerTest, ContentFromBeforeIsKept) {
  directory_.put("pelowatchd.log", "\nAt 1:2:3 4/5/2006\nolder\n");
  Logger::append(1, "newer\n");
  EXPECT_THAT(records(), ElementsAre("older\n", "newer\n"));
}

TEST_F(LoggerTest, LinkInPlaceOfTheFileIsNotFollowed) {
  const string target = directory_.put("target", "precious");
  ASSERT_EQ(symlink(target.c_str(), file().c_str()), 0);
  Logger::append(1, "text");
  EXPECT_EQ(directory_.read("target"), "precious");
}

TEST_F(LoggerTest, FolderThatCannotBeMadeCostsTheLogAndNothingElse) {
  settings().LogPath = directory_.put("a-file", "") + "/logs";
  testing::internal::CaptureStderr();
  Logger::append(1, "text");
  append_detection();
  EXPECT_EQ(Logger::start(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(directory_.read("a-file"), "");
}

TEST_F(LoggerTest, StartMovesToTheFileThatTheSettingsNameByThen) {
  Logger::append(1, "before");
  settings().LogPath = directory_.path("later");
  Logger::append(1, "still here");
  EXPECT_EQ(Logger::start(), 0);
  Logger::append(1, "there");
  EXPECT_THAT(records(), ElementsAre("before", "still here"));
  EXPECT_THAT(log_records(directory_.path("later/pelowatchd.log")), ElementsAre("there"));
}

TEST_F(LoggerTest, MovingClosesTheFileFromBefore) {
  Logger::append(1, "before");
  settings().LogPath = directory_.path("later");
  Logger::start();
  EXPECT_EQ(descriptor_of(file()), -1);
}

TEST_F(LoggerTest, StartWithoutAsyncLoggingLeavesWritingToTheCaller) {
  EXPECT_EQ(Logger::start(), 0);
  Logger::append(1, "text");
  EXPECT_THAT(records(), ElementsAre("text"));
}

// The size limit

TEST_F(LoggerTest, FileThatHasReachedMaxlogIsEmptiedBeforeTheNextRecord) {
  Logger::append(1, "old");
  settings().Maxlog = file_size();
  Logger::append(1, "new");
  EXPECT_THAT(records(), ElementsAre("new"));
}

TEST_F(LoggerTest, FileOneByteBelowMaxlogIsNotEmptied) {
  Logger::append(1, "old");
  settings().Maxlog = file_size() + 1;
  Logger::append(1, "new");
  EXPECT_THAT(records(), ElementsAre("old", "new"));
}

TEST_F(LoggerTest, AfterEmptyingTheLimitCountsFromZeroAgain) {
  Logger::append(1, string(1000, 'x'));
  settings().Maxlog = file_size();
  Logger::append(1, "one");
  Logger::append(1, "two");
  EXPECT_THAT(records(), ElementsAre("one", "two"));
}

TEST_F(LoggerTest, EmptiedFileHoldsNoGapOfZeroBytes) {
  Logger::append(1, string(1000, 'x'));
  settings().Maxlog = 1;
  Logger::append(1, "new");
  EXPECT_LT(file_size(), 100U);
}

TEST_F(LoggerTest, MaxlogOfZeroKeepsOneRecord) {
  settings().Maxlog = 0;
  Logger::append(1, "one");
  Logger::append(1, "two");
  EXPECT_THAT(records(), ElementsAre("two"));
}

TEST_F(LoggerTest, FileBeyondTwoGibibytesGrowsUntilItHasReachedMaxlog) {
  constexpr std::uint64_t large = std::uint64_t{3} << 30;
  Logger::append(1, "old");
  ASSERT_EQ(truncate(file().c_str(), off_t{large}), 0);
  settings().Maxlog = large + 1;
  Logger::append(1, "kept");
  EXPECT_GT(file_size(), large);
  Logger::append(1, "new");
  ASSERT_LT(file_size(), 100U);
  EXPECT_THAT(records(), ElementsAre("new"));
}

TEST_F(LoggerTest, FileThatCannotBeEmptiedIsSaidOnStandardErrorAndStillGetsTheRecord) {
  Logger::append(1, "old");
  settings().Maxlog = 1;
  truncation_fails = true;
  testing::internal::CaptureStderr();
  Logger::append(1, "new");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ftruncate: Input/output error\n");
  EXPECT_THAT(records(), ElementsAre("old", "new"));
}

// Switching

TEST_F(LoggerTest, DisabledLoggerWritesNothing) {
  Logger::disable();
  Logger::append(1, "text");
  Logger::append_manual_scan_start({7, "/p", 5});
  Logger::write_sync("text");
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(LoggerTest, EnabledAgainItWritesFromTheNextRecordOn) {
  Logger::disable();
  Logger::append(1, "lost");
  Logger::enable();
  Logger::append(1, "kept");
  EXPECT_THAT(records(), ElementsAre("kept"));
}

TEST_F(LoggerTest, NothingIsWrittenAfterStop) {
  Logger::append(1, "before");
  EXPECT_TRUE(Logger::stop());
  Logger::append(1, "after");
  append_error();
  Logger::append_manual_scan_stop({7, "/p", true});
  EXPECT_THAT(records(), ElementsAre("before"));
}

// Printing

struct Printed {
  string out;
  string err;
};

template <typename Print>
Printed printed_by(Print print) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  print();
  Printed printed;
  printed.out = testing::internal::GetCapturedStdout();
  printed.err = testing::internal::GetCapturedStderr();
  return printed;
}

TEST_F(LoggerTest, PrintGoesToStandardErrorUpToLevelOne) {
  const Printed printed = printed_by([] {
    Logger::print(1, "%s-%d\n", "one", 1);
    Logger::print(0, "zero\n");
  });
  EXPECT_EQ(printed.err, "one-1\nzero\n");
  EXPECT_EQ(printed.out, "");
}

TEST_F(LoggerTest, PrintGoesToStandardOutputFromLevelTwo) {
  const Printed printed = printed_by([] {
    Logger::print(2, "two\n");
    Logger::print(3, "three");
  });
  EXPECT_EQ(printed.out, "two\nthree");
  EXPECT_EQ(printed.err, "");
}

TEST_F(LoggerTest, PrintNeverReachesTheFile) {
  printed_by([] {
    Logger::print(1, "one");
    Logger::print(2, "two");
  });
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(LoggerTest, PrintIsSilentAboveLoglevel) {
  settings().Loglevel = 1;
  const Printed printed = printed_by([] { Logger::print(2, "two"); });
  EXPECT_EQ(printed.out + printed.err, "");
  settings().Loglevel = 0;
  EXPECT_EQ(printed_by([] { Logger::print(1, "one"); }).err, "");
}

TEST_F(LoggerTest, PrintIsCutAt255Bytes) {
  const Printed printed = printed_by([] { Logger::print(2, "%s\n", string(300, 'x').c_str()); });
  EXPECT_EQ(printed.out, string(255, 'x'));
}

TEST_F(LoggerTest, PrintGoesOnAfterStop) {
  Logger::stop();
  EXPECT_EQ(printed_by([] { Logger::print(1, "last words\n"); }).err, "last words\n");
}

// Threads

TEST_F(LoggerTest, RecordsOfManyThreadsStayWhole) {
  std::barrier all_running(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &all_running] {
      all_running.arrive_and_wait();
      for (int i = 0; i < 2000; ++i) {
        Logger::append(1, "thread " + std::to_string(t) + "\n");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::vector<string> written = records();
  EXPECT_EQ(written.size(), 8000U);
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(count_record(written, "thread " + std::to_string(t) + "\n"), 2000);
  }
}

}  // namespace
