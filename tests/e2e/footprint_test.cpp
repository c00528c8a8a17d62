// What the daemon takes of a small machine.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iterator>

#include "fixture.h"
#include "fuse_server.h"

namespace e2e {
namespace {

class Footprint : public E2eTest {
 protected:
  /// Expects so many threads in the end, a sanitizer's own left out.
  void expect_threads(std::ptrdiff_t count) {
    const std::string folder = "/proc/" + std::to_string(daemon().pid()) + "/task";
    const auto threads = [&] {
      return std::distance(std::filesystem::directory_iterator(folder), {}) - PELO_SANITIZED_THREAD;
    };
    EXPECT_TRUE(eventually([&] { return threads() == count; }))
        << threads() << " threads, not " << count << "\n"
        << waits_of(daemon().pid());
  }
};

// The workers, main, service and lookout; the log's own; and as many workers for a served mount.
// labels: essential
TEST_F(Footprint, HasTheThreadsThatItNeedsAndNoMore) {
  set_threads(4);
  for (const char* asynchronous : {"no", "yes"}) {
    set("AsyncLogging", asynchronous);
    start();
    EXPECT_EQ(open_status(put_infected("bad")), EPERM);
    expect_threads(asynchronous[0] == 'y' ? 4 + 4 : 4 + 3);
    stop();
  }
  FuseServer fuse(watched("fuse"), put_clean("backing"));
  fuse.require();
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  start();
  expect_registered(watched("fuse"));
  EXPECT_EQ(open_status(fuse.file()), 0);
  expect_threads(4 + 4 + 2 * 4);  // a lane reads and scans with four each
  stop();
}

// labels: long essential
TEST_F(Footprint, FiveWorkersAndAThousandCachedPathsTakeAFewMebibytes) {
  constexpr int path_count = 1000;                 // as many as the cache holds
  constexpr size_t most_memory = size_t{6} << 10;  // KiB
  const auto files = put_files("file", path_count);
  set_threads(5);
  start();
  for (int round = 0; round < 2; ++round) {
    Process opener([&] {
      for (const std::string& file : files) {
        if (const int error = try_open(file); error != 0) {
          return error;
        }
      }
      return 0;
    });
    ASSERT_EQ(opener.status(4 * patience), 0);
  }
  EXPECT_EQ(engine_calls("vseInit").size(), 5U);
  EXPECT_EQ(engine_calls("vseExec").size(), size_t{path_count}) << "not all were cached";
  const size_t resident = std::stoul(daemon_status("VmRSS"));
  std::printf("figure: %zu KiB resident with 5 workers and %d cached paths, %s at most so far\n",
              resident, path_count, daemon_status("VmHWM").c_str());
  EXPECT_GT(resident, 0U);
  if (PELO_SANITIZED == 0) {
    EXPECT_LT(resident, most_memory);
  }
}

}  // namespace
}  // namespace e2e
