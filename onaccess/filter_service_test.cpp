// The service's operations. What happens to events: event_worker_test.cpp.
#include "filter_service.h"

#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>

#include "impossible_stack.h"
#include "service_fixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

std::atomic<pthread_t> signalled_thread{};

/// The thread of this process that the kernel knows by this number.
pthread_t thread_of(pid_t tid) {
  struct sigaction action {};
  action.sa_handler = [](int) { signalled_thread = pthread_self(); };
  (void)sigaction(SIGURG, &action, nullptr);
  signalled_thread = pthread_t{};
  EXPECT_EQ(tgkill(getpid(), tid, SIGURG), 0);
  EXPECT_TRUE(eventually([] { return signalled_thread != pthread_t{}; }));
  return signalled_thread;
}

class FilterServiceTest : public ServiceTest {
 protected:
  static fsfilter_context_t& context() { return *cast(service().get_descr()); }

  /// Runs one worker. @return its thread
  pthread_t run_one() {
    run_with_handles(1);
    const std::string record = directory_.read("engine-calls");
    const std::size_t tid = record.find(" thread=", record.find("vseInit "));
    return thread_of(std::stoi(record.substr(tid + std::strlen(" thread="))));
  }
};

TEST_F(FilterServiceTest, IsOneForTheProcessAndNothingRunsAtFirst) {
  EXPECT_EQ(fsfilter::get(), fsfilter::get());
  EXPECT_EQ(service().isrunning(), 0);
  EXPECT_EQ(service().isupdating(), 0);
  EXPECT_FALSE(service().threads_left());
  EXPECT_EQ(service().getCacheManager(), CCaching::getCacheManager());
}

TEST_F(FilterServiceTest, IsRegisteredAndUnregisteredOnce) {
  EXPECT_EQ(service().reg_filter(), -1);
  EXPECT_THAT(logged(), ElementsAre("reg_filter FSFilter alredy registered\n"));
  const int group = context().group.get();
  EXPECT_EQ(service().unreg_filter(), 0);
  EXPECT_FALSE(is_open(group));
  EXPECT_EQ(service().get_descr(), nullptr);
  EXPECT_EQ(service().unreg_filter(), -1);
}

TEST_F(FilterServiceTest, AnIncludeEntryLosesOneTrailingSlashAndIsCutAtTheLongestPath) {
  const std::string longest = watched_ + std::string(4095 - watched_.size(), '/');
  const std::pair<std::string, std::string> entries[] = {
      {watched_, watched_},
      {watched_ + "/", watched_},
      {watched_ + "//", watched_ + "/"},
      {longest + "beyond", longest.substr(0, 4094)}};
  for (const auto& [entry, kept] : entries) {
    context().state->inclusions.clear();
    EXPECT_EQ(service().include({entry}), 0);
    EXPECT_THAT(context().state->inclusions, ElementsAre(testing::Key(kept)));
    EXPECT_THAT(logged(), Contains("include Include folder " + entry + "\n"));
  }
}

TEST_F(FilterServiceTest, EveryIncludeEntryIsTriedAlthoughOneFails) {
  const std::string missing = directory_.path("missing %s");
  EXPECT_EQ(service().include({missing, "/", watched_}), -1) << "the root loses its only slash";
  EXPECT_THAT(context().state->inclusions, ElementsAre(testing::Key(watched_)));
  EXPECT_THAT(logged(),
              ElementsAre("include Include folder " + missing + "\n",
                          "include include fails: " + missing + ": No such file or directory\n",
                          "include Include folder /\n",
                          "include include fails: /: No such file or directory\n",
                          "include Include folder " + watched_ + "\n"));
}

TEST_F(FilterServiceTest, EveryExcludeEntryIsTriedAsItIsAlthoughOneFails) {
  const std::string missing = directory_.path("missing");
  EXPECT_EQ(service().exclude({missing, watched_ + "/"}), -1);
  EXPECT_THAT(context().state->exclusions, ElementsAre(testing::Key(watched_ + "/")));
  EXPECT_THAT(logged(),
              ElementsAre("exclude exclude fails: " + missing + ": No such file or directory\n"));
}

TEST_F(FilterServiceTest, WorkersAreStartedOnce) {
  run(2);
  EXPECT_EQ(service().isrunning(), 1);
  EXPECT_EQ(service().start_threads(2), -1);
  EXPECT_TRUE(has_logged("start_threads threads already started\n"));
}

TEST_F(FilterServiceTest, WithoutWorkersTheLoopEndsAtOnceAndAnUpdateOnlyEmptiesTheCache) {
  for (int workers : {0, -1, -2147483647 - 1}) {
    EXPECT_EQ(service().start_threads(workers), 0);
    (void)cache().add("/a");
    EXPECT_EQ(service().reloaddb(), 0);
    EXPECT_EQ(cache().size(), 0);
    EXPECT_EQ(service().isupdating(), 0) << "nobody has to renew";
    service().loop();
  }
  EXPECT_EQ(logged_times("loop fsfilter::loop(): exitting event loop\n"), 3);
}

TEST_F(FilterServiceTest, AnAbsurdNumberOfWorkersIsCutTo1024) {
  log_up_to(1);
  // For so many there is room in 32 bits of address space, too.
  set_default_stack_size(std::size_t{256} << 10);
  EXPECT_EQ(service().start_threads(2147483647), 0);
  // Threads of the process: the workers, who wait for the loop, and a few others.
  const auto tasks = std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                   std::filesystem::directory_iterator());
  EXPECT_GE(tasks, 1024);
  EXPECT_LT(tasks, 1024 + 10);
  service().stop();
  service().loop();
  EXPECT_EQ(service().isrunning(), 0);
}

TEST_F(FilterServiceTest, WorkersThatCannotBeMadeKeepNobodyWaiting) {
  set_default_stack_size(impossible_stack);
  EXPECT_EQ(service().start_threads(3), -1);
  service().loop();
  EXPECT_TRUE(has_logged("start_threads can't create thread Resource temporarily unavailable\n"));
}

TEST_F(FilterServiceTest, AStopEndsTheLoopAndEveryWorker) {
  run_with_handles(5);
  service().stop();
  EXPECT_TRUE(eventually([this] { return loop_ended(); })) << "though no event wakes it";
  EXPECT_EQ(service().isrunning(), 0);
  EXPECT_TRUE(eventually([this] {
    return logged_times("cancel_thread cancel_thread(): done\n") == 5;
  })) << "on a busy machine some leave after the loop";
  EXPECT_EQ(logged_times("cancel_thread cancel_thread(): begin\n"), 5);
  EXPECT_EQ(logged_times("loop fsfilter::loop(): exitting event loop\n"), 1);
  EXPECT_EQ(service().unreg_filter(), 0);
  EXPECT_FALSE(service().threads_left());
}

TEST_F(FilterServiceTest, AStopBeforeTheStartOrTheLoopIsNotLost) {
  service().stop();
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(service().start_threads(3), 0);
    service().stop();
    service().loop();
    EXPECT_EQ(service().isrunning(), 0);
  }
}

TEST_F(FilterServiceTest, TheEndIsDueThreeSecondsAfterTheFirstStopAtTheLatest) {
  EXPECT_FALSE(service().stopping());
  service().stop();
  EXPECT_TRUE(service().stopping());
  const auto deadline = service().stop_deadline();
  EXPECT_LE(deadline, std::chrono::steady_clock::now() + std::chrono::seconds(3));
  EXPECT_GT(deadline, std::chrono::steady_clock::now() - generous_bound);
  service().stop();
  EXPECT_EQ(service().stop_deadline(), deadline) << "a second stop gives no more time";
}

TEST_F(FilterServiceTest, AThreadThatIsNoWorkerIsOnlyLogged) {
  EXPECT_EQ(service().mark_thread(7, 3), 0);
  EXPECT_EQ(service().check_threads(), 0);
  EXPECT_EQ(service().cancel_thread(7), 0);
  EXPECT_THAT(logged(),
              ElementsAre("mark_thread mark thread 7 3\n", "mark_thread mark thread done\n",
                          "cancel_thread cancel_thread(): begin\n",
                          "cancel_thread cancel_thread(): done\n"));
}

TEST_F(FilterServiceTest, AWorkerThatAnotherThreadCancelsLeavesAfterItsNextEvent) {
  EXPECT_EQ(service().cancel_thread(run_one()), 0);
  EXPECT_EQ(open_file(put("file", "clean")), allow);
  EXPECT_TRUE(
      eventually([&] { return logged_times("cancel_thread cancel_thread(): done\n") == 2; }));
}

TEST_F(FilterServiceTest, AMarkedWorkerIsCheckedAndReportedOnceItIsBusyForMoreThanThreeSeconds) {
  const pthread_t worker = run_one();
  const std::string number = std::to_string(static_cast<unsigned>(worker));

  const std::time_t before = std::time(nullptr);
  EXPECT_EQ(service().mark_thread(worker, 5), 0);
  const std::time_t after = std::time(nullptr);
  const std::string hung = "check_threads thread " + number + " hungup in 5\n";
  ASSERT_TRUE(eventually([&] { return has_logged(hung); }));
  EXPECT_GT(std::time(nullptr) - before, 3);
  const std::string check = "check_threads check thread " + number + ": ts ";
  EXPECT_TRUE(has_logged(check + std::to_string(static_cast<unsigned>(before)) + "\n") ||
              has_logged(check + std::to_string(static_cast<unsigned>(after)) + "\n"))
      << testing::PrintToString(logged());
}

TEST_F(FilterServiceTest, WhatWasNotScannedIsReportedOnceAMinuteWithItsNumber) {
  service().report();
  EXPECT_THAT(logged(), IsEmpty());
  service().getefp()->set_most_held(0);
  run(1);
  EXPECT_EQ(open_file(put("file", "!detect")), allow);
  context().state->unnamed_events = 2;
  context().state->failed_reads = 4;
  service().report();
  context().state->unnamed_events = 3;
  context().state->failed_reads = 5;
  service().report();
  std::vector<std::string> reports = logged();
  std::erase_if(reports, [](const std::string& line) { return !line.starts_with("report "); });
  EXPECT_THAT(reports,
              ElementsAre("report 3 file events were allowed without a scan: nobody to scan them "
                          "in time, or path too long\n",
                          "report 4 opens were denied by the kernel: their events could not be "
                          "read\n"));
}

TEST_F(FilterServiceTest, FailedReadsAreReportedAlone) {
  context().state->failed_reads = 1;
  service().report();
  EXPECT_THAT(logged(), ElementsAre(testing::StartsWith("report 1 opens were denied")));
}

TEST_F(FilterServiceTest, WhatStartUpCouldNotDoIsReportedOnce) {
  service().note_problem("first. ");
  service().note_problem("second. ");
  EXPECT_THAT(logged(), IsEmpty()) << "the main thread writes nothing itself";
  service().report();
  service().report();
  EXPECT_THAT(logged(), ElementsAre("initialize first. second. \n"));
}

TEST_F(FilterServiceTest, AMountThatCannotBeWatchedIsReportedWithItsReason) {
  const std::string table = directory_.put("mtab", "device " + watched_ + " ext4 rw 0 0\n");
  const Descriptor mounts(open(table.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(service().check_mountpts(mounts.get()), 0);
  service().report();
  const std::string text = "report mount point '" + watched_ + "' type: 'ext4' is not watched: ";
  const std::vector<std::string> records = logged();
  // A socket takes no marks; an emulator's error for that is another one than the kernel's.
  EXPECT_TRUE(std::any_of(records.begin(), records.end(), [&text](const std::string& record) {
    return record.starts_with(text) && record.size() > text.size() + 1;
  }));
}

}  // namespace
