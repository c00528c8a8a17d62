// The service thread: what it does on request, in which order, and what it drops.
#include "fservice.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "engine_test.h"
#include "filter_service.h"
#include "service_test.h"
#include "wait.h"

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

  long logged_times(const std::string& record) const { return count_record(logged(), record); }
  void wait_for_record(const std::string& record, long times = 1) const {
    EXPECT_TRUE(eventually([&] { return logged_times(record) >= times; })) << record;
  }
  std::ptrdiff_t place_of(const std::string& record) const {
    const std::vector<std::string> all = logged();
    return std::find(all.begin(), all.end(), record) - all.begin();
  }
};

TEST_F(ServiceThreadTest, RunsFromTheFirstUseOn) {
  EXPECT_EQ(fservice::get(), fservice::get());
  EXPECT_EQ(fservice::start(), 0);
  wait_for_record(started);
  EXPECT_EQ(logged_times(started), 1);
}

TEST_F(ServiceThreadTest, SizesTheCacheFromTheSettings) {
  config().MaxCacheEntries = 42;
  (void)fservice::get();
  EXPECT_TRUE(eventually([] { return CCaching::getCacheManager()->max() == 42; }));
}

TEST_F(ServiceThreadTest, AnUpdateIsAppliedAndEmptiesTheCache) {
  stage_definitions();
  (void)fservice::get();
  wait_for_record(started);
  (void)CCaching::getCacheManager()->add("/clean");
  fservice::reload_avdb();
  wait_for_record(updated);
  EXPECT_TRUE(eventually([] { return CCaching::getCacheManager()->size() == 0; }));
  EXPECT_EQ(logged_times(updating), 1);
}

TEST_F(ServiceThreadTest, AFailedUpdateKeepsTheCacheAndTheNextTriesAgain) {
  (void)fservice::get();
  wait_for_record(started);
  (void)CCaching::getCacheManager()->add("/clean");
  fservice::reload_avdb();
  wait_for_record(update_failed);
  EXPECT_TRUE(CCaching::getCacheManager()->lookup("/clean"));
  stage_definitions();
  EXPECT_TRUE(eventually([this] {
    fservice::reload_avdb();
    return logged_times(updated) > 0;
  }));
}

TEST_F(ServiceThreadTest, ARequestFromBeforeItExistsIsServed) {
  fservice::start_scanner();
  EXPECT_EQ(logged_times(started), 0);
  (void)fservice::get();
  wait_for_record(pass_done);
}

TEST_F(ServiceThreadTest, APassNamesTheCommandsFile) {
  fservice::start_scanner();
  (void)fservice::get();
  wait_for_record(pass_done);
  EXPECT_EQ(logged_times("scanner_func scanner_func(): commands file is: " +
                         directory_.path("sdcommands.conf") + "\n"),
            1);
  EXPECT_LT(place_of(scanning), place_of(pass_done));
}

TEST_F(ServiceThreadTest, APassArmsTheAlarmForTheNextOne) {
  fservice::start_scanner();
  (void)fservice::get();
  wait_for_record(pass_done);
  EXPECT_TRUE(eventually([] { return alarm_left() > 0; }));
  EXPECT_THAT(alarm_left(), AllOf(Gt(20), Le(60)));
}

TEST_F(ServiceThreadTest, TheUpdateComesBeforeThePassOfTheSameCycle) {
  stage_definitions();
  fservice::start_scanner();
  fservice::reload_avdb();
  (void)fservice::get();
  wait_for_record(pass_done);
  EXPECT_LT(place_of(updated), place_of(scanning));
}

TEST_F(ServiceThreadTest, RequestsBeforeACycleMakeOneCycle) {
  stage_definitions();
  for (int i = 0; i < 100; ++i) {
    fservice::reload_avdb();
    fservice::start_scanner();
  }
  (void)fservice::get();
  wait_for_record(mounts_checked);  // by a later wake-up
  EXPECT_EQ(logged_times(updating), 1);
  EXPECT_EQ(logged_times(scanning), 1);
}

TEST_F(ServiceThreadTest, RequestsDuringACycleAreDropped) {
  hold_updates();
  fservice::reload_avdb();
  (void)fservice::get();
  wait_for_held_update();
  for (int i = 0; i < 5; ++i) {
    fservice::reload_avdb();
    fservice::start_scanner();
  }
  open_gate();
  wait_for_record(mounts_checked);
  EXPECT_EQ(logged_times(updating), 1);
  EXPECT_EQ(logged_times(scanning), 0);
}

TEST_F(ServiceThreadTest, ADroppedPassDoesNotEndTheChainOfAlarms) {
  hold_updates();
  fservice::reload_avdb();
  (void)fservice::get();
  wait_for_held_update();
  EXPECT_EQ(alarm_left(), 0);
  fservice::start_scanner();
  open_gate();
  EXPECT_TRUE(eventually([] { return alarm_left() > 0; }));
  EXPECT_THAT(alarm_left(), AllOf(Gt(20), Le(60)));
  EXPECT_EQ(logged_times(scanning), 0);
}

TEST_F(ServiceThreadTest, ADroppedPassDoesNotPutOffAnEarlierAlarm) {
  hold_updates();
  fservice::reload_avdb();
  (void)fservice::get();
  wait_for_held_update();
  (void)alarm(40);
  fservice::start_scanner();
  open_gate();
  wait_for_record(mounts_checked);  // the cycle is over
  EXPECT_THAT(alarm_left(), AllOf(Gt(0), Le(40)));
}

TEST_F(ServiceThreadTest, AServedRequestIsNotServedAgain) {
  fservice::start_scanner();
  (void)fservice::get();
  wait_for_record(pass_done);
  wait_for_record(mounts_checked);
  EXPECT_EQ(logged_times(scanning), 1);
}

TEST_F(ServiceThreadTest, TheMountTableIsCheckedAgainAndAgainWithoutAnyRequest) {
  (void)fservice::get();
  wait_for_record(mounts_checked, 2);
}

TEST_F(ServiceThreadTest, MoreThanThreeSecondsLieBetweenTwoChecksHoweverOftenItIsWoken) {
  using Clock = std::chrono::steady_clock;
  (void)fservice::get();
  const auto wake_until_checked = [this](long times) {
    Clock::time_point before = Clock::now();  // of the check that is waited for
    Clock::time_point next = before;
    EXPECT_TRUE(eventually([&] {
      const Clock::time_point look = Clock::now();
      if (look < next) {
        return false;  // each wake-up makes records, all of which are read every time
      }
      next = look + std::chrono::milliseconds(20);
      const bool checked = logged_times(mounts_checked) >= times;
      before = checked ? before : look;
      fservice::start_scanner();
      return checked;
    }));
    return before;
  };
  const auto before_first = wake_until_checked(1);
  (void)wake_until_checked(2);
  EXPECT_GT(Clock::now() - before_first, std::chrono::seconds(3));
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

TEST_F(ServiceThreadTest, AStopEndsAnIdleThreadAtOnce) {
  (void)fservice::get();
  wait_for_record(started);
  EXPECT_TRUE(fservice::get()->stop());
  EXPECT_TRUE(fservice::get()->stop()) << "a second stop finds nothing left to do";
}

TEST_F(ServiceThreadTest, AStopWaitsForABusyThreadWithinItsBoundOnly) {
  hold_updates();
  fservice::reload_avdb();
  (void)fservice::get();
  wait_for_held_update();
  EXPECT_FALSE(fservice::get()->stop(std::chrono::milliseconds(100)));
  open_gate();
  EXPECT_TRUE(eventually([] { return fservice::get()->stop(); }));
  EXPECT_EQ(logged_times(mounts_checked), 0);
}

/// With workers, and without looks at the mount table, whose mounts are not theirs.
class UpdateUnderWorkTest : public ServiceTest {
 protected:
  UpdateUnderWorkTest() {
    config().StagingDirectory = directory_.path();
    config().DefinitionType = ConfParser::V1;
    config().mount_tracking = false;
    directory_.put("antivir.def", "");
  }
  ~UpdateUnderWorkTest() override {
    EXPECT_TRUE(eventually([] { return fservice::get()->stop(); }));
  }

  /// Asks for updates until this many have begun: a request during a cycle is dropped.
  void begin_update(std::size_t times) const {
    EXPECT_TRUE(eventually([&] {
      fservice::reload_avdb();
      return updates_begun() >= times;
    }));
  }

  std::size_t updates_begun() const {
    std::istringstream record(directory_.read("engine-calls"));
    std::size_t count = 0;
    for (std::string line; std::getline(record, line);) {
      count += line.starts_with("vseExec-begin ") && line.find("operation=14") != line.npos ? 1 : 0;
    }
    return count;
  }
};

TEST_F(UpdateUnderWorkTest, AFailedOneHasAWorkerRenewThatPutItOffMeanwhile) {
  script("wait vseExec:14 2 " + directory_.path("second") + "\nfail vseExec:14 2\n");
  run(1);
  ASSERT_TRUE(eventually([&] { return engine_calls("vseInit") == 1; }));
  const std::string slow = put("slow", "!wait " + directory_.path("gate") + "\n");
  const int slow_fd = feed(slow);
  ASSERT_TRUE(eventually([&] { return scan_has_begun(slow); }));
  (void)fservice::get();
  begin_update(1);
  ASSERT_TRUE(eventually([] { return service().getefp()->update_barrier.update() == 1; }));
  begin_update(2);
  directory_.put("gate", "");
  EXPECT_EQ(filter_.verdict_for(slow_fd), FAN_ALLOW);
  ASSERT_TRUE(scanner_sleeps(slow));
  EXPECT_EQ(engine_calls("vseRelease handle=1 "), 0) << "the second update is being loaded";
  directory_.put("second", "");
  EXPECT_TRUE(eventually([&] { return engine_calls("vseRelease handle=1 ") == 1; }));
  EXPECT_TRUE(has_logged(update_failed));
}

}  // namespace
