// The commands file on disk: when it counts as changed, and what a pass makes of it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>

#include "executor_fixture.h"
#include "fservice.h"

namespace {

constexpr char no_file[] = "CheckForUpdate CheckForUpdate:stat error: No such file or directory\n";
constexpr char reloading[] =
    "scanner_func scanner_func(): commands file has been updated updated. Reloading...\n";
constexpr char pass_finished[] = "scanner_func scanner_func(): done\n";

void set_time(const std::string& file, std::time_t seconds, long nanoseconds = 0) {
  const timespec times[2] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

using PollerTest = ExecutorTest;

struct Look {
  const char* content;  ///< null: the file is gone
  std::int64_t seconds;
  long nanoseconds;
  bool changed;
  const char* what;
};

TEST_F(PollerTest, AFileHasChangedWhenTheSecondsOfItsTimeHave) {
  const Look looks[] = {
      {"", 0, 0, false, "the beginning of time"},
      {nullptr, 0, 0, false, "missing"},
      {"", 1000, 0, true, "never seen"},
      {"", 1000, 0, false, "the same"},
      {"three", 1000, 0, false, "other content"},
      {"", 1000, 999'999'999, false, "parts of a second"},
      {"", 1001, 0, true, "later"},
      {"", 999, 0, true, "earlier"},
      {nullptr, 0, 0, false, "gone"},
      {"", 999, 0, false, "back, unchanged"},
      {"", 999 + (std::int64_t{1} << 32), 0, true, "beyond 32 bits"},
  };
  // Through a link, which is as old as its target.
  std::filesystem::create_symlink("target", directory_.path("watched"));
  Poller poller(directory_.path("watched"));
  for (const Look& look : looks) {
    std::filesystem::remove(directory_.path("target"));
    if (look.content != nullptr) {
      set_time(directory_.put("target", look.content), static_cast<std::time_t>(look.seconds),
               look.nanoseconds);
    }
    EXPECT_EQ(poller.CheckForUpdate(), look.changed) << look.what;
    EXPECT_FALSE(look.content != nullptr && poller.CheckForUpdate()) << look.what;
  }
  EXPECT_THAT(logged(), testing::ElementsAre(no_file, no_file));
}

class PassTest : public ExecutorTest {
 protected:
  PassTest() { config().ConfPath = directory_.path(); }

  void put_commands(const std::string& content, std::time_t seconds) const {
    set_time(directory_.put("sdcommands.conf", content), seconds);
  }
  std::string weekly_text() const {
    return "scan\nstart 2:30\nday MON\nrepeat WEEKLY\nfolder " + share_ +
           "\naction REPORT\nrecursive no\n";
  }
  std::string file_text() const {
    return "scanner_func scanner_func(): commands file is: " + directory_.path("sdcommands.conf") +
           "\n";
  }
  long seen_jobs(int jobs) const {
    return logged_times("perform commands count is " + std::to_string(jobs) + "\n");
  }
};

TEST_F(PassTest, WithoutACommandsFileRunsAnEmptyList) {
  scanner_func();
  EXPECT_THAT(logged(), testing::ElementsAre(file_text(), no_file, "perform  has started\n",
                                             "perform commands count is 0\n",
                                             "syncCommandsList failed to acces the shared memory\n",
                                             pass_finished));
}

TEST_F(PassTest, LoadsAFileThatHasChangedAndKeepsItsJobsWhenItIsGone) {
  put_commands(weekly_text(), 1000);
  scanner_func();
  EXPECT_EQ(logged_times(stop_record(share_, false)), 1);
  EXPECT_EQ(logged().back(), pass_finished);
  scanner_func();
  std::filesystem::remove(directory_.path("sdcommands.conf"));
  it_is(13, 2, 30);
  scanner_func();
  EXPECT_EQ(logged_times(reloading), 1);
  EXPECT_EQ(logged_times(no_file), 1);
  EXPECT_EQ(logged_times(start_record(share_)), 2);
  EXPECT_EQ(seen_jobs(1), 3);
  // A file that is there but cannot be read has no jobs.
  std::filesystem::create_directory(directory_.path("sdcommands.conf"));
  set_time(directory_.path("sdcommands.conf"), 2000);
  scanner_func();
  EXPECT_EQ(seen_jobs(0), 1);
}

// Sanitizers do not outlive a want of memory, and emulation knows no limit.
#if !PELO_SLOW
TEST_F(PassTest, LoadsAgainAFileForWhichThereWasNoMemory) {
  {
    std::ofstream large(directory_.path("sdcommands.conf"));
    for (int i = 0; i < 40'000; ++i) {
      large << std::string(1000, 'x') << '\n';
    }
  }
  set_time(directory_.path("sdcommands.conf"), 1000);
  log_up_to(1);
  const rlimit plenty{RLIM_INFINITY, RLIM_INFINITY};
  const rlimit little{64 << 20, RLIM_INFINITY};
  ASSERT_EQ(setrlimit(RLIMIT_DATA, &little), 0);
  EXPECT_THROW(scanner_func(), std::bad_alloc);
  ASSERT_EQ(setrlimit(RLIMIT_DATA, &plenty), 0);
  log_up_to(3);
  put_commands(weekly_text(), 1000);
  scanner_func();
  EXPECT_EQ(seen_jobs(1), 1);
}
#endif

TEST_F(PassTest, LoadsATouchedFileAgainFromWhichTheLoadTimeCounts) {
  put_commands(weekly_text(), 1000);
  it_is(6, 0, 0);
  scanner_func();
  it_is(6, 2, 31);
  put_commands(weekly_text(), 2000);
  scanner_func();
  EXPECT_EQ(logged_times(reloading), 2);
  EXPECT_EQ(logged_times(start_record(share_)), 0) << "loaded a minute too late";
}

}  // namespace
