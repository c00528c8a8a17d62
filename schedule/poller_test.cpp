// The commands file on disk: when it counts as changed, and what a pass makes of it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>

#include "executor_test.h"
#include "fservice.h"

namespace {

constexpr char no_file[] = "CheckForUpdate CheckForUpdate:stat error: No such file or directory\n";
constexpr char reloading[] =
    "scanner_func scanner_func(): commands file has been updated updated. Reloading...\n";
constexpr char pass_done[] = "scanner_func scanner_func(): done\n";

void set_time(const std::string& file, std::time_t seconds, long nanoseconds = 0) {
  const timespec times[2] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

class PollerTest : public ExecutorTest {
 protected:
  std::string put_dated(const std::string& content, std::time_t seconds) const {
    const std::string file = directory_.put("watched", content);
    set_time(file, seconds);
    return file;
  }

  Poller poller_{directory_.path("watched")};
};

TEST_F(PollerTest, AFileNeverSeenBeforeHasChanged) {
  (void)put_dated("", 1000);
  EXPECT_TRUE(poller_.CheckForUpdate());
  EXPECT_FALSE(poller_.CheckForUpdate());
}

TEST_F(PollerTest, ALaterTimeIsAChange) {
  (void)put_dated("", 1000);
  (void)poller_.CheckForUpdate();
  (void)put_dated("", 1001);
  EXPECT_TRUE(poller_.CheckForUpdate());
  EXPECT_FALSE(poller_.CheckForUpdate());
}

TEST_F(PollerTest, ATimeBeyondThirtyTwoBitsIsAChangeToo) {
  (void)put_dated("", 1000);
  (void)poller_.CheckForUpdate();
  (void)put_dated("", std::time_t{1000} + (std::int64_t{1} << 32));
  EXPECT_TRUE(poller_.CheckForUpdate());
  EXPECT_FALSE(poller_.CheckForUpdate());
}

TEST_F(PollerTest, AnEarlierTimeIsAChangeToo) {
  (void)put_dated("", 1000);
  (void)poller_.CheckForUpdate();
  (void)put_dated("", 999);
  EXPECT_TRUE(poller_.CheckForUpdate());
  EXPECT_FALSE(poller_.CheckForUpdate());
}

TEST_F(PollerTest, OtherContentOfTheSameTimeIsNone) {
  (void)put_dated("one", 1000);
  (void)poller_.CheckForUpdate();
  (void)put_dated("three", 1000);
  EXPECT_FALSE(poller_.CheckForUpdate());
}

TEST_F(PollerTest, PartsOfASecondDoNotCount) {
  const std::string file = put_dated("", 1000);
  (void)poller_.CheckForUpdate();
  set_time(file, 1000, 999'999'999);
  EXPECT_FALSE(poller_.CheckForUpdate());
}

TEST_F(PollerTest, AFileFromTheBeginningOfTimeHasNeverChanged) {
  (void)put_dated("", 0);
  EXPECT_FALSE(poller_.CheckForUpdate());
}

TEST_F(PollerTest, AMissingFileIsReportedEachTimeAndIsNoChange) {
  EXPECT_FALSE(poller_.CheckForUpdate());
  EXPECT_FALSE(poller_.CheckForUpdate());
  EXPECT_THAT(logged(), testing::ElementsAre(no_file, no_file));
}

TEST_F(PollerTest, AFileThatGoesAndComesBackUnchangedIsNoChange) {
  const std::string file = put_dated("", 1000);
  (void)poller_.CheckForUpdate();
  std::filesystem::rename(file, file + ".away");
  EXPECT_FALSE(poller_.CheckForUpdate());
  std::filesystem::rename(file + ".away", file);
  EXPECT_FALSE(poller_.CheckForUpdate());
}

TEST_F(PollerTest, ALinkIsAsOldAsItsTarget) {
  const std::string target = directory_.put("target", "");
  set_time(target, 1000);
  std::filesystem::create_symlink(target, directory_.path("watched"));
  EXPECT_TRUE(poller_.CheckForUpdate());
  set_time(target, 2000);
  EXPECT_TRUE(poller_.CheckForUpdate());
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
                                             pass_done));
}

TEST_F(PassTest, LoadsTheFileAndRunsWhatIsDue) {
  put_commands(weekly_text(), 1000);
  scanner_func();
  EXPECT_EQ(logged_times(reloading), 1);
  EXPECT_EQ(logged_times(stop_record(share_, false)), 1);
  EXPECT_EQ(logged().back(), pass_done);
}

TEST_F(PassTest, DoesNotLoadAFileThatHasNotChanged) {
  put_commands(weekly_text(), 1000);
  scanner_func();
  scanner_func();
  EXPECT_EQ(logged_times(reloading), 1);
  EXPECT_EQ(seen_jobs(1), 2);
}

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

TEST_F(PassTest, KeepsTheJobsOfAFileThatIsGone) {
  put_commands(weekly_text(), 1000);
  scanner_func();
  std::filesystem::remove(directory_.path("sdcommands.conf"));
  it_is(13, 2, 30);
  scanner_func();
  EXPECT_EQ(logged_times(no_file), 1);
  EXPECT_EQ(logged_times(start_record(share_)), 2);
}

TEST_F(PassTest, LosesTheJobsOfAFileThatCannotBeReadAnyMore) {
  put_commands(weekly_text(), 1000);
  scanner_func();
  std::filesystem::remove(directory_.path("sdcommands.conf"));
  std::filesystem::create_directory(directory_.path("sdcommands.conf"));
  set_time(directory_.path("sdcommands.conf"), 2000);
  scanner_func();
  EXPECT_EQ(seen_jobs(1), 1);
  EXPECT_EQ(seen_jobs(0), 1);
}

}  // namespace
