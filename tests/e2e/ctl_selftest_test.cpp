// pelowatchctl selftest with the tests' engine, which finds nothing in the standard test file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* unprotected = "pelowatchd does NOT protect this folder\n";
constexpr const char* protection_unknown =
    "it is not known whether pelowatchd protects this folder\n";

class CtlSelftest : public CtlTest {
 protected:
  /// The files that selftest put anywhere below and has not removed.
  Words left_behind() const {
    Words files;
    for (const std::string& folder : {watched(), work()}) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.path().filename().string().rfind(".pelowatchctl", 0) == 0) {
          files.push_back(entry.path());
        }
      }
    }
    return files;
  }

  /// Scans of the test file under its last name.
  size_t scans_of_the_test_file() const {
    return engine_calls("vseExec-begin", {"operation=9 ", "/.pelowatchctl-selftest-"}).size();
  }

  /// Starts selftest and waits until the engine holds the open of its file.
  Process start_held(const Words& options = {}) {
    // The first scan is that of the empty file.
    script("wait vseExec:9 2+ " + work("go") + "\n");
    start();
    Words words = {"selftest"};
    words.insert(words.end(), options.begin(), options.end());
    Process process = start_tool({.arguments = words});
    EXPECT_TRUE(eventually([&] { return scans_of_the_test_file() > 0; })) << engine_record();
    return process;
  }

  /// Stops the daemon; what start_held() left is gone then.
  void end_held() {
    release();
    stop();
    unlink(work("go").c_str());
    world().put(work("engine.record"), "");
  }
};

TEST_F(CtlSelftest, EngineThatFindsNothing) {
  expect_refusal({"selftest", "--folder", watched()}, exit_not_running,
                 "pelowatchd is not running");
  const std::string bad = put_infected("bad");
  start();
  ASSERT_EQ(open_status(bad), EPERM);  // counts for nothing
  const Outcome outcome = ctl({"selftest"});
  EXPECT_EQ(outcome.exit, exit_failed);
  EXPECT_EQ(outcome.err, "");
  const Words lines = lines_of(outcome.out);
  ASSERT_EQ(lines.size(), 5U) << outcome.out;
  EXPECT_THAT(lines[0], AllOf(StartsWith("  FAILED  " + watched(".pelowatchctl-selftest-")),
                              HasSubstr("could be opened: it was NOT refused")));
  EXPECT_THAT(lines[1], AllOf(StartsWith("  FAILED  "), HasSubstr("NOT logged")));
  EXPECT_EQ(lines[2], "  FAILED  denied events went from 1 to 1");
  EXPECT_EQ(lines[3], "  ok      the test file is removed");
  EXPECT_EQ(lines[4] + "\n", unprotected);
  EXPECT_THAT(left_behind(), IsEmpty());
  expect_refusal({"selftest", "--folder", work("no\x1bsuch")}, exit_failed,
                 "cannot put a file into " + work("no\\x1bsuch") + ": No such file or directory");
  stop();
  World::make_folder(watched("in"));
  set("IncludeDirectory", watched("in"));
  add("ExcludeDirectory", watched("in"));
  start();
  expect_refusal({"selftest"}, exit_failed, "no folder is watched; name one with --folder");
}

TEST_F(CtlSelftest, NoAnswerInTimeAndOpenerThatIsKilled) {
  Process tool = start_held({"--timeout", "0.2"});
  EXPECT_EQ(tool.wait(), exit_failed);
  EXPECT_THAT(out(), AllOf(HasSubstr(" was not answered in time\n"), HasSubstr(protection_unknown),
                           HasSubstr("  ok      the test file is removed\n")));
  EXPECT_THAT(left_behind(), IsEmpty());
  end_held();
  tool = start_held();
  const std::string pid = std::to_string(tool.pid());
  std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
  pid_t opener = 0;
  ASSERT_TRUE(children >> opener);
  ASSERT_EQ(kill(opener, SIGKILL), 0);
  EXPECT_EQ(tool.wait(), exit_failed);
  EXPECT_THAT(out(), AllOf(HasSubstr(" was not opened: the process that was to do so has ended\n"),
                           HasSubstr(protection_unknown)));
  EXPECT_THAT(left_behind(), IsEmpty());
  release();
}

TEST_F(CtlSelftest, SignalWhileTheOpenIsHeldRemovesTheFile) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    Process tool = start_held();
    EXPECT_EQ(left_behind().size(), 1U);
    tool.signal(signal);
    EXPECT_EQ(tool.wait(), (Exit{0, signal}));
    EXPECT_THAT(left_behind(), IsEmpty());
    end_held();
  }
}

TEST_F(CtlSelftest, InterruptWhileTheFileIsMade) {
  script("wait vseExec:9 1+ " + work("go") + "\n");
  start();
  Process process = start_tool({.arguments = {"selftest"}});
  wait_for_begin("vseExec");
  process.signal(SIGINT);
  EXPECT_EQ(process.wait(), (Exit{0, SIGINT})) << "its scan does not end before the test does";
  EXPECT_THAT(left_behind(), IsEmpty());
  release();
}

#if !PELO_SANITIZED  // sanitizers take descriptors of their own
TEST_F(CtlSelftest, WithoutDescriptorsForTheOpenerSaysSo) {
  start();
  // Three streams, one for signals, one for the folder.
  const Outcome outcome =
      run_tool({.arguments = {"selftest", "--folder", watched()}, .descriptors = 5});
  EXPECT_EQ(outcome.exit, exit_failed);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "pelowatchctl: cannot put a file into " + watched() + ": Too many open files\n");
}
#endif

}  // namespace
}  // namespace e2e
