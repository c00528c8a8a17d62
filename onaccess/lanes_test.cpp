// Lanes against the real kernel, on a mount that nobody serves. What servers do: the end-to-end
// tests of served mounts.
#include "lanes.h"

#include <dlfcn.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "avsdk_scanner.h"
#include "daemon_config.h"
#include "impossible_stack.h"
#include "kernel_fixture.h"

namespace {

std::atomic<bool> marks_hang{false};
std::atomic<int> hanging_marks{0};

}  // namespace

// It stands before the C library's in this program.
int fanotify_mark(int group, unsigned flags, std::uint64_t mask, int directory,
                  const char* path) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&fanotify_mark)>(dlsym(RTLD_NEXT, "fanotify_mark"));
  ++hanging_marks;
  (void)eventually([] { return !marks_hang; });
  --hanging_marks;
  return real(group, flags, mask, directory, path);
}

namespace {

class LanesTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    GlobalConfig::getGlobalConfig()->MaxThreads = 2;
    GlobalConfig::getGlobalConfig()->Loglevel = 0;
    GlobalConfig::getGlobalConfig()->configure_logger();
    setenv("PELO_TEST_ENGINE_RECORD", engine_.path("record").c_str(), 1);
    (void)AVSDK_scanner::getAVSDK_scanner();
    put_bad_file();
    ASSERT_EQ(register_filter(&filter_), 0);
    lanes_.prepare(filter_);
    threads_ = number_of_threads();
  }
  void TearDown() override {
    lanes_.end();
    EXPECT_TRUE(lanes_.wait_until_left(Clock::now() + generous_bound));
    // With the first thread comes one of ThreadSanitizer's own.
    EXPECT_TRUE(
        eventually([this] { return number_of_threads() <= threads_ + PELO_SANITIZED_THREAD; }));
    EXPECT_EQ(engine_calls("vseRelease"), engine_calls("vseInit")) << "mounts come and go";
    KernelTest::TearDown();
  }

  std::size_t engine_calls(const std::string& call) const {
    const std::string record = "\n" + engine_.read("record");
    std::size_t calls = 0;
    for (std::size_t at = 0; (at = record.find("\n" + call + " ", at)) != std::string::npos; ++at) {
      ++calls;
    }
    return calls;
  }

  void put_bad_file() const { std::ofstream(file()) << "!detect name=X\n"; }
  int open_lane() { return lanes_.open(mntpoint({watched_, "tmpfs"})); }
  static std::ptrdiff_t number_of_threads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
  }
  bool denied() const { return Opener(file()).go().result() == EPERM; }
  bool denied_at_last() const {
    return eventually([this] { return denied(); });
  }

  const TempDirectory engine_;
  std::ptrdiff_t threads_ = 1;  ///< before there is a lane
  eventsForProcessing events_;
  std::atomic<int> failure_{0};
  Lanes lanes_{events_, *CCaching::getCacheManager(),
               [this](const mntpoint&, int error) { failure_ = error; }};
};

TEST_F(LanesTest, AMountIsMarkedOnceEventsAreReadAndAgainWhenItIsOpenedAgain) {
  ASSERT_EQ(open_lane(), 0);
  EXPECT_FALSE(eventually([this] { return denied(); }, std::chrono::milliseconds(100)));
  lanes_.begin();
  EXPECT_TRUE(denied_at_last());
  ASSERT_TRUE(eventually([this] { return umount(watched_.c_str()) == 0; }))
      << "a file is closed after its answer";
  ASSERT_EQ(mount("tmpfs", watched_.c_str(), "tmpfs", 0, nullptr), 0);
  put_bad_file();
  EXPECT_FALSE(denied()) << "another mount in its place";
  EXPECT_EQ(open_lane(), 0);
  EXPECT_TRUE(denied_at_last());
}

TEST_F(LanesTest, OnlyOneThreadOfALaneMarksAtATime) {
  marks_hang = true;
  lanes_.begin();
  EXPECT_EQ(open_lane(), 0);
  EXPECT_TRUE(eventually([] { return hanging_marks == 1; }));
  EXPECT_EQ(open_lane(), 0);
  EXPECT_FALSE(eventually([] { return hanging_marks == 2; }, std::chrono::milliseconds(100)));
  marks_hang = false;
  EXPECT_TRUE(denied_at_last());
}

TEST_F(LanesTest, OpensOfTheEngineOnTheMountOfTheLaneAreAllowed) {
  std::ofstream(watched_ + "/other") << "clean\n";
  lanes_.begin();
  ASSERT_EQ(open_lane(), 0);
  ASSERT_TRUE(denied_at_last());
  std::list<Opener> openers;
  for (const char* name : {"/a", "/b", "/c"}) {
    std::ofstream(watched_ + name) << "!open " << watched_ << "/other\n";
    openers.emplace_back(watched_ + name).go();
  }
  for (Opener& opener : openers) {
    EXPECT_EQ(opener.result(), 0) << "more scans than threads";
  }
}

TEST_F(LanesTest, AnOpenThatWaitsTooLongIsAllowedAndCounted) {
  events_.set_hold_limit(std::chrono::seconds(2));
  std::ofstream(watched_ + "/slow") << "!wait " << engine_.path("gate") << "\n";
  lanes_.begin();
  GlobalConfig::getGlobalConfig()->MaxThreads = 1;
  ASSERT_EQ(open_lane(), 0);
  ASSERT_TRUE(denied_at_last());
  const std::size_t scans = engine_calls("vseExec-begin");
  Opener opener(watched_ + "/slow");
  opener.go();
  ASSERT_TRUE(eventually([&] { return engine_calls("vseExec-begin") > scans; }));
  EXPECT_EQ(Opener(file()).go().result(), 0) << "the thread that scans is busy";
  EXPECT_EQ(eventsForProcessing::unscanned(), 1U);
  engine_.put("gate", "");
  EXPECT_EQ(opener.result(), 0);
}

TEST_F(LanesTest, AClosedLaneLetsGoOfWhatItHoldsWhileTheNextOneWorks) {
  std::ofstream(watched_ + "/slow") << "!wait " << engine_.path("gate") << "\n!detect name=X\n";
  Opener opener(watched_ + "/slow");  // a process that does not share the lane's group
  lanes_.begin();
  ASSERT_EQ(open_lane(), 0);
  ASSERT_TRUE(denied_at_last());
  const std::size_t scans = engine_calls("vseExec-begin");
  opener.go();
  ASSERT_TRUE(eventually([&] { return engine_calls("vseExec-begin") > scans; }));
  const auto threads = number_of_threads();
  lanes_.close(mntpoint({watched_, "tmpfs"}));
  EXPECT_EQ(opener.result(), 0);
  EXPECT_TRUE(eventually([&] { return number_of_threads() == threads - 3; })) << "one is busy";
  EXPECT_FALSE(lanes_.wait_until_left(Clock::now()));
  EXPECT_EQ(open_lane(), 0);
  EXPECT_TRUE(denied_at_last());
  engine_.put("gate", "");
}

TEST_F(LanesTest, ALaneThatGetsNoGroupTellsWhyAndTheNextOneWorks) {
  lanes_.begin();
  // The rights of this thread and of those that it makes; the C library would change all threads'.
  constexpr int keep = -1;
  ASSERT_EQ(syscall(SYS_setresuid, keep, 65534, keep), 0);
  EXPECT_EQ(open_lane(), 0);
  ASSERT_EQ(syscall(SYS_setresuid, keep, 0, keep), 0);
  EXPECT_TRUE(eventually([this] { return failure_ == EPERM; }));
  EXPECT_EQ(open_lane(), 0);
  EXPECT_TRUE(denied_at_last());
}

TEST_F(LanesTest, WithoutAThreadThereIsNoLane) {
  set_default_stack_size(impossible_stack);
  EXPECT_EQ(open_lane(), -1);
  EXPECT_EQ(errno, EAGAIN);
}

}  // namespace
