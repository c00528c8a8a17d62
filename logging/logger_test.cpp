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
#include <functional>
#include <limits>
#include <thread>
#include <vector>

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
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::MatchesRegex;

class LoggerTest : public testing::Test {
 protected:
  LoggerTest() { set_path(file()); }

  void set_path(const string& path) {
    settings_.path = path;
    Logger::configure(settings_);
  }
  void set_level(int level) {
    settings_.level = level;
    Logger::configure(settings_);
  }
  void set_limit(std::uint64_t limit) {
    settings_.size_limit = limit;
    Logger::configure(settings_);
  }

  string file() const { return directory_.path("pelowatchd.log"); }
  std::vector<string> records() const { return log_records(file()); }
  std::uintmax_t file_size() const { return std::filesystem::file_size(file()); }

  TempDirectory directory_;
  Logger::Settings settings_{.path = "", .level = 3};
};

// Texts and levels of the records

struct Record {
  int level;  ///< from which on it is written; 0 always
  std::function<void()> append;
  string text;
};

Record error_record(Logger::error_info info, const string& text) {
  return {1, [info] { Logger::append_error(info); }, "Error occurred in: Session ID: " + text};
}

Record detection_record(Logger::detection_info info, const string& text) {
  return {1, [info] { Logger::append_detection(info); },
          "infection detected in: Session ID: " + text};
}

Record file_record(std::int64_t session, const string& path, const string& text) {
  return {2,
          [session, path] {
            Logger::append_scan_file({session, path});
          },
          "File scan: Session ID: " + text};
}

Record start_record(const string& path, int depth, const string& text) {
  return {0,
          [path, depth] {
            Logger::append_manual_scan_start({7, path, depth});
          },
          "Scan started: Session ID: 7\nPath: \"" + text};
}

Record stop_record(const string& path, bool found, const string& text) {
  return {0,
          [path, found] {
            Logger::append_manual_scan_stop({7, path, found});
          },
          "Scan completed: Session ID: 7\nPath: \"" + text};
}

Record text_record(int level, std::function<void(int)> append, const string& text) {
  return {level, [level, append] { append(level); }, text};
}

/// A text whose end is lost, since the buffer has room for so many bytes of it.
Record cut(Record record, std::size_t bytes) {
  record.text.resize(bytes);
  return record;
}

std::vector<Record> every_record() {
  const string odd = "/%s%n\"b\nc\x01\xff";
  const string longer(2000, 'x');
  const string with_nul("a\0b\n", 4);
  return {
      error_record({-1, 9, "/p", "a", "no luck"},
                   "-1\nPath: \"/p\"\nArchive name: \"a\"\nError number: 0x00000009\n"
                   "Error Description: \"no luck\"\n"),
      error_record(
          {.error_number = 0xdeadbeef, .path = {}, .archive_name = {}, .error_description = {}},
          "0\nPath: \"\"\nArchive name: \"\"\nError number: 0xDEADBEEF\n"
          "Error Description: \"\"\n"),
      cut(error_record({0, 0, longer, "", ""}, "0\nPath: \"" + longer), 1023),
      {1, [] { Logger::append_error(-1, 9, "no luck"); },
       "Error occurred in: Session ID: -1\nPath: \"\"\nArchive name: \"\"\n"
       "Error number: 0x00000009\nError Description: \"no luck\"\n"},
      detection_record({4097, "/p", "Some.Name", "Trojan", "Exact", "Found", "a.exe"},
                       "4097\nPath: \"/p\"\nArchive name: \"a.exe\"\n"
                       "Detection name: \"Some.Name\"\nDetection type: \"Trojan\"\n"
                       "Detection accuracy: \"Exact\"\nScan result: \"Found\"\n"),
      detection_record({},
                       "0\nPath: \"\"\nArchive name: \"\"\nDetection name: \"\"\n"
                       "Detection type: \"\"\nDetection accuracy: \"\"\nScan result: \"\"\n"),
      cut(detection_record({0, longer, "", "", "", "", ""}, "0\nPath: \"" + longer), 1023),
      file_record(7, odd, "7\nPath: \"" + odd + "\"\n"),
      file_record(std::numeric_limits<std::int64_t>::min(), "",
                  "-9223372036854775808\nPath: \"\"\n"),
      file_record(std::numeric_limits<std::int64_t>::max(), "",
                  "9223372036854775807\nPath: \"\"\n"),
      cut(file_record(7, longer, "7\nPath: \"" + longer), 511),
      start_record("/p", 5, "/p\"\nRecursion: 5\n"),
      start_record("/p", -1, "/p\"\nRecursion: -1\n"),
      cut(start_record(longer, 5, longer), 511),
      stop_record("/p", false, "/p\"\nDetections: \"no\"\n"),
      stop_record("/p", true, "/p\"\nDetections: \"yes\"\n"),
      cut(stop_record(longer, true, longer), 511),
      text_record(
          1, [](int level) { Logger::append(level, "no %s newline"); }, "no %s newline"),
      text_record(
          2, [](int level) { Logger::append(level, string("one\ntwo\n")); }, "one\ntwo\n"),
      text_record(
          3, [=](int level) { Logger::append(level, with_nul); }, with_nul),
      text_record(
          3, [=](int level) { Logger::log(level, __func__, with_nul); },
          "operator() " + with_nul + "\n"),
      text_record(
          2, [](int level) { Logger::log_format(level, "f", "%s%c%d", "x", 0, 5); },
          string("f x\0005\n", 6)),
      text_record(
          1, [=](int level) { Logger::log_format(level, "f", "%s", longer.c_str()); },
          "f " + longer + "\n"),
      text_record(
          0, [=](int) { Logger::write_sync(with_nul); }, with_nul),
      text_record(
          0, [=](int) { Logger::write_async(with_nul); }, with_nul),
  };
}

TEST_F(LoggerTest, EveryRecordHasItsTextWhileTheLevelIsHighEnough) {
  std::vector<string> expected;
  for (int level = 0; level <= 4; ++level) {
    set_level(level);
    for (const Record& record : every_record()) {
      record.append();
      if (record.level <= level) {
        expected.push_back(record.text);
      }
    }
    EXPECT_TRUE(Logger::wants(level));
    EXPECT_FALSE(Logger::wants(level + 1));
  }
  EXPECT_THAT(records(), ElementsAreArray(expected));
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

// The file

unsigned mode_of(const string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777U;
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

TEST_F(LoggerTest, FileAndFoldersAreMadeWithTheirModesWhateverTheMask) {
  set_path(directory_.path("a/b/pelowatchd.log"));
  umask(0);
  EXPECT_EQ(Logger::start(), 0);
  Logger::append(1, "text");
  EXPECT_THAT(log_records(settings_.path), ElementsAre("text")) << "and no thread is needed";
  EXPECT_EQ(mode_of(directory_.path("a")), 0755U);
  EXPECT_EQ(mode_of(directory_.path("a/b")), 0755U);
  EXPECT_EQ(mode_of(settings_.path), 0640U);
  const int fd = descriptor_of(settings_.path);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(LoggerTest, StartMakesTheFileAlthoughNothingIsLogged) {
  EXPECT_FALSE(std::filesystem::exists(file()));
  EXPECT_EQ(Logger::start(), 0);
  EXPECT_EQ(file_size(), 0U);
}

TEST_F(LoggerTest, ContentFromBeforeIsKept) {
  directory_.put("pelowatchd.log", "\nAt 1:2:3 4/5/2006\nolder\n");
  Logger::append(1, "newer\n");
  EXPECT_THAT(records(), ElementsAre("older\n", "newer\n"));
}

TEST_F(LoggerTest, NextRecordAfterNewSettingsGoesWhereTheyPoint) {
  Logger::append(1, "before");
  const string later = directory_.path("later/pelowatchd.log");
  set_path(later);
  Logger::append(1, "there");
  EXPECT_THAT(records(), ElementsAre("before"));
  EXPECT_THAT(log_records(later), ElementsAre("there"));
  EXPECT_EQ(descriptor_of(file()), -1) << "the file from before stays open";
}

TEST_F(LoggerTest, FolderThatCannotBeMadeCostsTheLogAndNothingElse) {
  set_path(directory_.put("a-file", "") + "/logs/pelowatchd.log");
  testing::internal::CaptureStderr();
  Logger::append(1, "text");
  EXPECT_EQ(Logger::start(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(directory_.read("a-file"), "");
}

TEST_F(LoggerTest, WhatIsNoRegularFileIsRefusedWithOneLineOnStandardError) {
  const string target = directory_.put("target", "precious");
  ASSERT_EQ(symlink(target.c_str(), directory_.path("link").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", directory_.path("dangling").c_str()), 0);
  ASSERT_EQ(mkfifo(directory_.path("pipe").c_str(), 0600), 0);
  ASSERT_EQ(mkdir(directory_.path("folder").c_str(), 0700), 0);
  for (const char* name : {"link", "dangling", "pipe", "folder"}) {
    set_path(directory_.path(name));
    testing::internal::CaptureStderr();
    for (int i = 0; i < 100; ++i) {
      Logger::append(1, string(10'000, 'x'));  // more than a pipe holds
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              settings_.path + " is not a regular file: nothing is logged\n");
  }
  EXPECT_EQ(directory_.read("target"), "precious");
  EXPECT_FALSE(std::filesystem::exists(directory_.path("nowhere")));
}

TEST_F(LoggerTest, KeptClosedItOpensNothing) {
  Logger::keep_closed();
  Logger::append(1, "text");
  EXPECT_EQ(Logger::start(), 0);
  EXPECT_FALSE(std::filesystem::exists(file()));
}

// The size limit

TEST_F(LoggerTest, FileThatHasReachedItsLimitIsEmptiedBeforeTheNextRecord) {
  Logger::append(1, string(1000, 'x'));
  set_limit(file_size() + 1);
  Logger::append(1, "one byte below");
  EXPECT_EQ(records().size(), 2U);
  set_limit(file_size());
  Logger::append(1, "one");
  Logger::append(1, "two");
  EXPECT_THAT(records(), ElementsAre("one", "two")) << "the limit counts from zero again";
  set_limit(0);
  Logger::append(1, "three");
  EXPECT_THAT(records(), ElementsAre("three"));
  EXPECT_LT(file_size(), 100U) << "there is a gap of zero bytes";
}

TEST_F(LoggerTest, FileBeyondTwoGibibytesGrowsUntilItHasReachedItsLimit) {
  constexpr std::uint64_t large = std::uint64_t{3} << 30;
  Logger::append(1, "old");
  ASSERT_EQ(truncate(file().c_str(), off_t{large}), 0);
  set_limit(large + 1);
  Logger::append(1, "kept");
  EXPECT_GT(file_size(), large);
  Logger::append(1, "new");
  ASSERT_LT(file_size(), 100U);
  EXPECT_THAT(records(), ElementsAre("new"));
}

TEST_F(LoggerTest, FileThatCannotBeEmptiedIsSaidOnStandardErrorAndStillGetsTheRecord) {
  Logger::append(1, "old");
  set_limit(1);
  truncation_fails = true;
  testing::internal::CaptureStderr();
  Logger::append(1, "new");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ftruncate: Input/output error\n");
  EXPECT_THAT(records(), ElementsAre("old", "new"));
}

// Switching

TEST_F(LoggerTest, WritesOnlyWhileSwitchedOn) {
  const auto append = [](const char* text) {
    Logger::append(1, text);
    Logger::append_manual_scan_start({7, text, 5});
    Logger::write_sync(text);
  };
  Logger::disable();
  append("disabled");
  Logger::enable();
  Logger::append(1, "enabled");
  EXPECT_TRUE(Logger::stop());
  append("stopped");
  Logger::enable();
  Logger::append(1, "enabled again");
  Logger::disable_for_good();
  Logger::enable();
  append("disabled for good");
  EXPECT_THAT(records(), ElementsAre("enabled", "enabled again"));
}

TEST_F(LoggerTest, EnableOnItsWayDoesNotUndoAStop) {
  for (int round = 0; round < 200; ++round) {
    std::barrier both(2);
    std::thread starting([&both] {
      both.arrive_and_wait();
      Logger::disable();
      Logger::enable();
    });
    both.arrive_and_wait();
    Logger::disable_for_good();
    starting.join();
    Logger::append(1, "after the stop");
  }
  EXPECT_THAT(records(), IsEmpty());
}

// Printing

TEST_F(LoggerTest, PrintGoesToTheStandardStreamsOfItsLevelAndNeverToTheFile) {
  struct Case {
    int logger_level;
    int level;
    const char* out;
    const char* err;
  };
  for (const Case& each : {Case{3, 0, "", "text 5"}, Case{3, 1, "", "text 5"},
                           Case{3, 2, "text 5", ""}, Case{3, 3, "text 5", ""}, Case{2, 3, "", ""},
                           Case{1, 2, "", ""}, Case{0, 1, "", ""}, Case{0, 0, "", "text 5"}}) {
    set_level(each.logger_level);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Logger::print(each.level, "%s %d", "text", 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), each.out);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), each.err);
  }
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(LoggerTest, PrintIsCutAt255BytesAndGoesOnAfterAStop) {
  Logger::stop();
  testing::internal::CaptureStdout();
  Logger::print(2, "%s\n", string(300, 'x').c_str());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), string(255, 'x'));
}

TEST_F(LoggerTest, TextThatCannotBeFormattedIsDroppedAndCounted) {
  Logger::log_format(1, "f", "%ls", L"\u20ac");  // which the C locale lacks
  EXPECT_EQ(Logger::dropped(), 1U);
  EXPECT_THAT(records(), IsEmpty());
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
