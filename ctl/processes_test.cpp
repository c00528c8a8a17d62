#include "processes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "child_process.h"
#include "pidfd_fixture.h"
#include "temp_directory.h"

namespace {

using std::string;
using testing::Contains;

constexpr std::chrono::seconds patience{30};

int wait_for_ever() {
  for (;;) {
    (void)pause();
  }
}

// Runs `sleep` under another name.
class NamedProgram {
 public:
  explicit NamedProgram(const string& name)
      : program_(directory_.path(name)), child_([this] {
          (void)execl(program_.c_str(), "sleep", "1000", nullptr);
          return 1;
        }) {}
  pid_t pid() const { return child_.pid(); }
  bool runs_it() const {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/" + std::to_string(pid()) + "/exe", error) ==
           program_;
  }
  void remove_file() const { (void)unlink(program_.c_str()); }

 private:
  static string copy(const string& path) {
    std::filesystem::copy_file("/usr/bin/sleep", path);
    return path;
  }

  TempDirectory directory_;
  string program_;
  string copied_ = copy(program_);
  ChildProcess child_;
};

TEST(FactsOf, ThisProcess) {
  const std::time_t now = std::time(nullptr);
  (void)prctl(PR_SET_NAME, "a) Z 1 (b");
  const std::optional<ProcessFacts> facts = facts_of(getpid());
  ASSERT_TRUE(facts.has_value());
  EXPECT_EQ(facts->name, "a) Z 1 (b") << "brackets and blanks in the name";
  EXPECT_EQ(facts->state, 'R');
  EXPECT_NEAR(static_cast<double>(facts->started), static_cast<double>(now), 60);
  EXPECT_GT(facts->start_ticks, 0U);
  EXPECT_GT(facts->resident_bytes, 100U << 10);
}

TEST(Nobody, HasNeitherFactsNorFilesNorAHandle) {
  for (const pid_t pid : {0, -1, INT32_MAX}) {
    EXPECT_FALSE(facts_of(pid).has_value());
    EXPECT_FALSE(is_pelowatchd(pid));
    EXPECT_TRUE(command_line_of(pid).empty());
    EXPECT_FALSE(open_files_of(pid).has_value());
    EXPECT_FALSE(ProcessHandle::open(pid).has_value());
  }
}

TEST(FactsOf, ProcessorTimeGrows) {
  EXPECT_TRUE(eventually([] {
    volatile unsigned work = 0;
    for (unsigned round = 0; round < 1000000; ++round) {
      work = work + round;
    }
    return facts_of(getpid())->cpu_seconds > 0;
  }));
}

TEST(IsPelowatchd, ByTheProgramThatItRunsAlsoAfterAnUpgrade) {
  for (const bool daemon : {true, false}) {
    const NamedProgram program(daemon ? "pelowatchd" : "pelowatchd2");
    ASSERT_TRUE(eventually([&] { return program.runs_it(); }));
    EXPECT_EQ(is_pelowatchd(program.pid()), daemon);
    program.remove_file();
    EXPECT_EQ(is_pelowatchd(program.pid()), daemon);
  }
}

TEST(IsPelowatchd, NotByTheNameThatItGivesItself) {
  ChildProcess impostor([] {
    (void)prctl(PR_SET_NAME, "pelowatchd");
    return wait_for_ever();
  });
  ASSERT_TRUE(eventually([&] { return facts_of(impostor.pid())->name == "pelowatchd"; }));
  EXPECT_FALSE(is_pelowatchd(impostor.pid()));
}

TEST(CommandLineOf, WordByWord) {
  const NamedProgram program("some");
  const std::vector<string> words = {"sleep", "1000"};
  // The new program is there a moment before its words are.
  EXPECT_TRUE(eventually([&] { return command_line_of(program.pid()) == words; }));
}

TEST(OpenFilesOf, NamesThem) {
  const TempDirectory directory;
  const std::ofstream file(directory.path("open"));
  EXPECT_THAT(*open_files_of(getpid()), Contains(directory.path("open")));
}

TEST(ProcessHandleTest, SignalsAndWaits) {
  ChildProcess child(wait_for_ever);
  const auto handle = ProcessHandle::open(child.pid());
  ASSERT_TRUE(handle.has_value());
  EXPECT_FALSE(handle->wait_until_ended(std::chrono::milliseconds(10)));
  EXPECT_EQ(handle->signal(SIGKILL), 0);
  EXPECT_TRUE(handle->wait_until_ended(patience));
}

TEST(ProcessHandleTest, ReachesNobodyOnceItsProcessHasEnded) {
  ChildProcess child(wait_for_ever);
  const auto handle = ProcessHandle::open(child.pid());
  child.kill_and_reap();
  EXPECT_EQ(handle->signal(SIGTERM), ESRCH);
  EXPECT_TRUE(handle->wait_until_ended(std::chrono::milliseconds(0)));
}

TEST(ProcessHandleTest, DoesWithoutPidfdWhereTheKernelHasNone) {
  ChildProcess child(wait_for_ever);
  fail_pidfd_open(ENOSYS);
  const auto handle = ProcessHandle::open(child.pid());
  ASSERT_TRUE(handle.has_value());
  EXPECT_FALSE(handle->wait_until_ended(std::chrono::milliseconds(0)));
  EXPECT_EQ(handle->signal(SIGKILL), 0);
  EXPECT_TRUE(handle->wait_until_ended(patience));
  EXPECT_EQ(handle->signal(SIGTERM), ESRCH);
}

TEST(ProcessHandleTest, IsRefusedWhenPidfdFails) {
  ChildProcess child(wait_for_ever);
  fail_pidfd_open(EMFILE);
  EXPECT_FALSE(ProcessHandle::open(child.pid()).has_value());
  EXPECT_EQ(errno, EMFILE);
}

}  // namespace
