#include "logger.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <future>
#include <iterator>
#include <limits>
#include <thread>
#include <type_traits>
#include <vector>

#include "child_process.h"
#include "log_records.h"

namespace {

bool truncation_fails = false;
std::time_t fixed_time = 0;
std::atomic<bool> disk_stalls{false};
std::atomic<int> writers{0};

}  // namespace

// These stand before the C library's in this program: there is no file whose truncation fails for
// root, no writing at a moment that is known before, and no disk that stalls on demand.

int ftruncate(int fd, off_t length) noexcept {
  if (truncation_fails) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_ftruncate, fd, length));
}

std::time_t time(std::time_t*) noexcept {
  using std::chrono::system_clock;
  return fixed_time != 0 ? fixed_time : system_clock::to_time_t(system_clock::now());
}

ssize_t writev(int fd, const iovec* parts, int count) {
  ++writers;
  disk_stalls.wait(true);
  --writers;
  return syscall(SYS_writev, fd, parts, count);
}

namespace {

using std::string;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr std::chrono::minutes ample{1};

class LoggerTest : public testing::Test {
 protected:
  LoggerTest() {
    set(&Logger::Settings::path, file());
    Logger::enable();
  }
  ~LoggerTest() override {
    truncation_fails = false;
    fixed_time = 0;
  }

  template <typename T>
  void set(T Logger::Settings::*field, const std::type_identity_t<T>& value) {
    settings_.*field = value;
    Logger::configure(settings_);
  }

  string file() const { return directory_.path("pelowatchd.log"); }
  std::vector<string> records() const { return log_records(file()); }
  std::uintmax_t file_size() const { return std::filesystem::file_size(file()); }

  /// Has many threads write the same records, each its own.
  static void log_from_four_threads() {
    std::barrier all_running(4);
    std::vector<std::future<void>> threads;
    for (int t = 0; t < 4; ++t) {
      threads.push_back(std::async(std::launch::async, [t, &all_running] {
        all_running.arrive_and_wait();
        for (int i = 0; i < 2000; ++i) {
          Logger::append(1, "thread " + std::to_string(t) + "\n");
        }
      }));
    }
  }

  void expect_records_of_four_threads() const {
    const std::vector<string> written = records();
    EXPECT_EQ(written.size(), 8000U);
    for (int t = 0; t < 4; ++t) {
      EXPECT_EQ(count_record(written, "thread " + std::to_string(t) + "\n"), 2000);
    }
  }

  TempDirectory directory_;
  Logger::Settings settings_{.path = "", .level = 3};
};

// Texts and levels of the records

const string odd = "/%s%n\"b\nc\x01\xff";
const string longer(2000, 'x');
const string with_nul("a\0b\n", 4);

void append_every_record() {
  Logger::append_error({-1, 9, "/p", "a", "no luck"});
  Logger::append_error({0, 0, longer, "", ""});
  Logger::append_error(-1, 0xdeadbeef, "no luck");
  Logger::append_detection({4097, "/p", "Some.Name", "Trojan", "Exact", "Found", "a.exe"});
  Logger::append_detection({0, longer, "", "", "", "", ""});
  Logger::append_scan_file({7, odd});
  Logger::append_scan_file({std::numeric_limits<std::int64_t>::min(), ""});
  Logger::append_scan_file({std::numeric_limits<std::int64_t>::max(), longer});
  Logger::append_manual_scan_start({7, "/p", 5});
  Logger::append_manual_scan_start({7, longer, -1});
  Logger::append_manual_scan_stop({7, "/p", false});
  Logger::append_manual_scan_stop({7, "/p", true});
  Logger::append_manual_scan_stop({7, longer, true});
  Logger::append(1, "no %s newline");
  Logger::append(2, string("one\ntwo\n"));
  Logger::append(3, with_nul);
  Logger::log(3, __func__, with_nul);
  Logger::log_format(2, "f", "%s%c%d", "x", 0, 5);
  Logger::log_format(1, "f", "%s", longer.c_str());
  Logger::log_format(1, "f", "%ls", L"\u20ac");  // dropped: the C locale lacks it
  Logger::write_sync(with_nul);
  Logger::write_async(with_nul);
}

struct Record {
  int level;  ///< from which on it is written
  string text;
  std::size_t room = string::npos;  ///< what its buffer holds of the text
};

constexpr int always = std::numeric_limits<int>::min();

const std::vector<Record> every_record{
    {1,
     "Error occurred in: Session ID: -1\nPath: \"/p\"\nArchive name: \"a\"\n"
     "Error number: 0x00000009\nError Description: \"no luck\"\n"},
    {1, "Error occurred in: Session ID: 0\nPath: \"" + longer, 1023},
    {1,
     "Error occurred in: Session ID: -1\nPath: \"\"\nArchive name: \"\"\n"
     "Error number: 0xDEADBEEF\nError Description: \"no luck\"\n"},
    {1,
     "infection detected in: Session ID: 4097\nPath: \"/p\"\nArchive name: \"a.exe\"\n"
     "Detection name: \"Some.Name\"\nDetection type: \"Trojan\"\n"
     "Detection accuracy: \"Exact\"\nScan result: \"Found\"\n"},
    {1, "infection detected in: Session ID: 0\nPath: \"" + longer, 1023},
    {2, "File scan: Session ID: 7\nPath: \"" + odd + "\"\n"},
    {2, "File scan: Session ID: -9223372036854775808\nPath: \"\"\n"},
    {2, "File scan: Session ID: 9223372036854775807\nPath: \"" + longer, 511},
    {always, "Scan started: Session ID: 7\nPath: \"/p\"\nRecursion: 5\n"},
    {always, "Scan started: Session ID: 7\nPath: \"" + longer, 511},
    {always, "Scan completed: Session ID: 7\nPath: \"/p\"\nDetections: \"no\"\n"},
    {always, "Scan completed: Session ID: 7\nPath: \"/p\"\nDetections: \"yes\"\n"},
    {always, "Scan completed: Session ID: 7\nPath: \"" + longer, 511},
    {1, "no %s newline"},
    {2, "one\ntwo\n"},
    {3, with_nul},
    {3, "append_every_record " + with_nul + "\n"},
    {2, string("f x\0005\n", 6)},
    {1, "f " + longer + "\n"},
    {always, with_nul},
    {always, with_nul},
};

TEST_F(LoggerTest, EveryRecordHasItsTextWhileTheLevelIsHighEnough) {
  std::vector<string> expected;
  for (const int level : {always, -1, 0, 1, 2, 3, 4}) {
    set(&Logger::Settings::level, level);
    append_every_record();
    for (const Record& record : every_record) {
      if (record.level <= level) {
        expected.push_back(record.text.substr(0, record.room));
      }
    }
    EXPECT_TRUE(Logger::wants(level));
    EXPECT_FALSE(Logger::wants(level + 1));
  }
  EXPECT_THAT(records(), ElementsAreArray(expected));
}

TEST_F(LoggerTest, HeaderHasTheLocalTimeUnpaddedThenMonthDayYear) {
  setenv("TZ", "TEST-05:30", 1);  // five and a half hours east of Greenwich
  tzset();
  fixed_time = 1788298507;
  Logger::append(1, "text\n");
  EXPECT_EQ(read_file(file()), "\nAt 3:5:7 9/2/2026\ntext\n");
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
  set(&Logger::Settings::path, directory_.path("a/b/pelowatchd.log"));
  umask(0);
  Logger::open();
  EXPECT_EQ(mode_of(directory_.path("a")), 0755U);
  EXPECT_EQ(mode_of(directory_.path("a/b")), 0755U);
  EXPECT_EQ(mode_of(settings_.path), 0640U);
  const int fd = descriptor_of(settings_.path);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(LoggerTest, ContentFromBeforeIsKept) {
  directory_.put("pelowatchd.log", "\nAt 1:2:3 4/5/2006\nolder\n");
  Logger::append(1, "newer\n");
  EXPECT_THAT(records(), ElementsAre("older\n", "newer\n"));
}

TEST_F(LoggerTest, NextRecordAfterNewSettingsGoesWhereTheyPoint) {
  Logger::append(1, "before");
  const string later = directory_.path("later/pelowatchd.log");
  set(&Logger::Settings::path, later);
  Logger::append(1, "there");
  EXPECT_THAT(records(), ElementsAre("before"));
  EXPECT_THAT(log_records(later), ElementsAre("there"));
  EXPECT_EQ(descriptor_of(file()), -1) << "the file from before stays open";
}

TEST_F(LoggerTest, WhatIsNoRegularFileIsRefusedWithALineAndWhatCannotBeMadeWithoutOne) {
  const string target = directory_.put("target", "precious");
  ASSERT_EQ(symlink(target.c_str(), directory_.path("link").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", directory_.path("dangling").c_str()), 0);
  ASSERT_EQ(mkfifo(directory_.path("pipe").c_str(), 0600), 0);
  ASSERT_EQ(mkdir(directory_.path("folder").c_str(), 0700), 0);
  for (const char* name : {"link", "dangling", "pipe", "folder"}) {
    set(&Logger::Settings::path, directory_.path(name));
    testing::internal::CaptureStderr();
    for (int i = 0; i < 100; ++i) {
      Logger::append(1, string(10'000, 'x'));  // more than a pipe holds
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              settings_.path + " is not a regular file: nothing is logged\n");
  }
  set(&Logger::Settings::path, target + "/logs/pelowatchd.log");
  testing::internal::CaptureStderr();
  Logger::append(1, "text");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "a folder that cannot be made";
  EXPECT_EQ(directory_.read("target"), "precious");
  EXPECT_FALSE(std::filesystem::exists(directory_.path("nowhere")));
}

// The size limit

TEST_F(LoggerTest, FileThatHasReachedItsLimitIsEmptiedBeforeTheNextRecord) {
  Logger::append(1, string(1000, 'x'));
  set(&Logger::Settings::size_limit, file_size() + 1);
  Logger::append(1, "one byte below");
  EXPECT_EQ(records().size(), 2U);
  set(&Logger::Settings::size_limit, file_size());
  Logger::append(1, "one");
  Logger::append(1, "two");
  EXPECT_THAT(records(), ElementsAre("one", "two")) << "the limit counts from zero again";
  set(&Logger::Settings::size_limit, 0);
  Logger::append(1, "three");
  EXPECT_THAT(records(), ElementsAre("three"));
  EXPECT_LT(file_size(), 100U) << "there is a gap of zero bytes";
}

TEST_F(LoggerTest, FileBeyondTwoGibibytesGrowsUntilItHasReachedItsLimit) {
  constexpr std::uint64_t large = std::uint64_t{3} << 30;
  Logger::append(1, "old");
  ASSERT_EQ(truncate(file().c_str(), off_t{large}), 0);
  set(&Logger::Settings::size_limit, large + 1);
  Logger::append(1, "kept");
  EXPECT_GT(file_size(), large);
  Logger::append(1, "new");
  ASSERT_LT(file_size(), 100U);
  EXPECT_THAT(records(), ElementsAre("new"));
}

TEST_F(LoggerTest, FileThatCannotBeEmptiedIsSaidOnStandardErrorAndStillGetsTheRecord) {
  Logger::append(1, "old");
  set(&Logger::Settings::size_limit, 1);
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
  ChildProcess process([&] {
    Logger::disable();
    append("disabled");
    Logger::enable();
    Logger::append(1, "enabled");
    (void)Logger::stop();
    append("stopped");
    Logger::enable();
    Logger::append(1, "enabled again");
    Logger::disable_for_good();
    Logger::enable();
    append("disabled for good");
    set(&Logger::Settings::path, directory_.path("another"));
    append("disabled for good");
    return 0;
  });
  EXPECT_EQ(process.wait(), 0);
  EXPECT_THAT(records(), ElementsAre("enabled", "enabled again"));
  EXPECT_FALSE(std::filesystem::exists(directory_.path("another")));
}

// Printing

TEST_F(LoggerTest, PrintIsCutAndGoesToTheStandardStreamsOfItsLevelAndNeverToTheFile) {
  Logger::disable();  // for the file alone
  for (int logger_level = 0; logger_level <= 3; ++logger_level) {
    set(&Logger::Settings::level, logger_level);
    for (int level = 0; level <= 3; ++level) {
      testing::internal::CaptureStdout();
      testing::internal::CaptureStderr();
      Logger::print(level, "%s %d", longer.c_str(), 5);
      const string printed = level <= logger_level ? longer.substr(0, 255) : "";
      EXPECT_EQ(testing::internal::GetCapturedStdout(), level >= 2 ? printed : "");
      EXPECT_EQ(testing::internal::GetCapturedStderr(), level < 2 ? printed : "");
    }
  }
  EXPECT_THAT(records(), IsEmpty());
}

// Threads

TEST_F(LoggerTest, RecordsOfManyThreadsStayWhole) {
  log_from_four_threads();
  expect_records_of_four_threads();
}

TEST_F(LoggerTest, UntilItsThreadIsStartedRecordsAreWrittenByTheCaller) {
  set(&Logger::Settings::asynchronous, true);
  Logger::append(1, "early");
  EXPECT_THAT(records(), ElementsAre("early"));
}

// The logger's own thread: AsyncLogging

class LoggerThread : public LoggerTest {
 protected:
  LoggerThread() {
    set(&Logger::Settings::asynchronous, true);
    EXPECT_EQ(Logger::start(), 0);
  }
  ~LoggerThread() override { EXPECT_TRUE(Logger::stop()); }
};

TEST_F(LoggerThread, RecordsOfManyThreadsAllArriveWhole) {
  log_from_four_threads();
  Logger::drain(ample);
  expect_records_of_four_threads();
}

/// How many threads have this name; for null, how many there are.
std::ptrdiff_t threads_named(const char* name) {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::count_if(begin(threads), end(threads), [name](const auto& thread) {
    return name == nullptr || read_file(thread.path() / "comm") == name;
  });
}

TEST_F(LoggerThread, StartedTwiceItHasOneThread) {
  const std::ptrdiff_t after_first = threads_named(nullptr);
  EXPECT_EQ(Logger::start(), 0);
  EXPECT_LE(threads_named(nullptr), after_first);
}

TEST_F(LoggerThread, DisabledLoggerDropsWhatIsQueued) {
  Logger::disable();
  Logger::append(1, "lost");
  Logger::drain(ample);
  Logger::enable();
  Logger::append(1, "kept");
  Logger::drain(ample);
  EXPECT_THAT(records(), ElementsAre("kept"));
}

TEST_F(LoggerThread, AfterAStopNothingIsWrittenUntilItIsEnabledAndThenByTheCaller) {
  Logger::append(1, "before");
  Logger::drain(ample);
  EXPECT_TRUE(Logger::stop());
  Logger::append(1, "after");
  EXPECT_THAT(records(), ElementsAre("before"));
  Logger::enable();
  Logger::append(1, "enabled");
  EXPECT_THAT(records(), ElementsAre("before", "enabled"));
}

TEST_F(LoggerThread, StopsAtAnyMomentOfAnyLoad) {
  std::atomic<bool> done{false};
  std::thread load([&done] {
    while (!done) {
      Logger::append(1, "text\n");
    }
  });
  for (int round = 0; round < 100; ++round) {
    EXPECT_TRUE(Logger::stop());
    Logger::enable();
    Logger::start();
  }
  done = true;
  load.join();
}

TEST_F(LoggerThread, TextForWhichThereIsNoMemoryIsDropped) {
  Logger::append(1, std::string_view("", std::numeric_limits<std::size_t>::max()));
  Logger::append(1, "next");
  Logger::drain(ample);
  EXPECT_THAT(records(), ElementsAre("next"));
  EXPECT_EQ(Logger::dropped(), 1U);
}

/// The disk has stalled, and the thread waits with a text of its own.
class LoggerThreadStalled : public LoggerThread {
 protected:
  LoggerThreadStalled() {
    disk_stalls = true;
    Logger::append(1, "stuck\n");
    EXPECT_TRUE(eventually([] { return writers > 0; }));
  }
  ~LoggerThreadStalled() override { go_on(); }

  static void go_on() {
    disk_stalls = false;
    disk_stalls.notify_all();
  }
};

TEST_F(LoggerThreadStalled, TenThousandTextsWaitAndEveryFurtherOneIsLost) {
  std::vector<string> expected{"stuck\n"};
  for (int i = 1; i <= 10'000; ++i) {
    expected.push_back("text " + std::to_string(i) + "\n");
    Logger::append(1, expected.back());
  }
  for (int i = 0; i < 3; ++i) {
    Logger::append(1, "lost\n");
  }
  EXPECT_EQ(Logger::dropped(), 3U);
  EXPECT_EQ(threads_named("log -3\n"), 0) << "it is stuck";
  go_on();
  Logger::drain(ample);
  Logger::append(1, "the end\n");
  Logger::drain(ample);
  expected.push_back("the end\n");
  EXPECT_EQ(records(), expected);
  EXPECT_EQ(threads_named("log -3\n"), 1) << "which the log does not tell";
}

TEST_F(LoggerThreadStalled, DrainWaitsForTheTextThatIsOnItsWayWithinItsBound) {
  Logger::drain(std::chrono::milliseconds(20));
  EXPECT_THAT(records(), IsEmpty());
  auto drained = std::async(std::launch::async, [] { Logger::drain(ample); });
  EXPECT_EQ(drained.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  go_on();
  EXPECT_EQ(drained.wait_for(ample), std::future_status::ready);
  EXPECT_THAT(records(), ElementsAre("stuck\n"));
}

// A step of the wall clock ends no such wait, and makes none longer.
TEST_F(LoggerThreadStalled, DrainWaitsByTheSteadyClock) {
  std::atomic<pid_t> thread = 0;
  auto drained = std::async(std::launch::async, [&thread] {
    thread = gettid();
    Logger::drain(ample);
  });
  EXPECT_TRUE(eventually([&thread] {
    // As the kernel shows it: the call's number and arguments, of a futex its word and the command.
    std::istringstream call(read_file("/proc/self/task/" + std::to_string(thread) + "/syscall"));
    string number, word, command;
    (void)(call >> number >> word >> command);
    return std::strtoul(command.c_str(), nullptr, 16) == FUTEX_WAIT_BITSET_PRIVATE;
  })) << "by the wall clock FUTEX_CLOCK_REALTIME is set, too";
  go_on();
}

TEST_F(LoggerThreadStalled, StopGivesUpAfterItsBoundAndDropsWhatIsQueued) {
  Logger::append(1, "queued\n");
  EXPECT_FALSE(Logger::stop(std::chrono::milliseconds(50)));
  go_on();
  EXPECT_TRUE(Logger::stop());
  Logger::enable();
  Logger::start();
  Logger::append(1, "later\n");
  Logger::drain(ample);
  EXPECT_THAT(records(), ElementsAre("stuck\n", "later\n"));
}

}  // namespace
