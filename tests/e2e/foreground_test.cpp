// What somebody sees who has started the daemon by hand: its threads, and the terminal's signals.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "fixture.h"
#include "fuse_server.h"

namespace e2e {
namespace {

constexpr size_t kOfSanitizer = PELO_SANITIZED_THREAD;

class Foreground : public E2eTest {
 protected:
  size_t threads() {
    const std::string folder = "/proc/" + std::to_string(daemon().pid()) + "/task";
    const auto entries = std::filesystem::directory_iterator(folder);
    return static_cast<size_t>(std::distance(begin(entries), end(entries))) - kOfSanitizer;
  }

  /// Signals that the daemon ignores, as bits.
  uint64_t ignored() {
    const std::string status = world().read("/proc/" + std::to_string(daemon().pid()) + "/status");
    return std::stoull(status.substr(status.find("SigIgn:") + 7), nullptr, 16);
  }
};

// labels: essential
TEST_F(Foreground, HasTheThreadsThatItNeedsAndNoMore) {
  struct Case {
    const char* asynchronous;
    size_t threads;
  };
  const std::string infected = put_infected("bad");
  // The workers, main, service and lookout; and the log's own.
  for (const Case& row : {Case{"no", 4 + 3}, Case{"yes", 4 + 4}}) {
    set("AsyncLogging", row.asynchronous);
    set_threads(4);
    start();
    EXPECT_EQ(open_status(infected), EPERM);
    EXPECT_TRUE(eventually([&] { return threads() == row.threads; }, std::chrono::seconds(5)))
        << threads() << " threads with AsyncLogging " << row.asynchronous << "\n"
        << waits_of(daemon().pid());
    stop();
  }
}

TEST_F(Foreground, HasAsManyMoreForAServedMount) {
  FuseServer fuse(watched("fuse"), put_clean("backing"), BackingUse::opens);
  require(fuse);
  if (IsSkipped() || HasFatalFailure()) {
    return;
  }
  set_threads(4);
  start();
  ASSERT_TRUE(eventually([&] { return is_registered(watched("fuse")); }));
  EXPECT_EQ(open_status(fuse.file()), 0);
  EXPECT_TRUE(eventually([&] { return threads() == 4 + 3 + 4; }, std::chrono::seconds(5)))
      << waits_of(daemon().pid());
  stop();
}

TEST_F(Foreground, TerminalCannotStopIt) {
  const std::string infected = put_infected("bad");
  start();
  for (const int number : {SIGTSTP, SIGTTIN, SIGTTOU}) {
    ASSERT_NE(ignored() & (uint64_t{1} << (number - 1)), 0U) << strsignal(number);
    daemon().signal(number);
    EXPECT_EQ(open_status(infected), EPERM);
  }
}

}  // namespace
}  // namespace e2e
