#include "metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  status.dropped_texts = 5;
  const std::string text = metrics_text(status);
  for (const char* line :
       {"up 1", "start_time_seconds 1700000000", "cpu_seconds_total 1.25",
        "resident_memory_bytes 4096", "answered_events_total 18446744073709551615",
        "denied_events_total 3", "watched_mounts 2", "trusted_processes 0", "scheduled_jobs 0",
        "log_size_bytes 123", "log_texts_dropped_total 5"}) {
    EXPECT_THAT(text, HasSubstr(std::string("\npelowatchd_") + line + "\n"));
  }
}

TEST(Metrics, WhatIsNotKnownIsLeftOut) {
  const std::string text = metrics_text(running_daemon());
  EXPECT_THAT(text, HasSubstr("\npelowatchd_up 1\n"));
  EXPECT_THAT(text, Not(testing::AnyOf(HasSubstr("answered"), HasSubstr("log_size"))));
}

TEST(WriteAtomically, PutsAnotherFileThatEverybodyMayReadInThePlace) {
  const TempDirectory directory;
  const std::string file = directory.path("metrics.prom");
  ASSERT_EQ(write_atomically(file, "old"), "");
  std::ifstream open_on_the_old(file);
  ASSERT_EQ(write_atomically(file, "new\n"), "");
  EXPECT_EQ(read_file(file), "new\n");
  std::string text;
  std::getline(open_on_the_old, text);
  EXPECT_EQ(text, "old") << "whoever reads the old one reads all of it";
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0644));
}

}  // namespace
