// The service while the thread that reads events is stuck in a read: the kernel opens the event's
// file, and its server waits for this process. The C library's calls that lead there are replaced
// here, for this program alone.
#include <gmock/gmock.h>
#include <sys/uio.h>

#include <map>
#include <optional>

#include "service_test.h"

namespace {

int group = -1;             // what the kernel gives for a filter
std::string area_file;      // what stands for the status area's object
std::atomic<int> stuck{0};  // so many of the next reads of an event wait until release
std::atomic<bool> released{false};
std::atomic<int> waiting{0};

bool takes_turn_to_be_stuck() {
  int left = stuck.load();
  while (left > 0 && !stuck.compare_exchange_weak(left, left - 1)) {
  }
  return left > 0;
}

}  // namespace

extern "C" int fanotify_init(unsigned int, unsigned int) noexcept {
  return group;
}

extern "C" int shm_open(const char*, int flags, mode_t mode) {
  return open(area_file.c_str(), flags | O_CLOEXEC, mode);
}

extern "C" int shm_unlink(const char*) {
  return unlink(area_file.c_str());
}

extern "C" ssize_t read(int fd, void* buffer, size_t size) {
  // Not the bare system call: ThreadSanitizer has to see what the reading orders.
  iovec part{buffer, size};
  const ssize_t result = readv(fd, &part, 1);
  if (fd == group && result > 0 && takes_turn_to_be_stuck()) {
    ++waiting;
    while (!released) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // for as long as the test wants
    }
    --waiting;
  }
  return result;
}

namespace {

constexpr std::uint32_t allow = FAN_ALLOW;
constexpr std::uint32_t deny = FAN_DENY;
constexpr char detection[] = "!detect name=Test.Found\n";

std::atomic<int> last_resorts{0};

class StuckReaderTest : public ServiceTest {
 protected:
  explicit StuckReaderTest(std::chrono::milliseconds patience = std::chrono::seconds(30)) {
    service().set_patience(patience);
    service().set_last_resort([] { ++last_resorts; });
    area_file = directory_.path("area");
    fsfilter_context_t* unregistered = cast(service().get_descr());
    group = unregistered->fanotify_fd;
    (void)munmap(unregistered->shared, sizeof(fsfilter_shared_area));
    delete unregistered;
    service().get_descr() = nullptr;
    EXPECT_EQ(service().reg_filter(), 0);
  }
  ~StuckReaderTest() override {
    released = true;
    stop();
    (void)service().unreg_filter();
  }

  /// Feeds an event whose reader is stuck with it when this returns. @return its descriptor
  int feed_stuck(const std::string& path) {
    const int before = waiting;
    ++stuck;
    const int fd = feed(path);
    EXPECT_TRUE(eventually([&] { return waiting == before + 1; }));
    return fd;
  }
};

TEST_F(StuckReaderTest, EventsAreReadInItsPlaceAndScanned) {
  run(2);
  const std::string bad = put("bad", detection);
  EXPECT_EQ(open_file(bad), deny);
  const int stuck_fd = feed_stuck(put("stuck", "clean"));
  EXPECT_EQ(open_file(bad), deny);
  EXPECT_EQ(open_file(put("clean", "clean")), allow);
  EXPECT_EQ(scans_of(bad), 2);
  released = true;
  EXPECT_EQ(filter_.verdict_for(stuck_fd), allow);
}

TEST_F(StuckReaderTest, AStandbyReaderThatGetsStuckTooIsReplaced) {
  run(2);
  const std::string bad = put("bad", detection);
  (void)feed_stuck(put("stuck", "clean"));
  (void)feed_stuck(put("stuck too", "clean"));
  EXPECT_EQ(open_file(bad), deny);
  released = true;
  EXPECT_EQ(filter_.answer()->response, allow);
  EXPECT_EQ(filter_.answer()->response, allow);
}

TEST_F(StuckReaderTest, TheEventItIsStuckWithIsAnsweredOnceItGetsOn) {
  run(1);
  const std::string bad = put("bad", detection);
  const int fd = feed_stuck(bad);
  EXPECT_TRUE(filter_.quiet());
  released = true;
  EXPECT_EQ(filter_.verdict_for(fd), deny);
  EXPECT_EQ(open_file(bad), deny) << "the main thread reads again";
}

TEST_F(StuckReaderTest, BeforeTheLoopRunsEventsAreAllowedUnscannedInsteadOfHeld) {
  (void)service().addmnt({watched_, "tmpfs"});  // from the first mark on
  const std::string bad = put("bad", detection);
  EXPECT_EQ(open_file(bad), allow);
  EXPECT_EQ(close_written(bad), allow);
  EXPECT_EQ(scans_of(bad), 0);
}

TEST_F(StuckReaderTest, AfterTheLoopEventsAreAllowedUnscannedInsteadOfHeld) {
  run(1);
  const std::string bad = put("bad", detection);
  EXPECT_EQ(open_file(bad), deny);
  stop();
  EXPECT_EQ(open_file(bad), allow);
  EXPECT_EQ(scans_of(bad), 1);
}

TEST_F(StuckReaderTest, AStandbyReaderThatIsStuckAtTheEndIsLeftBehindAndNothingHeld) {
  run(1);
  const std::string bad = put("bad", detection);
  EXPECT_EQ(open_file(bad), deny);
  stop();
  const int stuck_fd = feed_stuck(bad);
  EXPECT_EQ(service().unreg_filter(), 0);
  EXPECT_TRUE(service().threads_left());
  EXPECT_FALSE(eventually([] { return waiting == 0; }, std::chrono::milliseconds(50)));
  released = true;
  EXPECT_TRUE(eventually([&] { return !is_open(stuck_fd); })) << "its late answer closes it";
}

TEST_F(StuckReaderTest, AStopLetsGoOfAllAlthoughItIsStuck) {
  run(1);
  const std::string go = directory_.path("go");
  const std::string slow = put("slow", "!wait " + go + "\n");
  const int in_work = feed(slow);
  EXPECT_TRUE(eventually([&] { return scan_has_begun(slow); }));
  const int queued = feed(put("queued", detection));
  EXPECT_TRUE(eventually([&] { return service().getefp()->held == 2; }));
  (void)feed_stuck(put("stuck", "clean"));
  service().stop();
  std::map<int, std::uint32_t> verdicts;
  for (int i = 0; i < 2; ++i) {
    const auto answer = filter_.answer();
    ASSERT_TRUE(answer);
    verdicts[answer->fd] = answer->response;
  }
  EXPECT_THAT(verdicts, testing::UnorderedElementsAre(testing::Pair(in_work, allow),
                                                      testing::Pair(queued, allow)));
  // What is in work may be answered again at each look.
  const int later = feed(put("later", detection));
  std::optional<fanotify_response> last;
  EXPECT_TRUE(eventually([&] {
    last = filter_.answer();
    return !last || last->fd == later;
  }));
  ASSERT_TRUE(last);
  EXPECT_EQ(last->response, allow);
  EXPECT_TRUE(eventually([] { return last_resorts > 0; })) << "the process is to end all the same";
  directory_.put("go", "");
  released = true;
}

TEST_F(StuckReaderTest, AStopThatGetsOnNeedsNoLastResort) {
  run(1);
  EXPECT_EQ(open_file(put("bad", detection)), deny);
  stop();
  EXPECT_EQ(service().unreg_filter(), 0);
  EXPECT_EQ(last_resorts, 0);
}

constexpr std::chrono::milliseconds patience{2000};

/// Workers that do not get on with what they scan.
class StuckWorkersTest : public StuckReaderTest {
 protected:
  StuckWorkersTest() : StuckReaderTest(patience) {}
  ~StuckWorkersTest() override { directory_.put("go", ""); }

  /// The only worker is busy with this file when this returns. @return its descriptor
  int keep_worker_busy() {
    const std::string slow = put("slow", "!wait " + directory_.path("go") + "\n");
    const int fd = feed(slow);
    EXPECT_TRUE(eventually([&] { return scan_has_begun(slow); }));
    return fd;
  }
};

TEST_F(StuckWorkersTest, WhatWaitsForThemTooLongIsAllowedAndScannedLate) {
  run(1);
  const int busy = keep_worker_busy();
  const std::string bad = put("bad", detection);
  const int overdue = feed(bad);
  EXPECT_EQ(filter_.verdict_for(overdue), allow);
  EXPECT_TRUE(is_open(overdue)) << "it is still to be scanned";
  directory_.put("go", "");
  EXPECT_EQ(filter_.verdict_for(busy), allow);
  EXPECT_EQ(filter_.verdict_for(overdue), deny) << "nobody waits for this one";
  EXPECT_TRUE(eventually([&] { return !is_open(overdue); }));
  EXPECT_EQ(service().getefp()->held, 0);
}

TEST_F(StuckWorkersTest, WhatComesBeforeTheyHaveCaughtUpIsAllowedToo) {
  run(1);
  (void)keep_worker_busy();
  EXPECT_EQ(filter_.verdict_for(feed(put("bad", detection))), allow);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(filter_.verdict_for(feed(put("later", detection))), allow);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, patience) << "it waited as long as the first";
}

TEST_F(StuckWorkersTest, OnceTheyHaveCaughtUpEventsAreScannedFirst) {
  run(1);
  const int busy = keep_worker_busy();
  const int overdue = feed(put("late", "clean"));
  EXPECT_EQ(filter_.verdict_for(overdue), allow);
  directory_.put("go", "");
  EXPECT_EQ(filter_.verdict_for(busy), allow);
  EXPECT_EQ(filter_.verdict_for(overdue), allow);
  EXPECT_EQ(open_file(put("bad", detection)), deny);
}

TEST_F(StuckWorkersTest, EachOfTheseIsCountedOnce) {
  run(1);
  (void)keep_worker_busy();
  EXPECT_EQ(filter_.verdict_for(feed(put("one", "clean"))), allow);
  EXPECT_EQ(filter_.verdict_for(feed(put("two", "clean"))), allow);
  service().report();
  EXPECT_TRUE(has_logged(
      "report 2 file events were allowed without a scan: nobody to scan them in time, or path too "
      "long\n"))
      << testing::PrintToString(logged());
}

TEST_F(StuckReaderTest, WithoutAStuckReaderTheFilterIsClosedWithNobodyLeft) {
  run(1);
  EXPECT_EQ(open_file(put("bad", detection)), deny);
  stop();
  EXPECT_EQ(service().unreg_filter(), 0);
  EXPECT_FALSE(service().threads_left());
}

}  // namespace
