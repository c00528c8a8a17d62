// What workers do with events: real threads, the scripted engine, a kernel played by the test.
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <ostream>

#include "service_fixture.h"
#include "time_limits.h"

namespace {

/// How many paths were cached when a file was removed last.
std::atomic<int> cached_at_removal{-1};

}  // namespace

// It stands before the C library's in this program.
int unlinkat(int directory, const char* name, int flags) noexcept {
  cached_at_removal = CCaching::getCacheManager()->size();
  return static_cast<int>(syscall(SYS_unlinkat, directory, name, flags));
}

namespace {

using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/// Long enough to see what is wrongly done at once; what is right never fails it.
constexpr std::chrono::milliseconds glimpse{100};

class EventWorkerTest : public ServiceTest {
 protected:
  /// A file whose scan lasts until release(). Its scan has begun when this returns.
  std::string feed_slow(const std::string& name) {
    const std::string path = put(name, "!wait " + gate_ + "\n");
    slow_fd_ = feed(path);
    EXPECT_TRUE(eventually([&] { return scan_has_begun(path); }));
    EXPECT_TRUE(scanner_sleeps(path)) << "it must have read what the test may change now";
    return path;
  }
  /// Ends that scan, whose file is clean.
  void release() {
    directory_.put("gate", "");
    EXPECT_EQ(filter_.verdict_for(slow_fd_), allow);
  }

  /// Starts workers, and has an update come while one of them is busy.
  void run_and_update_while_one_is_busy(int workers) {
    run_with_handles(workers);
    (void)feed_slow("slow");
    (void)service().reloaddb();
  }

  /// Has the one worker scan a file, and waits until it sleeps.
  void let_worker_sleep() {
    const std::string path = put("before", "clean");
    ASSERT_EQ(open_file(path), allow);
    ASSERT_TRUE(scanner_sleeps(path));
  }

  const std::string gate_ = directory_.path("gate");
  int slow_fd_ = -1;
};

/// What becomes of two opens of a file, and of a close after writing it.
struct Opens {
  const char* name;
  const char* script;
  const char* content;
  std::uint32_t verdict;
  long scans;
  bool remembered;
};

std::ostream& operator<<(std::ostream& out, const Opens& row) {
  return out << row.name;
}

class OpenedFileTest : public EventWorkerTest, public testing::WithParamInterface<Opens> {};

TEST_P(OpenedFileTest, GetsItsVerdict) {
  script(GetParam().script);
  run(1);
  const std::string path = put("%s%n", GetParam().content);
  EXPECT_EQ(open_file(path), GetParam().verdict);
  EXPECT_EQ(open_file(path), GetParam().verdict);
  EXPECT_EQ(scans_of(path), GetParam().scans);
  EXPECT_EQ(statistics().denied, GetParam().verdict == deny ? 2U : 0U);
  EXPECT_EQ(cache().lookup(path), GetParam().remembered);
  const std::string thread = "event_processing_thread Thread 0 ";
  const std::string status = GetParam().scans == 0 ? "0\n" : "1\n";
  EXPECT_TRUE(has_logged(thread + "started, engine status: " + status));
  EXPECT_TRUE(has_logged(thread + "avh_init " + status));
  (void)cache().add(path);
  EXPECT_EQ(close_written(path), GetParam().verdict);
  EXPECT_EQ(cache().lookup(path), GetParam().remembered) << "it may have changed";
}

INSTANTIATE_TEST_SUITE_P(
    Files, OpenedFileTest,
    testing::Values(Opens{"clean", "", "clean", allow, 1, true},
                    Opens{"bad", "", detection, deny, 2, false},
                    Opens{"engine error", "fail vseExec:9\n", detection, allow, 1, true},
                    Opens{"no engine", "fail vseGlobalInit\n", detection, allow, 0, false},
                    Opens{"no handle", "fail vseInit 1\n", detection, allow, 0, false}));

TEST_F(EventWorkerTest, ACachedFileIsScannedAgainOnlyWhenItIsWrittenAndKeepsItsOneEntry) {
  run(1);
  const std::string path = put("clean", "clean");
  EXPECT_EQ(open_file(path), allow);
  EXPECT_EQ(open_file(path), allow);
  EXPECT_EQ(scans_of(path), 1);
  const std::string thread = "event_processing_thread Thread 0 ";
  EXPECT_TRUE(has_logged(thread + "cache hit (1, 1000) \"" + path + "\"\n"));
  EXPECT_EQ(close_written(path), allow);
  EXPECT_EQ(scans_of(path), 2);
  EXPECT_EQ(cache().size(), 1);
  EXPECT_TRUE(has_logged(thread + "cache erase " + path + "\n"));
  EXPECT_EQ(logged_times(thread + "added: \"" + path + "\"\n"), 1);
}

TEST_F(EventWorkerTest, AnEngineThatThrowsWhateverItIsCostsAVerdictAndNoWorker) {
  run(1);
  const std::string path = put("clean", "!throw 3\n");
  EXPECT_EQ(open_file(path), allow);
  EXPECT_FALSE(cache().lookup(path));
  EXPECT_EQ(open_file(put("bad", detection)), deny);
}

TEST_F(EventWorkerTest, TheAnswerComesBeforeTheRemoval) {
  run(1);
  // Answers that nobody reads, until one more has to wait.
  const int group = cast(service().get_descr())->group.get();
  fanotify_response other{};
  other.fd = -1;
  int others = 0;
  while (send(group, &other, sizeof other, MSG_DONTWAIT) > 0) {
    ++others;
  }
  const std::string path = put("bad", removal);
  (void)cache().add(path);
  const int fd = feed(path, FAN_CLOSE_WRITE);
  EXPECT_TRUE(eventually([&] { return scans_of(path) == 1; }));
  EXPECT_FALSE(eventually([&] { return !std::filesystem::exists(path); }, glimpse));
  for (; others > 0; --others) {
    (void)filter_.answer();
  }
  EXPECT_EQ(filter_.verdict_for(fd), deny);
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(path); }));
  EXPECT_EQ(cached_at_removal, 1);
  EXPECT_TRUE(eventually([&] { return !cache().lookup(path); }));
  EXPECT_EQ(statistics().answered, 1U);
}

TEST_F(EventWorkerTest, TheOpenerOfAFileThatIsToBeRemovedDoesNotWaitForTheCache) {
  run(1);
  const std::string path = put("bad", "!wait " + gate_ + "\n" + removal);
  const int fd = feed(path);
  EXPECT_TRUE(eventually([&] { return scan_has_begun(path); }));
  ASSERT_TRUE(cache().wrlock());
  directory_.put("gate", "");
  EXPECT_EQ(filter_.verdict_for(fd), deny);
  cache().unlock();
}

TEST_F(EventWorkerTest, ARemovedFileIsNotRemembered) {
  run(1);
  const std::string path = put("clean", "clean");
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_TRUE(std::filesystem::remove(path));
  filter_.feed(FAN_OPEN_PERM, fd);
  EXPECT_EQ(filter_.verdict_for(fd), allow);
  EXPECT_EQ(cache().size(), 0);
}

TEST_F(EventWorkerTest, AWorkersLifeIsLoggedWithItsNumberFromZero) {
  config().MaxCacheEntries = 77;
  run_with_handles(2);
  EXPECT_EQ(open_file(put("clean", "clean")), allow);
  stop();
  for (const char* number : {"0", "1"}) {
    const std::string thread = std::string("event_processing_thread Thread ") + number;
    for (const char* text :
         {" started, max cache entries: 77\n", " detected stop request\n", " finalize\n"}) {
      EXPECT_TRUE(has_logged(thread + text)) << number << text;
    }
  }
  EXPECT_THAT(logged(), Contains(HasSubstr(" doing work\n")));
}

TEST_F(EventWorkerTest, TheScanGetsTheDescriptorThePathAndTheOnAccessLimits) {
  config().MaxArchiveDepth = 3;
  config().DecompressLimit = 9;
  run(1);
  const std::string path = put("clean", "clean");
  const int fd = feed(path);
  EXPECT_EQ(filter_.verdict_for(fd), allow);
  EXPECT_THAT(calls(), Contains(AllOf(HasSubstr("operation=9 path=\"" + path + "\""),
                                      HasSubstr("fd=" + std::to_string(fd)))));
  EXPECT_THAT(calls(), Contains(AllOf(HasSubstr("vseSet"), HasSubstr("value=3 "))));
  EXPECT_THAT(calls(), Contains(AllOf(HasSubstr("vseSet"), HasSubstr("value=9 "))));
}

TEST_F(EventWorkerTest, AnUpdateRenewsEveryWorkersHandleAsEventsWakeThem) {
  run_with_handles(3);
  (void)service().reloaddb();
  EXPECT_EQ(service().isupdating(), 1);
  const std::string path = put("bad", detection);
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(open_file(path), deny);
    return service().isupdating() == 0;
  }));
  EXPECT_EQ(engine_calls("vseRelease"), 3);
  EXPECT_EQ(engine_calls("vseInit"), 6);
  EXPECT_TRUE(eventually([&] {
    return has_logged("event_processing_thread Thread 0 detected update request. Cache cleared\n");
  }));
}

TEST_F(EventWorkerTest, AWorkerThatSleepsRenewsAfterItsNextEvent) {
  run(1);
  let_worker_sleep();
  (void)service().reloaddb();
  const std::string path = put("clean", "clean");
  EXPECT_EQ(open_file(path), allow);
  EXPECT_EQ(engine_calls("handle=1 operation=9"), 2);
  EXPECT_TRUE(cache().lookup(path));
  wait_for_handles(2);
  EXPECT_EQ(open_file(put("bad", detection)), deny);
  EXPECT_EQ(engine_calls("handle=2 operation=9"), 1);
}

TEST_F(EventWorkerTest, TheOldHandleServesWhileAnotherUpdateIsLoaded) {
  script("wait vseExec:14 " + gate_ + "\n");
  directory_.put("antivir.def", "");
  run(1);
  let_worker_sleep();
  std::thread update([this] { EXPECT_TRUE(scanner().apply_update(directory_.path())); });
  EXPECT_TRUE(eventually([this] {
    return directory_.read("engine-calls").find("operation=14") != std::string::npos;
  }));
  (void)service().reloaddb();
  const std::string bad = put("bad", detection);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(open_file(bad), deny);
  }
  EXPECT_EQ(engine_calls("handle=1 operation=9"), 3);
  directory_.put("gate", "");
  update.join();
  EXPECT_EQ(open_file(bad), deny);
  EXPECT_TRUE(eventually([] { return service().isupdating() == 0; })) << "it has renewed";
}

TEST_F(EventWorkerTest, ASecondUpdateDuringARenewalLeavesNobodyOnAnOldHandle) {
  run_and_update_while_one_is_busy(2);
  EXPECT_EQ(open_file(put("bad", detection)), deny);
  ASSERT_TRUE(eventually([&] { return engine_calls("vseInit") == 3; }));
  (void)service().reloaddb();
  release();
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(open_file(put("bad", detection)), deny);
    return service().isupdating() == 0;
  }));
  const long scans_before = engine_calls("handle=3 operation=9");
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(open_file(put("bad", detection)), deny);
  }
  EXPECT_EQ(engine_calls("handle=3 operation=9"), scans_before) << "of the first update";
}

TEST_F(EventWorkerTest, ARenewalThatWaitsForABusyWorkerHoldsEachOfTheOthersOnce) {
  constexpr int workers = 3;
  constexpr int opens = 200;
  const auto begin = std::chrono::steady_clock::now();
  run_and_update_while_one_is_busy(workers);
  const std::string bad = put("bad", detection);
  for (int i = 0; i < opens; ++i) {
    ASSERT_EQ(open_file(bad), deny) << i;
  }
  EXPECT_EQ(service().isupdating(), 1);
  const auto looks = (std::chrono::steady_clock::now() - begin) / time_limits::queue_interval + 1;
  EXPECT_THAT(logged(), Contains(EndsWith(" detected reload request\n"))
                            .Times(testing::Le(1 + opens + workers * looks)))
      << "an event wakes one worker, and only a look at the queue may wake all";
  // Each let-through comes after a second: one is needed, a busy machine may see a few more.
  EXPECT_LT(service().getefp()->update_barrier.turn(), 6U) << "events have waited for let-throughs";
  EXPECT_EQ(engine_calls("vseInit"), 5) << "each of the two has renewed once";
  release();
  EXPECT_TRUE(eventually([] { return service().isupdating() == 0; }))
      << "those who were let through have arrived, only the busy one was missing";
}

TEST_F(EventWorkerTest, AWorkerThatWasLetThroughRenewsForTheNextUpdate) {
  run_and_update_while_one_is_busy(2);
  const std::string bad = put("bad", detection);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_file(bad), deny);
  }
  ASSERT_EQ(engine_calls("vseInit"), 3);
  (void)service().reloaddb();
  EXPECT_EQ(open_file(bad), deny);
  wait_for_handles(4);
  EXPECT_EQ(open_file(bad), deny);
  EXPECT_GE(engine_calls("handle=4 operation=9"), 1);
  release();
}

TEST_F(EventWorkerTest, AVerdictOnWhatHasChangedDuringTheScanIsNotRemembered) {
  run_with_handles(2);
  const auto open_finds_it_bad = [this](const std::string& name) {
    EXPECT_EQ(open_file(put(name, detection)), deny);
  };
  const auto write_makes_it_bad = [this](const std::string& name) {
    EXPECT_EQ(close_written(put(name, detection)), deny);
  };
  const auto write_is_not_scanned = [this](const std::string& name) {
    service().getefp()->set_most_held(0);
    EXPECT_EQ(close_written(put(name, "clean")), allow);
    service().getefp()->set_most_held(100);
  };
  const auto definitions_change = [](const std::string&) { (void)service().reloaddb(); };
  const std::function<void(const std::string&)> changes[] = {
      open_finds_it_bad, write_makes_it_bad, write_is_not_scanned, definitions_change};
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    const std::string name = "file" + std::to_string(i);
    const std::string path = feed_slow(name);
    changes[i](name);
    release();
    EXPECT_FALSE(cache().lookup(path));
    std::filesystem::remove(gate_);
  }
}

TEST_F(EventWorkerTest, AVerdictIsNotRememberedWhileWhatWasWrittenMeanwhileIsScanned) {
  run_with_handles(2);
  const std::string path = feed_slow("file");
  const std::string second_gate = directory_.path("second-gate");
  put("file", "!wait " + second_gate + "\n");
  const int written = feed(path, FAN_CLOSE_WRITE);
  const auto scans_begun = [this] {
    return testing::Matches(Contains(StartsWith("File scan: ")).Times(2))(logged());
  };
  ASSERT_TRUE(eventually(scans_begun));
  release();
  EXPECT_FALSE(cache().lookup(path)) << "an open by now must be scanned";
  directory_.put("second-gate", "");
  EXPECT_EQ(filter_.verdict_for(written), allow);
}

TEST_F(EventWorkerTest, AHandleWhoseRenewalFailedIsNeitherUsedNorReleasedAgain) {
  script("fail vseInit 2\n");
  run(1);
  let_worker_sleep();
  const std::string bad = put("bad", detection);
  (void)service().reloaddb();
  EXPECT_EQ(open_file(bad), deny);
  EXPECT_EQ(open_file(bad), allow);
  EXPECT_EQ(scans_of(bad), 1);
  (void)service().reloaddb();
  EXPECT_TRUE(eventually([&] { return open_file(bad) == deny; })) << "the next update tries again";
  EXPECT_EQ(engine_calls("vseRelease"), 1);
}

TEST_F(EventWorkerTest, AStopLeavesWhatIsHeldToTheKernel) {
  run(1);
  (void)feed_slow("slow");
  (void)feed(put("bad", detection));
  ASSERT_TRUE(eventually([] { return service().getefp()->held() == 2; }));
  stop();
  directory_.put("gate", "");
  EXPECT_TRUE(eventually([] { return service().getefp()->held() == 1; })) << "the queue stays";
  EXPECT_TRUE(filter_.quiet()) << "answers come too late";
  EXPECT_EQ(statistics().denied, 0U);
}

TEST_F(EventWorkerTest, AHangingScanDoesNotKeepTheLoopFromEnding) {
  run_with_handles(2);
  (void)feed_slow("slow");
  stop();
  EXPECT_EQ(service().unreg_filter(), 0);
  EXPECT_TRUE(service().threads_left());
  directory_.put("gate", "");
  EXPECT_TRUE(
      eventually([&] { return logged_times("cancel_thread cancel_thread(): done\n") == 2; }));
  EXPECT_TRUE(eventually([this] { return !is_open(slow_fd_); })) << "its answer goes nowhere";
}

}  // namespace
