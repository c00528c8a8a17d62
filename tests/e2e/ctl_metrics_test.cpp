// pelowatchctl metrics: the text that Prometheus reads, and the file that a collector picks up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class CtlMetrics : public CtlTest {
 protected:
  std::string target() const { return work("metrics/pelowatchd.prom"); }

  void prepare() override {
    CtlTest::prepare();
    world().mount_on(work("metrics"));
  }

  /// What promtool says of metrics, which is nothing when it finds no fault.
  std::string promtool(const std::string& metrics) {
    world().put(work("metrics.prom"), metrics);
    const int input = world().open_unseen(work("metrics.prom"), O_RDONLY);
    const int output = world().open_unseen(work("promtool.out"), O_WRONLY | O_CREAT | O_TRUNC);
    Process tool([&]() -> int {
      dup2(input, 0);
      dup2(output, 1);
      dup2(output, 2);
      execute({PELO_PROMTOOL, "check", "metrics"});
    });
    close(input);
    close(output);
    const int status = tool.status();
    return (status == 0 ? "" : std::to_string(status) + ": ") + world().read(work("promtool.out"));
  }

  Outcome write_metrics() { return ctl({"metrics", "--output", target()}); }
};

TEST_F(CtlMetrics, SayWhatTheStatusSays) {
  const std::string bad = put_infected("bad");
  start();
  ASSERT_EQ(open_status(bad), EPERM);
  const std::string denied = "\npelowatchd_denied_events_total 1\n";
  EXPECT_THAT(printed({"metrics"}), AllOf(HasSubstr(denied), HasSubstr("_log_size_bytes ")));
  // Without privilege what cannot be seen is left out.
  EXPECT_THAT(run_tool({.arguments = {"metrics"}, .as_nobody = true}).out,
              AllOf(HasSubstr(denied), Not(HasSubstr("_log_size_bytes"))));
}

TEST_F(CtlMetrics, PromtoolFindsNothingWrong) {
  if (access(PELO_PROMTOOL, X_OK) != 0) {
    if (std::getenv("CI") != nullptr) {
      FAIL() << "there is no " << PELO_PROMTOOL;
    }
    GTEST_SKIP() << "there is no " << PELO_PROMTOOL << "; scripts/test puts it there";
  }
  EXPECT_NE(promtool("pelowatchd_up 0\n"), "") << "it does not look at what it is given";
  EXPECT_EQ(promtool(printed({"metrics"})), "");
  start();
  EXPECT_EQ(promtool(printed({"metrics"})), "") << out();
}

TEST_F(CtlMetrics, FileIsWrittenOrLeftAloneWithNothingBesideIt) {
  EXPECT_EQ(write_metrics().exit, exit_ok);
  EXPECT_EQ(out() + err(), "");
  EXPECT_THAT(world().read(target()), StartsWith("# HELP pelowatchd_up "));
  world().put(target(), "the old file\n");
  // Two pages, of which the second is taken too.
  ASSERT_EQ(mount("test", work("metrics").c_str(), "tmpfs", MS_REMOUNT, "size=8k"), 0);
  world().put(work("metrics/filler"), "x");
  const Outcome full = write_metrics();
  EXPECT_EQ(full.exit, exit_failed);
  EXPECT_THAT(full.err, HasSubstr("No space left on device"));
  ASSERT_EQ(mount(nullptr, work("metrics").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  expect_refusal({"metrics", "--output", target()}, exit_failed,
                 "cannot write " + target() + ": Read-only file system");
  EXPECT_EQ(world().read(target()), "the old file\n");
  EXPECT_THAT(names_in(work("metrics")), UnorderedElementsAre("filler", "pelowatchd.prom"));
}

TEST_F(CtlMetrics, WhatIsNoFileIsLeftAlone) {
  // As /dev/null and /dev/stdout are none, which root could replace.
  ASSERT_EQ(mkfifo(target().c_str(), 0644), 0);
  expect_refusal({"metrics", "--output", target()}, exit_failed,
                 "cannot write " + target() + ": it is not a plain file");
  EXPECT_TRUE(std::filesystem::is_fifo(target()));
  ASSERT_EQ(unlink(target().c_str()), 0);
  ASSERT_EQ(symlink("/proc/self/fd/1", target().c_str()), 0);
  EXPECT_EQ(write_metrics().exit, exit_failed);
  EXPECT_TRUE(std::filesystem::is_symlink(target()));
  EXPECT_THAT(names_in(work("metrics")), ElementsAre("pelowatchd.prom"));
  expect_refusal({"metrics", "--output", work("no\x1b/file")}, exit_failed,
                 "cannot write " + work("no\\x1b/file") + ": No such file or directory");
  EXPECT_EQ(ctl({"metrics", "--output", ""}).exit, exit_failed);
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
  EXPECT_THAT(names_in(watched("metrics")), AnyOf(IsEmpty(), ElementsAre("file")));
}

}  // namespace
}  // namespace e2e
