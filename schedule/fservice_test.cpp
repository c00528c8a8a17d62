// The service thread: what it does on request, in which order, and what it drops.
#include "fservice.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "filter_service.h"
#include "scripted_engine_fixture.h"
#include "wait.h"

namespace {

/// Whether the next look at the mount table finds no memory; a pass is asked for in that cycle.
std::atomic<bool> no_memory{false};

}  // namespace

// It stands before the C library's in this program; libraries it loads still call that one.
int open(const char* path, int flags, ...) {
  if (std::string_view(path) == "/etc/mtab" && no_memory.exchange(false)) {
    fservice::start_scanner();
    throw std::bad_alloc();
  }
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_LARGEFILE, 0600));
}

namespace {

using testing::AllOf;
using testing::Gt;
using testing::Le;

constexpr char started[] = "service_thread service_thread(): started\n";
constexpr char updating[] = "service_thread update av database\n";
constexpr char updated[] = "service_thread av database updated.\n";
constexpr char update_failed[] = "service_thread error updating av database\n";
constexpr char scanning[] = "service_thread starting scanner\n";
constexpr char pass_done[] = "scanner_func scanner_func(): done\n";
constexpr char mounts_checked[] = "check_mountpts check_mountpts done\n";

/// Seconds until the alarm, 0 without one.
double alarm_left() {
  itimerval timer{};
  (void)getitimer(ITIMER_REAL, &timer);
  return static_cast<double>(timer.it_value.tv_sec) +
         static_cast<double>(timer.it_value.tv_usec) / 1e6;
}

class ServiceThreadTest : public EngineTest {
 protected:
  ServiceThreadTest() {
    (void)signal(SIGALRM, SIG_IGN);
    config().StagingDirectory = directory_.path();
    config().DefinitionType = ConfParser::V1;
    config().ConfPath = directory_.path();
  }
  ~ServiceThreadTest() override {
    open_gate();
    EXPECT_TRUE(eventually([] { return fservice::get()->stop(); }));
    (void)alarm(0);
  }

  void stage_definitions() const { directory_.put("antivir.def", ""); }

  /// Makes updates last until open_gate().
  void hold_updates() const {
    script("wait vseExec:14 " + directory_.path("gate") + "\n");
    stage_definitions();
  }
  void open_gate() const { directory_.put("gate", ""); }
  void wait_for_held_update() const {
    EXPECT_TRUE(eventually([this] {
      const std::string record = directory_.read("engine-calls");
      const std::size_t begin = record.find("vseExec-begin");
      return begin != std::string::npos && record.find("operation=14", begin) != std::string::npos;
    }));
  }

  void wait_for_record(const std::string& record, long times = 1) const {
    EXPECT_TRUE(eventually([&] { return logged_times(record) >= times; })) << record;
  }
  std::ptrdiff_t place_of(const std::string& record) const {
    const std::vector<std::string> all = logged();
    return std::find(all.begin(), all.end(), record) - all.begin();
  }
};

TEST_F(ServiceThreadTest, RunsFromTheFirstUseOnAndSizesTheCache) {
  config().MaxCacheEntries = 42;
  EXPECT_EQ(fservice::get(), fservice::get());
  EXPECT_EQ(fservice::start(), 0);
  wait_for_record(started);
  EXPECT_EQ(logged_times(started), 1);
  EXPECT_TRUE(eventually([] { return CCaching::getCacheManager()->max() == 42; }));
}

TEST_F(ServiceThreadTest, AFailedUpdateKeepsTheCacheAndTheNextOneEmptiesIt) {
  (void)fservice::get();
  wait_for_record(started);
  (void)CCaching::getCacheManager()->add("/clean");
  fservice::reload_avdb();
  wait_for_record(update_failed);
  EXPECT_TRUE(CCaching::getCacheManager()->lookup("/clean"));
  EXPECT_EQ(logged_times(updating), 1);
  stage_definitions();
  EXPECT_TRUE(eventually([this] {
    fservice::reload_avdb();
    return logged_times(updated) > 0;
  }));
  EXPECT_TRUE(eventually([] { return CCaching::getCacheManager()->size() == 0; }));
}

TEST_F(ServiceThreadTest, RequestsFromBeforeItExistsMakeOneCycleInWhichTheUpdateComesFirst) {
  stage_definitions();
  for (int i = 0; i < 100; ++i) {
    fservice::start_scanner();
    fservice::reload_avdb();
  }
  EXPECT_EQ(logged_times(started), 0);
  (void)fservice::get();
  wait_for_record(pass_done);
  EXPECT_TRUE(eventually([] { return alarm_left() > 0; })) << "for the next pass";
  EXPECT_THAT(alarm_left(), AllOf(Gt(20), Le(60)));
  wait_for_record(mounts_checked);  // by a later wake-up
  EXPECT_EQ(logged_times(updating), 1);
  EXPECT_EQ(logged_times(scanning), 1);
  EXPECT_LT(place_of(updated), place_of(scanning));
  EXPECT_LT(place_of(scanning), place_of(pass_done));
}

/// A cycle that lasts until the gate opens, while there is an alarm or not.
class DroppedRequests : public ServiceThreadTest, public testing::WithParamInterface<unsigned> {};

TEST_P(DroppedRequests, DoNotEndTheChainOfAlarmsNorPutOffAnEarlierOne) {
  hold_updates();
  fservice::reload_avdb();
  (void)fservice::get();
  wait_for_held_update();
  EXPECT_EQ(alarm_left(), 0);
  (void)alarm(GetParam());
  for (int i = 0; i < 5; ++i) {
    fservice::reload_avdb();
    fservice::start_scanner();
  }
  open_gate();
  wait_for_record(mounts_checked);  // by a later cycle
  EXPECT_THAT(alarm_left(), AllOf(Gt(0), Le(GetParam() == 0 ? 60 : GetParam())));
  EXPECT_EQ(logged_times(updating), 1);
  EXPECT_EQ(logged_times(scanning), 0);
}

INSTANTIATE_TEST_SUITE_P(Alarm, DroppedRequests, testing::Values(0, 40));

TEST_F(ServiceThreadTest, ACycleWithoutMemoryEndsNeitherTheThreadNorTheChainOfAlarms) {
  no_memory = true;
  (void)fservice::get();
  EXPECT_TRUE(eventually([] { return alarm_left() > 0; }));
  EXPECT_FALSE(no_memory);
  EXPECT_EQ(logged_times(scanning), 0);
  fservice::start_scanner();
  wait_for_record(pass_done);
}

TEST_F(ServiceThreadTest, MoreThanThreeSecondsLieBetweenTwoChecksHoweverOftenItIsWoken) {
  const auto begin = std::chrono::steady_clock::now();
  (void)fservice::get();
  auto next = begin;
  EXPECT_TRUE(eventually([&] {
    if (std::chrono::steady_clock::now() < next) {
      return false;  // each wake-up makes records, all of which are read every time
    }
    next += std::chrono::milliseconds(20);
    fservice::start_scanner();
    return logged_times(mounts_checked) >= 2;
  }));
  EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(6));
}

TEST_F(ServiceThreadTest, WithoutMountTrackingTheMountTableIsNeverRead) {
  config().mount_tracking = false;
  (void)fservice::get();
  wait_for_record(started);
  const std::time_t begin = std::time(nullptr);
  ASSERT_TRUE(eventually([begin] { return std::time(nullptr) - begin >= 5; }));
  fservice::start_scanner();  // with a check that would be due by now
  wait_for_record(pass_done);
  EXPECT_EQ(logged_times(mounts_checked), 0);
}

TEST_F(ServiceThreadTest, AStopWaitsForABusyThreadWithinItsBoundOnly) {
  hold_updates();
  fservice::reload_avdb();
  (void)fservice::get();
  wait_for_held_update();
  EXPECT_FALSE(fservice::get()->stop(std::chrono::milliseconds(100)));
  open_gate();
  EXPECT_TRUE(eventually([] { return fservice::get()->stop(); }));
  EXPECT_TRUE(fservice::get()->stop()) << "nothing is left to do";
  EXPECT_EQ(logged_times(mounts_checked), 0);
}

}  // namespace
