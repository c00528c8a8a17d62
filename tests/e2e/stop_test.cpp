// However the daemon ends: every opener is released, and a stop leaves nothing behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "fixture.h"
#include "openers.h"

namespace e2e {
namespace {

// labels: alone
class Stop : public E2eTest {
 protected:
  std::string endless() const { return "!wait " + work("never") + "\n"; }
};

// labels: essential one-processor
TEST_F(Stop, SigtermWhileIdleAgainAndAgain) {
  const std::string file = put_infected("bad");
  for (const char* asynchronous : {"no", "yes", "no"}) {
    set("AsyncLogging", asynchronous);
    start();
    EXPECT_EQ(world().read(pid_file), std::to_string(daemon().pid()) + "\n");
    struct stat info {};
    ASSERT_EQ(stat(pid_file, &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644U);
    EXPECT_EQ(open_status(file), EPERM);
    stop(stop_bound);
    EXPECT_TRUE(logged("infection detected in: "));
  }
  start();
  daemon().signal(SIGINT);
  EXPECT_EQ(daemon().wait(stop_bound), Exit{});
  expect_nothing_left();
}

TEST_F(Stop, SignalWhileTheConfigurationIsReadFromAPipe) {
  const std::string pipe = work("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const int number : {SIGTERM, SIGINT}) {
    launch({.arguments = {"-n", "-c", pipe}});
    expect_no_clean_end();
    int writer = -1;
    ASSERT_TRUE(eventually([&] {
      writer = open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      return writer >= 0;
    }));
    daemon().signal(number);
    EXPECT_EQ(daemon().wait(stop_bound), (Exit{0, number}));
    (void)close(writer);
  }
}

struct HowToStop {
  const char* name;
  int signal;
  bool unwanted;  // so many events of others that the next is there before the last is answered
};

// labels: alone essential one-processor
class StopUnderLoad : public Stop, public testing::WithParamInterface<HowToStop> {};

TEST_P(StopUnderLoad, ReleasesEveryOpener) {
  std::vector<std::string> clean = put_files("file", 50);
  std::vector<std::string> infected = put_files("bad", 2, "!detect\n");
  if (GetParam().unwanted) {
    clean = {touch(work("unwanted"))};
    infected.clear();
  }
  for (int round = 0; round < 5; ++round) {
    const std::string end = work("end" + std::to_string(round));
    launch();
    // Until then the area is the one that a killed daemon has left.
    ASSERT_TRUE(eventually([&] { return daemon_pid() == daemon().pid(); }));
    wait_until_ready();
    const auto area = StatusArea::map();
    OpenersUntilToldToEnd openers(GetParam().unwanted ? 32 : 6, clean, infected, end);
    const uint64_t begun = area->answered() + 200;
    ASSERT_TRUE(eventually([&] { return area->answered() > begun; }));
    if (GetParam().signal == SIGTERM) {
      stop(stop_bound);
    } else {
      kill_daemon();
      unlink(pid_file);
    }
    EXPECT_TRUE(openers.all_running()) << "an open went wrong";
    touch(end);
    EXPECT_TRUE(openers.all_released());
  }
  unlink(StatusArea::path);
}

INSTANTIATE_TEST_SUITE_P(By, StopUnderLoad,
                         testing::Values(HowToStop{"Sigterm", SIGTERM, false},
                                         HowToStop{"SigtermBesideUnwantedEvents", SIGTERM, true},
                                         HowToStop{"Sigkill", SIGKILL, false}),
                         [](const auto& test) { return test.param.name; });

TEST_F(Stop, AnEngineThatExitsEndsTheDaemonAndReleasesEveryOpener) {
  const auto files = put_files("file", 4, endless());
  const std::string last = put("last", "!exit 0\n");
  start();
  expect_no_clean_end();
  OpenersAtOnce openers(files, 4);
  ASSERT_TRUE(eventually([&] { return held_descriptors() == 4; }));
  Process opener = start_open(last);
  EXPECT_EQ(daemon().wait(), Exit{1});
  EXPECT_TRUE(openers.wait());
  EXPECT_EQ(opener.status(), 0);
  EXPECT_NE(access(pid_file, F_OK), 0);
}

// A renewal of the engine handles, stopped where some workers have theirs and others do not.

// labels: essential
TEST_F(Stop, SigtermDuringARenewalWithAWorkerInsideTheEngine) {
  const auto files = put_files("file", 5, "!wait " + work("gate") + "\n");
  stage_definitions();
  start();
  OpenersAtOnce openers(files, 5);
  wait_for_begin("vseExec", 5);
  // After the update's own the second renewed one hangs.
  const size_t made = count_of(engine_record(), "vseInit-begin ");
  script("wait vseInit " + std::to_string(made + 3) + " " + work("never") + "\n");
  daemon().signal(SIGHUP);
  // The update is in force: each worker renews after its event.
  ASSERT_TRUE(eventually([&] { return engine_calls("vseRelease").size() == 1; }));
  touch(work("gate"));
  wait_for_begin("vseInit", 8);
  stop(stop_bound);
  EXPECT_TRUE(openers.wait());
  EXPECT_EQ(openers.tally().allowed, 5);
}

// labels: essential
TEST_F(Stop, SigtermDuringARenewalWithWorkersWaitingForTheOthers) {
  // Four workers are inside scans and cannot renew; the fifth has renewed.
  const auto files = put_files("file", 4, endless());
  const std::string clean = put_clean("clean");
  stage_definitions();
  start();
  OpenersAtOnce held(files, 4);
  ASSERT_TRUE(eventually([&] { return engine_calls("vseExec-begin").size() == 4; }));
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return !engine_calls("vseRelease").empty(); }));
  Process opener = start_open(clean);
  wait_for_begin("vseInit", 7);
  stop(stop_bound);
  EXPECT_TRUE(held.wait());
  EXPECT_EQ(held.tally().allowed, 4);
  EXPECT_EQ(opener.status(), 0);
}

TEST_F(Stop, SigtermWhileDefinitionsAreLoadedAndWhileWorkersGetTheirFirstHandles) {
  stage_definitions();
  script("wait vseExec:14 " + work("never") + "\n");
  start();
  daemon().signal(SIGHUP);
  wait_for_begin("vseExec");
  stop(stop_bound);
  world().put(work("engine.record"), "");
  script("wait vseInit 4 " + work("never") + "\n");
  launch();
  wait_for_begin("vseInit", 3);
  stop(stop_bound);
}

TEST_F(Stop, SigtermWhileTheEngineStartsIsNotLostAndWaitsForNoEngine) {
  for (const char* file : {"go", "never"}) {
    script("wait vseGlobalInit " + work(file) + "\n");
    launch();
    wait_for_begin("vseGlobalInit", 1);
    EXPECT_FALSE(is_registered(watched()));
    EXPECT_TRUE(World::exists(pid_file));
    daemon().signal(SIGTERM);
    ASSERT_TRUE(eventually([&] { return errors().find("terminate signal\n") == 0; }));
    release();  // which the second does not wait for
    EXPECT_EQ(daemon().wait(stop_bound), Exit{}) << file;
    expect_nothing_left();
    world().put(work("engine.record"), "");
    world().put(work("stderr"), "");
  }
}

TEST_F(Stop, SigtermAtAnyMomentOfTheStart) {
#if PELO_SLOW
  constexpr int step_milliseconds = 120;
#else
  constexpr int step_milliseconds = 12;
#endif
  for (int round = 0; round < 8; ++round) {
    launch();
    std::this_thread::sleep_for(
        Duration(round * step_milliseconds));  // another moment of it each round
    daemon().signal(SIGTERM);
    const auto exit = daemon().wait(stop_bound);
    ASSERT_TRUE(exit.has_value()) << "after " << round * step_milliseconds << " ms";
    // Before the program has set its handlers the signal has its default effect.
    EXPECT_TRUE(*exit == Exit{} || (exit->signal == SIGTERM && engine_record().empty()))
        << *exit << " after " << round * step_milliseconds << " ms";
    expect_nothing_left();
    world().put(work("engine.record"), "");
  }
  expect_no_clean_end();
}

TEST_F(Stop, PidFileLeftBehindIsNotTouchedByTheNextStart) {
  World::make_folder("/run/pelo");
  world().put(pid_file, "4242\n");
  start();
  EXPECT_EQ(world().read(pid_file), "4242\n");
  EXPECT_EQ(errors(), "Unable to create pid file: File exists\n");
}

TEST_F(Stop, SecondDaemonIsRefusedAndTheFirstGoesOn) {
  const std::string file = put_infected("bad");
  start();
  for (const char* asynchronous : {"no", "yes"}) {
    set("LogPath", work("log2"));
    set("AsyncLogging", asynchronous);
    Process second = spawn({});
    EXPECT_EQ(second.wait(), (Exit{255, 0}));
    const std::string log = world().read(work("log2/pelowatchd.log"));
    EXPECT_NE(log.find("Error occurred in: Session ID: 0\nPath: \"\"\nArchive name: \"\"\n"
                       "Error number: 0x00000000\nError Description: \"Unable to register filter. "
                       "Check that daemon is run under root permissions.\"\n"),
              std::string::npos)
        << log;
    unlink(work("log2/pelowatchd.log").c_str());
  }
  EXPECT_EQ(daemon_pid(), daemon().pid());
  EXPECT_TRUE(World::exists(pid_file));
  EXPECT_EQ(open_status(file), EPERM);
}

// Detached from the console.

TEST_F(Stop, DetachedDaemonServesAndStops) {
  const std::string file = put_infected("bad");
  launch({.arguments = {"-c", work("pelowatchd.conf")}});
  EXPECT_EQ(daemon().wait(), Exit{}) << "the process that was started ends at once";
  expect_registered(watched());
  // Orphans become children of the first process of their pid namespace: of this one.
  Process detached = Process::adopt(daemon_pid());
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_EQ(world().read(pid_file), std::to_string(detached.pid()) + "\n");
  detached.signal(SIGTERM);
  EXPECT_EQ(detached.wait(stop_bound), Exit{});
  expect_nothing_left();
}

}  // namespace
}  // namespace e2e
