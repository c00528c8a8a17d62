#include "metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "temp_directory.h"

namespace {

using testing::HasSubstr;
using testing::Not;

DaemonStatus running_daemon() {
  DaemonStatus status;
  status.pid = 7;
  status.process.emplace();
  status.process->started = 1700000000;
  status.process->cpu_seconds = 1.25;
  status.process->resident_bytes = 4096;
  return status;
}

TEST(Metrics, WithoutADaemonSayOnlyThat) {
  EXPECT_EQ(metrics_text({}),
            "# HELP pelowatchd_up Whether the daemon runs.\n# TYPE pelowatchd_up gauge\n"
            "pelowatchd_up 0\n");
}

TEST(Metrics, OfADaemon) {
  DaemonStatus status = running_daemon();
  status.has_area = true;
  status.counters.answered = UINT64_MAX;
  status.counters.denied = 3;
  status.mounts = {"/", "/data"};
  status.log = LogFile{"/var/log/pelowatchd.log", 123};
  const std::string text = metrics_text(status);
  EXPECT_THAT(text, HasSubstr("\npelowatchd_up 1\n"));
  EXPECT_THAT(text, HasSubstr("\npelowatchd_start_time_seconds 1700000000\n"));
  EXPECT_THAT(text, HasSubstr("\npelowatchd_cpu_seconds_total 1.25\n"));
  EXPECT_THAT(text, HasSubstr("\npelowatchd_resident_memory_bytes 4096\n"));
  EXPECT_THAT(text, HasSubstr("\npelowatchd_answered_events_total 18446744073709551615\n"));
  EXPECT_THAT(text, HasSubstr("\npelowatchd_denied_events_total 3\n"));
  EXPECT_THAT(text, HasSubstr("\npelowatchd_watched_mounts 2\n"));
  EXPECT_THAT(text, HasSubstr("\npelowatchd_trusted_processes 0\n"));
  EXPECT_THAT(text, HasSubstr("\npelowatchd_scheduled_jobs 0\n"));
  EXPECT_THAT(text, HasSubstr("\npelowatchd_log_size_bytes 123\n"));
}

TEST(Metrics, WhatIsNotKnownIsLeftOut) {
  const std::string text = metrics_text(running_daemon());
  EXPECT_THAT(text, HasSubstr("\npelowatchd_up 1\n"));
  EXPECT_THAT(text, Not(HasSubstr("answered")));
  EXPECT_THAT(text, Not(HasSubstr("log_size")));
}

class WriteAtomically : public testing::Test {
 protected:
  std::string file() const { return directory_.path("metrics.prom"); }
  std::ptrdiff_t entries() const {
    return std::distance(std::filesystem::directory_iterator(directory_.path()), {});
  }
  TempDirectory directory_;
};

TEST_F(WriteAtomically, PutsAnotherFileInThePlace) {
  ASSERT_EQ(write_atomically(file(), "old"), "");
  std::ifstream open_on_the_old(file());
  ASSERT_EQ(write_atomically(file(), "new\n"), "");
  EXPECT_EQ(read_file(file()), "new\n");
  std::string text;
  std::getline(open_on_the_old, text);
  EXPECT_EQ(text, "old") << "whoever reads the old one reads all of it";
  EXPECT_EQ(entries(), 1);
}

TEST_F(WriteAtomically, EverybodyMayReadIt) {
  ASSERT_EQ(write_atomically(file(), "text"), "");
  struct stat status {};
  ASSERT_EQ(stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(WriteAtomically, WithoutTheFolderNothing) {
  EXPECT_EQ(write_atomically(directory_.path("none") + "/x", "text"), "No such file or directory");
}

TEST_F(WriteAtomically, WhatIsInTheWayStays) {
  std::filesystem::create_directory(file());
  EXPECT_EQ(write_atomically(file(), "text"), "it is not a plain file");
  EXPECT_EQ(entries(), 1) << "no temporary file is left";
}

}  // namespace
