// The logger's own thread: AsyncLogging.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <iterator>
#include <limits>
#include <string_view>
#include <thread>
#include <vector>

#include "log_records.h"
#include "logger.h"
#include "stalled_log_fixture.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::chrono::minutes ample{1};

class LoggerThread : public testing::Test {
 protected:
  LoggerThread() { Logger::configure({.path = file(), .level = 3, .asynchronous = true}); }
  ~LoggerThread() override { EXPECT_TRUE(Logger::stop()); }

  string file() const { return directory_.path("pelowatchd.log"); }
  std::vector<string> records() const { return log_records(file()); }

  TempDirectory directory_;
};

TEST_F(LoggerThread, RecordsReachTheFileInTheOrderOfTheirQueueing) {
  Logger::start();
  std::vector<string> expected;
  for (int i = 0; i < 1000; ++i) {
    expected.push_back("record " + std::to_string(i) + "\n");
    Logger::append(1, expected.back());
  }
  Logger::drain(ample);
  EXPECT_EQ(records(), expected);
}

TEST_F(LoggerThread, RecordsOfManyThreadsAllArriveWhole) {
  Logger::start();
  std::barrier all_running(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &all_running] {
      all_running.arrive_and_wait();
      for (int i = 0; i < 2000; ++i) {
        Logger::append(1, "thread " + std::to_string(t) + "\n");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  Logger::drain(ample);
  const std::vector<string> written = records();
  EXPECT_EQ(written.size(), 8000U);
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(count_record(written, "thread " + std::to_string(t) + "\n"), 2000);
  }
}

TEST_F(LoggerThread, BeforeStartRecordsAreWrittenByTheCaller) {
  Logger::append(1, "early");
  EXPECT_THAT(records(), ElementsAre("early"));
}

long threads_of_this_process() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST_F(LoggerThread, StartedTwiceItHasOneThread) {
  Logger::start();
  const long after_first = threads_of_this_process();
  EXPECT_EQ(Logger::start(), 0);
  EXPECT_EQ(threads_of_this_process(), after_first);
}

TEST_F(LoggerThread, DisabledLoggerDropsWhatIsQueued) {
  Logger::start();
  Logger::disable();
  Logger::append(1, "lost");
  Logger::drain(ample);
  Logger::enable();
  Logger::append(1, "kept");
  Logger::drain(ample);
  EXPECT_THAT(records(), ElementsAre("kept"));
}

TEST_F(LoggerThread, NothingIsWrittenAfterStop) {
  Logger::start();
  Logger::append(1, "before");
  Logger::drain(ample);
  EXPECT_TRUE(Logger::stop());
  Logger::append(1, "after");
  EXPECT_THAT(records(), ElementsAre("before"));
}

TEST_F(LoggerThread, AfterStopAndEnableRecordsAreWrittenByTheCaller) {
  Logger::start();
  EXPECT_TRUE(Logger::stop());
  Logger::enable();
  Logger::append(1, "text");
  EXPECT_THAT(records(), ElementsAre("text"));
}

TEST_F(LoggerThread, StopsAtAnyMomentOfAnyLoad) {
  std::atomic<bool> done{false};
  std::thread load([&done] {
    while (!done) {
      Logger::append(1, "text\n");
    }
  });
  for (int round = 0; round < 100; ++round) {
    Logger::enable();
    Logger::start();
    EXPECT_TRUE(Logger::stop());
  }
  done = true;
  load.join();
}

// A stalled disk

class LoggerThreadStalled : public LoggerThread {
 protected:
  /// Starts the logger's thread, and has it wait with a text of its own.
  LoggerThreadStalled() {
    Logger::start();
    Logger::append(1, "stuck\n");
    EXPECT_TRUE(StalledDisk::wait_for_a_writer());
  }

  StalledDisk disk_;
};

TEST_F(LoggerThreadStalled, TenThousandTextsWaitAndEveryFurtherOneIsLostAndCounted) {
  const std::uint64_t before = Logger::dropped();
  std::vector<string> expected{"stuck\n"};
  for (int i = 1; i <= 10'000; ++i) {
    expected.push_back("text " + std::to_string(i) + "\n");
    Logger::append(1, expected.back());
  }
  EXPECT_EQ(Logger::dropped(), before) << "there is room for all of these";
  for (int i = 0; i < 3; ++i) {
    Logger::append(1, "lost\n");
  }
  EXPECT_EQ(Logger::dropped(), before + 3);
  StalledDisk::set_stalled(false);
  Logger::drain(ample);
  Logger::append(1, "the end\n");
  Logger::drain(ample);
  expected.push_back("the end\n");
  EXPECT_EQ(records(), expected);
  EXPECT_EQ(Logger::dropped(), before + 3);
}

TEST_F(LoggerThreadStalled, DrainWaitsForTheTextThatIsOnItsWayWithinItsBound) {
  Logger::drain(std::chrono::milliseconds(20));
  EXPECT_THAT(records(), IsEmpty());
  auto drained = std::async(std::launch::async, [] { Logger::drain(ample); });
  EXPECT_EQ(drained.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  StalledDisk::set_stalled(false);
  EXPECT_EQ(drained.wait_for(ample), std::future_status::ready);
  EXPECT_THAT(records(), ElementsAre("stuck\n"));
}

TEST_F(LoggerThreadStalled, StopGivesUpAfterItsBoundAndDropsWhatIsQueued) {
  Logger::append(1, "queued\n");
  EXPECT_FALSE(Logger::stop(std::chrono::milliseconds(50)));
  StalledDisk::set_stalled(false);
  EXPECT_TRUE(Logger::stop());
  Logger::enable();
  Logger::start();
  Logger::append(1, "later\n");
  Logger::drain(ample);
  EXPECT_THAT(records(), ElementsAre("stuck\n", "later\n"));
}

TEST_F(LoggerThread, TextForWhichThereIsNoMemoryIsDroppedAndCounted) {
  Logger::start();
  Logger::append(1, std::string_view("", std::numeric_limits<std::size_t>::max()));
  Logger::append(1, "next");
  Logger::drain(ample);
  EXPECT_EQ(Logger::dropped(), 1U);
  EXPECT_THAT(records(), ElementsAre("next"));
}

}  // namespace
