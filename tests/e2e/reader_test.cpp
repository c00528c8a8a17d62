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

/// A line of a system call trace: "PID  call(arguments) = result".
struct Call {
  pid_t thread = 0;
  std::string text;
  bool begins(const std::string& start) const { return text.compare(0, start.size(), start) == 0; }
  bool is(const std::string& name) const { return begins(name + "("); }
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

class Reader : public E2eTest {
 protected:
  /// Runs the daemon under strace, which follows all its threads.
  void start_traced(const std::string& calls) {
    world().put(work("trace"), "");
    Launch launch;
    launch.wrapper = {"strace", "-f", "-o", work("trace"), "-e", "trace=" + calls};
    // Leaks are searched with the means strace uses.
    launch.environment["ASAN_OPTIONS"] = "detect_leaks=0:symbolize=0";
    start(launch);
  }

  /// The daemon is strace's child; strace ends with its exit status.
  void stop_traced() {
    kill(daemon_pid(), SIGTERM);
    EXPECT_EQ(daemon().wait(), Exit{});
    expect_nothing_left();
  }

  std::vector<Call> trace() { return parse_trace(world().read(work("trace"))); }
};

TEST_F(Reader, MainThreadOpensNothingFromTheFirstMarkUntilTheGroupIsClosed) {
  const std::string infected = put_infected("bad");
  const std::string clean = put_clean("good");
  const std::string removed = put("removed", "!detect code=7\n");
  stage_definitions();
  set("Loglevel", "3");
  start_traced("open,openat,openat2,creat,connect,fanotify_init,fanotify_mark,dup3");
  const pid_t main_thread = daemon_pid();
  world().mount_on(watched("disk"));
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_EQ(open_status(removed), EPERM);
  EXPECT_EQ(write_status(clean, "clean\n"), 0);
  kill(main_thread, SIGHUP);
  kill(main_thread, SIGUSR2);
  EXPECT_TRUE(eventually([&] { return logged("detect new mount point"); }));
  EXPECT_EQ(open_status(clean), 0);
  stop_traced();

  const auto calls = trace();
  const auto is_main = [&](const Call& call) { return call.thread == main_thread; };
  const auto init = std::find_if(calls.begin(), calls.end(), [&](const Call& call) {
    return is_main(call) && call.is("fanotify_init");
  });
  ASSERT_NE(init, calls.end());
  const std::string group = init->text.substr(init->text.rfind(' ') + 1);
  const auto first_mark =
      std::find_if(init, calls.end(), [](const Call& call) { return call.is("fanotify_mark"); });
  const auto closed = std::find_if(first_mark, calls.end(), [&](const Call& call) {
    return is_main(call) && call.begins("dup3(") &&
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

TEST_F(Reader, EngineIsStartedBeforeTheFirstMarkAndAnAnswerGoesOutBeforeItsFileIsRemoved) {
  const std::string file = put("bad", "!detect code=7\n");
  start_traced("write,unlink,unlinkat,fanotify_init,fanotify_mark");
  const pid_t main_thread = daemon_pid();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(eventually([&] { return !World::exists(file); }));
  stop_traced();
  const auto calls = trace();
  const auto first = [&](auto end, auto is_meant) {
    return std::find_if(calls.begin(), end, is_meant);
  };
  const auto first_mark =
      first(calls.end(), [](const Call& call) { return call.is("fanotify_mark"); });
  ASSERT_NE(first_mark, calls.end());
  // The engine's record of the call, written when it is over.
  const auto started = first(first_mark, [&](const Call& call) {
    return call.thread == main_thread && call.is("write") &&
           call.text.find(", \"vseGlobalInit thread=") != std::string::npos;
  });
  EXPECT_NE(started, first_mark) << "its start may open files, which nobody would answer then";
  const auto init = first(calls.end(), [](const Call& call) { return call.is("fanotify_init"); });
  ASSERT_NE(init, calls.end());
  const std::string answer = "write(" + init->text.substr(init->text.rfind(' ') + 1) + ", ";
  const auto removal = first(calls.end(), [](const Call& call) {
    return (call.is("unlink") || call.is("unlinkat")) && call.text.find("bad") != std::string::npos;
  });
  ASSERT_NE(removal, calls.end());
  // FAN_DENY, 2, is the second word of the answer; only this file was denied.
  const auto denial = first(removal, [&](const Call& call) {
    return call.thread == removal->thread && call.begins(answer) &&
           call.text.find("\\2\\0\\0\\0\", 8") != std::string::npos;
  });
  EXPECT_NE(denial, removal);
}

/// A pipe whose buffer is full and that nobody reads.
class FullPipe {
 public:
  FullPipe() {
    EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
    EXPECT_EQ(fcntl(ends_[1], F_SETFL, O_NONBLOCK), 0);
    const std::string filler(4096, 'x');
    while (write(ends_[1], filler.data(), filler.size()) > 0) {
    }
    while (write(ends_[1], "x", 1) > 0) {
    }
    EXPECT_EQ(fcntl(ends_[1], F_SETFL, 0), 0);
  }
  ~FullPipe() {
    close(ends_[0]);
    close(ends_[1]);
  }
  FullPipe(const FullPipe&) = delete;
  FullPipe& operator=(const FullPipe&) = delete;
  int input() const { return ends_[1]; }

 private:
  int ends_[2] = {-1, -1};
};

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
    const FullPipe pipe;
    set("Loglevel", level);
    start({.output = pipe.input()});
    Process opener([&] { return open_thousand(clean, infected); });
    EXPECT_EQ(opener.status(), 0) << "at log level " << level;
    stop();
  }
}

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
    for (Process& opener : openers) {
      EXPECT_EQ(opener.status(), EPERM);
    }
  };
  open_many();
  daemon().signal(SIGHUP);
  EXPECT_TRUE(eventually([&] { return !engine_calls("vseRelease").empty(); }));
  open_many();
  for (const std::string& call : engine_calls("engine-open")) {
    EXPECT_NE(call.find("errno=0"), std::string::npos) << call;
  }
  EXPECT_EQ(events().size(), 30U);
  for (const std::string& event : events()) {
    EXPECT_NE(event.find(" opened=0"), std::string::npos) << event;
  }
  EXPECT_EQ(scans_begun(other), 0U);
}

}  // namespace
}  // namespace e2e
