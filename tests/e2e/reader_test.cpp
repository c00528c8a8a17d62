// The thread that answers opens waits for nobody: it opens no file itself, and it writes nowhere
// that somebody else must read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>

#include "emulated.h"
#include "fixture.h"

namespace e2e {
namespace {

using testing::AllOf;
using testing::Each;
using testing::Gt;
using testing::HasSubstr;
using testing::SizeIs;

/// A line of a system call trace: "PID  call(arguments) = result".
struct Call {
  pid_t thread = 0;
  std::string text;
  bool is(const std::string& name) const { return text.starts_with(name + "("); }
};

std::vector<Call> parse_trace(const std::string& trace) {
  std::vector<Call> calls;
  for (const std::string& line : lines_of(trace)) {
    const size_t begin = line.find_first_not_of(' ', line.find(' '));
    if (begin != std::string::npos) {
      calls.push_back({std::stoi(line), line.substr(begin)});
    }
  }
  return calls;
}

class Reader : public E2eTest {};

TEST_F(Reader, MainThreadOpensNothingFromTheFirstMarkUntilTheGroupIsClosed) {
  const std::string infected = put_infected("bad");
  const std::string clean = put_clean("good");
  const std::string removed = put("removed", "!detect code=7\n");
  stage_definitions();
  set("Loglevel", "3");
  world().put(work("trace"), "");
  // Leaks are searched with the means strace uses.
  start({.wrapper = {"strace", "-f", "-o", work("trace"), "-e",
                     "trace=open,openat,openat2,creat,connect,fanotify_init,fanotify_mark,dup3"},
         .environment = {{"ASAN_OPTIONS", "detect_leaks=0:symbolize=0"}}});
  const pid_t main_thread = daemon_pid();
  world().mount_on(watched("disk"));
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_EQ(open_status(removed), EPERM);
  EXPECT_EQ(write_status(clean, "clean\n"), 0);
  kill(main_thread, SIGHUP);
  kill(main_thread, SIGUSR2);
  expect_logged("detect new mount point");
  EXPECT_EQ(open_status(clean), 0);
  // The daemon is strace's child; strace ends with its exit status.
  kill(main_thread, SIGTERM);
  EXPECT_EQ(daemon().wait(), Exit{});
  expect_nothing_left();

  const auto calls = parse_trace(world().read(work("trace")));
  const auto is_main = [&](const Call& call) { return call.thread == main_thread; };
  const auto init = std::find_if(calls.begin(), calls.end(), [&](const Call& call) {
    return is_main(call) && call.is("fanotify_init");
  });
  ASSERT_NE(init, calls.end());
  const std::string group = init->text.substr(init->text.rfind(' ') + 1);
  const auto first_mark =
      std::find_if(init, calls.end(), [](const Call& call) { return call.is("fanotify_mark"); });
  const auto closed = std::find_if(first_mark, calls.end(), [&](const Call& call) {
    return is_main(call) && call.is("dup3") &&
           call.text.find(", " + group + ",") != std::string::npos;
  });
  ASSERT_NE(first_mark, calls.end());
  // Traced in an emulated machine, a stop takes longer than the daemon waits for its main thread.
  ASSERT_TRUE(PELO_EMULATED || closed != calls.end())
      << "descriptor " << group << " is never closed";
  int opened_by_others = 0;
  for (auto call = first_mark; call != closed; ++call) {
    const bool opens = call->is("open") || call->is("openat") || call->is("openat2") ||
                       call->is("creat") || call->is("connect");
    EXPECT_FALSE(is_main(*call) && opens) << call->text;
    opened_by_others += opens && !is_main(*call) ? 1 : 0;
  }
  EXPECT_GT(opened_by_others, 0) << "the trace does not show what it should";
}

/// @return 0 when each of many opens gave the result wanted of it
int open_thousand(const std::string& clean, const std::string& infected) {
  for (int i = 0; i < 1000; ++i) {
    if (try_open(clean) != 0 || (i % 100 == 0 && try_open(infected) != EPERM)) {
      return 1;
    }
  }
  return 0;
}

TEST_F(Reader, FullPipeBehindItsStreamsStopsNeitherAnswersNorTheEnd) {
  const std::string clean = put_clean("good");
  const std::string infected = put_infected("bad");
  for (const char* level : {"2", "3"}) {
    int pipe[2];  // that nobody reads
    ASSERT_EQ(pipe2(pipe, O_CLOEXEC | O_NONBLOCK), 0);
    while (write(pipe[1], "x", 1) > 0) {
    }
    ASSERT_EQ(fcntl(pipe[1], F_SETFL, 0), 0);
    set("Loglevel", level);
    start({.output = pipe[1]});
    Process opener([&] { return open_thousand(clean, infected); });
    EXPECT_EQ(opener.status(), 0) << "at log level " << level;
    stop();
    for (const int end : pipe) {
      close(end);
    }
  }
}

// labels: essential
TEST_F(Reader, EngineAndEventLibraryThatOpenWatchedFilesAtEveryCallAreAnswered) {
  const std::string other = put_infected("other");
  const std::string file = put("opens", "!open " + other + "\n!detect\n");
  stage_definitions();
  std::string lines;
  for (const char* call : {"vseInit", "vseExec", "vseSet", "vseRelease", "vseGet"}) {
    lines += std::string("open ") + call + " " + other + "\n";
  }
  script(lines);
  start({.environment = {{"PELO_TEST_EVENT_OPEN", other}}});
  const auto open_many = [&] {
    std::vector<Process> openers;
    for (int i = 0; i < 15; ++i) {
      openers.push_back(start_open(file));
    }
    EXPECT_THAT(statuses(openers), Each(EPERM));
  };
  open_many();
  daemon().signal(SIGHUP);
  EXPECT_TRUE(eventually([&] { return !engine_calls("vseRelease").empty(); }));
  open_many();
  EXPECT_THAT(engine_calls("engine-open"), AllOf(SizeIs(Gt(30)), Each(HasSubstr("errno=0"))));
  EXPECT_EQ(events().size(), 30U);
  EXPECT_THAT(events(), Each(HasSubstr(" opened=0")));
  EXPECT_EQ(scans_begun(other), 0U);
}

}  // namespace
}  // namespace e2e
