// pelowatchctl metrics: the text that Prometheus reads, and the file that a collector picks up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// What promtool says of metrics; nothing when there is no promtool.
struct Verdict {
  Exit exit;
  std::string said;
};

class CtlMetrics : public CtlTest {
 protected:
  std::string target() const { return work("metrics/pelowatchd.prom"); }

  void prepare() override {
    CtlTest::prepare();
    world().mount_on(work("metrics"));
  }

  Verdict promtool(const std::string& metrics) {
    world().put(work("metrics.prom"), metrics);
    const int input = world().open_unseen(work("metrics.prom"), O_RDONLY);
    const int output = world().open_unseen(work("promtool.out"), O_WRONLY | O_CREAT | O_TRUNC);
    Process tool([&] {
      dup2(input, 0);
      dup2(output, 1);
      dup2(output, 2);
      execl(PELO_PROMTOOL, "promtool", "check", "metrics", nullptr);
      return 127;
    });
    close(input);
    close(output);
    const auto exit = tool.wait();
    EXPECT_TRUE(exit.has_value());
    return {exit.value_or(Exit{}), world().read(work("promtool.out"))};
  }

  /// What lies beside the target: temporary files that were forgotten.
  Words beside_the_target() const {
    Words names;
    for (const auto& entry : std::filesystem::directory_iterator(work("metrics"))) {
      if (entry.path() != target()) {
        names.push_back(entry.path().filename());
      }
    }
    return names;
  }

  Outcome write_metrics() { return ctl({"metrics", "--output", target()}); }
};

using Samples = std::map<std::string, double>;

/// The samples of a text; every one must stand below its HELP and TYPE lines.
Samples samples_of(const std::string& text) {
  Samples samples;
  const Words lines = lines_of(text);
  EXPECT_EQ(lines.size() % 3, 0U);
  for (size_t at = 0; at + 2 < lines.size(); at += 3) {
    const std::string name = lines[at + 2].substr(0, lines[at + 2].find(' '));
    EXPECT_THAT(lines[at], StartsWith("# HELP " + name + " "));
    EXPECT_THAT(lines[at + 1], StartsWith("# TYPE " + name + " "));
    samples[name] = std::stod(lines[at + 2].substr(name.size()));
  }
  EXPECT_EQ(samples.size(), lines.size() / 3) << "two of the same name";
  return samples;
}

/// Whole metrics end with the line of the last sample.
bool is_whole(const std::string& text) {
  const size_t last = text.rfind("\npelowatchd_log_size_bytes ");
  return text.rfind("# HELP pelowatchd_up ", 0) == 0 && last != std::string::npos &&
         text.back() == '\n';
}

TEST_F(CtlMetrics, SayWhatTheStatusSays) {
  EXPECT_EQ(samples_of(ctl({"metrics"}).out), (Samples{{"pelowatchd_up", 0}}));
  const std::string bad = put_infected("bad");
  start();
  ASSERT_EQ(open_status(bad), EPERM);
  StatusArea::map()->trust(0, 1);
  const Outcome outcome = ctl_aside({"metrics"});
  const Json json = status();
  StatusArea::map()->distrust(0);
  EXPECT_EQ(outcome.exit, kOk);
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(outcome.out,
              HasSubstr("# HELP pelowatchd_denied_events_total Events answered with a denial: "
                        "opens, and closes after writing, of files in which something was "
                        "found.\n"));
  Samples samples = samples_of(outcome.out);
  const std::pair<const char*, double> wanted[] = {
      {"pelowatchd_up", 1},
      {"pelowatchd_denied_events_total", 1},
      {"pelowatchd_trusted_processes", 1},
      {"pelowatchd_watched_mounts", json["mounts"].size()},
      {"pelowatchd_scheduled_jobs", 0},
      {"pelowatchd_log_size_bytes", json["log"]["bytes"]}};
  for (const auto& [name, value] : wanted) {
    EXPECT_EQ(samples[name], value) << name;
  }
  EXPECT_LE(samples["pelowatchd_answered_events_total"], json["answered"]);
  EXPECT_GE(samples["pelowatchd_answered_events_total"], 1);
  EXPECT_GT(samples["pelowatchd_start_time_seconds"], 1.7e9);
  EXPECT_GT(samples["pelowatchd_resident_memory_bytes"], 4096);
  EXPECT_GE(samples["pelowatchd_cpu_seconds_total"], 0);
  EXPECT_EQ(samples.size(), 10U);
  // Without privilege what cannot be seen is left out.
  samples = samples_of(run_tool({.arguments = {"metrics"}, .as_nobody = true}).out);
  EXPECT_EQ(samples["pelowatchd_up"], 1);
  EXPECT_EQ(samples.count("pelowatchd_log_size_bytes"), 0U);
  EXPECT_EQ(samples.count("pelowatchd_answered_events_total"), 1U);
}

TEST_F(CtlMetrics, PromtoolFindsNothingWrong) {
  if (access(PELO_PROMTOOL, X_OK) != 0) {
    if (std::getenv("CI") != nullptr) {
      FAIL() << "there is no " << PELO_PROMTOOL;
    }
    GTEST_SKIP() << "there is no " << PELO_PROMTOOL << "; scripts/test puts it there";
  }
  const auto expect_faultless = [&](const std::string& metrics) {
    const Verdict verdict = promtool(metrics);
    EXPECT_EQ(verdict.exit, Exit{}) << verdict.said << metrics;
    EXPECT_EQ(verdict.said, "") << metrics;
  };
  EXPECT_NE(promtool("pelowatchd_up 0\n").said, "") << "it does not look at what it is given";
  expect_faultless(ctl({"metrics"}).out);
  start();
  expect_faultless(ctl({"metrics"}).out);
}

TEST_F(CtlMetrics, FileIsReplacedInOneStep) {
  start();
  EXPECT_EQ(write_metrics().exit, kOk);
  EXPECT_EQ(out() + err(), "");
  const std::string before = world().read(target());
  EXPECT_TRUE(is_whole(before)) << before;
  // Who has the file open keeps what it was.
  const int old = world().open_unseen(target(), O_RDONLY);
  struct stat old_status {};
  struct stat new_status {};
  ASSERT_EQ(fstat(old, &old_status), 0);
  EXPECT_EQ(write_metrics().exit, kOk);
  ASSERT_EQ(stat(target().c_str(), &new_status), 0);
  EXPECT_NE(old_status.st_ino, new_status.st_ino);
  EXPECT_EQ(old_status.st_size, static_cast<off_t>(before.size()));
  EXPECT_EQ(new_status.st_mode & 07777, 0644U);
  EXPECT_NE(world().read(target()), before) << "events were answered in between";
  close(old);
  EXPECT_THAT(beside_the_target(), IsEmpty());
}

TEST_F(CtlMetrics, ReaderNeverSeesAPartOfTheFile) {
  constexpr int kRounds = 25;
  start();
  ASSERT_EQ(write_metrics().exit, kOk);
  Process reader([&] {
    size_t looks = 0;
    while (!World::exists(work("end"))) {
      if (!is_whole(world().read(target()))) {
        return 1;
      }
      ++looks;
    }
    return looks > kRounds ? 0 : 2;
  });
  for (int round = 0; round < kRounds; ++round) {
    EXPECT_EQ(write_metrics().exit, kOk);
  }
  touch(work("end"));
  EXPECT_EQ(reader.status(), 0);
}

TEST_F(CtlMetrics, DiskThatIsFullOrNotToBeWrittenLeavesTheOldFileAndNothingElse) {
  world().put(target(), "the old file\n");
  // Two pages, of which the second is taken too.
  ASSERT_EQ(mount("test", work("metrics").c_str(), "tmpfs", MS_REMOUNT, "size=8k"), 0);
  world().put(work("metrics/filler"), "x");
  const Outcome full = write_metrics();
  EXPECT_EQ(full.exit, kFailed);
  EXPECT_THAT(full.err, HasSubstr("No space left on device"));
  ASSERT_EQ(mount(nullptr, work("metrics").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const Outcome refused = write_metrics();
  EXPECT_EQ(refused.exit, kFailed);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.err, "pelowatchctl: cannot write " + target() + ": Read-only file system\n");
  EXPECT_EQ(world().read(target()), "the old file\n");
  EXPECT_EQ(beside_the_target(), Words{"filler"});
}

TEST_F(CtlMetrics, WhatIsNoFileIsLeftAlone) {
  World::make_folder(target());
  EXPECT_EQ(write_metrics().exit, kFailed) << "a folder stands in its place";
  EXPECT_EQ(err(), "pelowatchctl: cannot write " + target() + ": it is not a plain file\n");
  ASSERT_EQ(rmdir(target().c_str()), 0);
  // As /dev/null and /dev/stdout are none, which root could replace.
  ASSERT_EQ(mkfifo(target().c_str(), 0644), 0);
  EXPECT_EQ(write_metrics().exit, kFailed);
  EXPECT_TRUE(std::filesystem::is_fifo(target()));
  ASSERT_EQ(unlink(target().c_str()), 0);
  ASSERT_EQ(symlink("/proc/self/fd/1", target().c_str()), 0);
  EXPECT_EQ(write_metrics().exit, kFailed);
  EXPECT_TRUE(std::filesystem::is_symlink(target()));
  EXPECT_THAT(beside_the_target(), IsEmpty());
  EXPECT_EQ(ctl({"metrics", "--output", work("no\x1b/file")}).exit, kFailed);
  EXPECT_EQ(err(),
            "pelowatchctl: cannot write " + work("no\\x1b/file") + ": No such file or directory\n");
  EXPECT_EQ(ctl({"metrics", "--output", ""}).exit, kFailed);
}

TEST_F(CtlMetrics, TerminationWhileTheFileIsMadeLeavesNoPartOfIt) {
  World::make_folder(watched("metrics"));
  script("wait vseExec:9 1+ " + work("go") + "\n");
  start();
  Process process = start_tool({.arguments = {"metrics", "--output", watched("metrics/file")}});
  ASSERT_TRUE(eventually([&] { return !engine_calls("vseExec-begin").empty(); }));
  process.signal(SIGTERM);
  touch(work("go"));
  EXPECT_EQ(process.wait(), (Exit{0, SIGTERM}));
  for (const auto& entry : std::filesystem::directory_iterator(watched("metrics"))) {
    EXPECT_EQ(entry.path(), watched("metrics/file"));
  }
}

}  // namespace
}  // namespace e2e
