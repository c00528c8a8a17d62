// For the tests of this folder: the filter service with the scripted engine; the test plays the
// kernel.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "fed_filter.h"
#include "filter_service.h"
#include "scripted_engine_fixture.h"
#include "wait.h"

inline constexpr std::uint32_t allow = FAN_ALLOW;
inline constexpr std::uint32_t deny = FAN_DENY;

/// Files in which the engine finds something; the second kind is to be removed.
inline constexpr char detection[] = "!detect name=Test.Found\n";
inline constexpr char removal[] = "!detect name=Test.Removed code=7\n";

class ServiceTest : public EngineTest {
 protected:
  ServiceTest() {
    std::filesystem::create_directory(watched_);
    service().get_descr() = filter_.hand_over();
  }
  ~ServiceTest() override {
    stop();
    (void)service().unreg_filter();
  }

  static fsfilter& service() { return *fsfilter::get(); }
  static CCaching& cache() { return *service().getCacheManager(); }
  static fsfilter_stat_struct& statistics() { return *fsfilter_stat(service().get_descr()); }

  /// Starts the workers and the loop.
  void run(int workers) {
    EXPECT_EQ(service().start_threads(workers), 0);
    loop_ = std::thread([this] {
      service().loop();
      loop_ended_ = true;
    });
  }

  void wait_for_handles(long handles) const {
    ASSERT_TRUE(eventually([&] { return engine_calls("vseInit") == handles; }));
  }
  void run_with_handles(int workers) {
    run(workers);
    wait_for_handles(workers);
  }

  bool loop_ended() const { return loop_ended_; }

  /// Stops the service and waits for the loop. A broken record ends the loop's wait, which would
  /// otherwise last a second in each test.
  void stop() {
    if (loop_.joinable()) {
      service().stop();
      filter_.feed_raw("", 1);
      EXPECT_TRUE(eventually([this] { return loop_ended(); }));
      loop_.join();
    }
  }

  /// A file of the watched folder. @return its path
  std::string put(const std::string& name, const std::string& content) const {
    return directory_.put("watched/" + name, content);
  }

  /// Hands an event on an existing file to the service. @return its descriptor
  int feed(const std::string& path, std::uint64_t mask = FAN_OPEN_PERM) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << path;
    filter_.feed(mask, fd);
    return fd;
  }

  /// The verdict on an open, and on a close after writing: FAN_ALLOW, FAN_DENY, or 0 without one.
  std::uint32_t open_file(const std::string& path) { return filter_.verdict_for(feed(path)); }
  std::uint32_t close_written(const std::string& path) {
    return filter_.verdict_for(feed(path, FAN_CLOSE_WRITE));
  }

  long scans_of(const std::string& path) const {
    return engine_calls("operation=9 path=\"" + path + "\"");
  }

  /// Waits until the thread that scanned this file last waits for something itself.
  bool scanner_sleeps(const std::string& path) const {
    const std::string record = directory_.read("engine-calls");
    const std::size_t scan = record.rfind("path=\"" + path + "\"");
    const std::size_t thread = record.rfind("thread=", scan) + 7;
    const std::string state_file =
        "/proc/self/task/" + std::to_string(std::stoi(record.substr(thread))) + "/stat";
    int times_asleep = 0;
    return eventually([&] {
      const bool asleep = read_file(state_file).find(") S ") != std::string::npos;
      times_asleep = asleep ? times_asleep + 1 : 0;
      return times_asleep == 20;
    });
  }

  bool has_logged(const std::string& record) const { return logged_times(record) > 0; }

  FedFilter filter_;
  const std::string watched_ = directory_.path("watched");

 private:
  std::thread loop_;
  std::atomic<bool> loop_ended_{false};
};
