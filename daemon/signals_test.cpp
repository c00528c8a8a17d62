#include "signals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "child_process.h"
#include "filter_service.h"
#include "logger.h"
#include "temp_directory.h"

namespace {

class SignalsTest : public testing::Test {
 protected:
  SignalsTest() { Logger::configure({.path = folder_.path("pelowatchd.log")}); }

  static struct sigaction installed(int signal) {
    struct sigaction action {};
    (void)sigaction(signal, nullptr, &action);
    return action;
  }

  static bool blocked(int signal) {
    sigset_t mask;
    (void)pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
  }

  TempDirectory folder_;
};

constexpr int all_signals[] = {SIGTERM, SIGINT, SIGUSR2, SIGALRM, SIGHUP};

TEST_F(SignalsTest, RequestsRestartWhatTheyInterruptAndTerminationDoesNot) {
  setsignals();
  struct Row {
    int signal;
    void (*handler)(int);
    int flags;
  };
  for (const Row& row :
       {Row{SIGTERM, terminate, 0}, Row{SIGINT, terminate, 0}, Row{SIGUSR2, startscan, SA_RESTART},
        Row{SIGALRM, startscan, SA_RESTART}, Row{SIGHUP, reconfigure, SA_RESTART}}) {
    const struct sigaction action = installed(row.signal);
    EXPECT_EQ(action.sa_handler, row.handler) << row.signal;
    EXPECT_EQ(action.sa_flags & SA_RESTART, row.flags) << row.signal;
    for (const int other : all_signals) {
      EXPECT_EQ(sigismember(&action.sa_mask, other), 0) << row.signal << " " << other;
    }
  }
}

TEST_F(SignalsTest, AreHeldInEveryThreadUntilOneTakesThem) {
  hold_signals();
  EXPECT_EQ(raise(SIGUSR2), 0);  // would end the process by default
  EXPECT_EQ(raise(SIGHUP), 0);
  setsignals();
  std::thread([] {
    for (const int signal : all_signals) {
      EXPECT_TRUE(blocked(signal)) << signal;
    }
    take_signals();
    for (const int signal : all_signals) {
      EXPECT_FALSE(blocked(signal)) << signal;
    }
  }).join();
  EXPECT_TRUE(blocked(SIGTERM)) << "in the others they are held on";
}

TEST_F(SignalsTest, EveryTerminationSaysSoAndAnEarlyOneStopsTheServiceThatComesLater) {
  hold_signals();
  (void)kill(getpid(), SIGTERM);
  setsignals();
  testing::internal::CaptureStderr();
  std::thread([] {
    take_signals();
    (void)raise(SIGINT);
  }).join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "terminate signal\nterminate signal\n");
  EXPECT_EQ(fsfilter::get()->start_threads(0), 0);
  EXPECT_EQ(fsfilter::get()->isrunning(), 0);
}

TEST_F(SignalsTest, ATerminationIsNotedAndEndsTheLogForGoodBeforeItIsSaid) {
  static bool noted = false;
  int nobody_reads[2];
  ASSERT_EQ(pipe(nobody_reads), 0);
  (void)close(nobody_reads[0]);
  ASSERT_EQ(dup2(nobody_reads[1], STDERR_FILENO), STDERR_FILENO);
  (void)signal(SIGPIPE, [](int) { noted = fsfilter::get()->stopping(); });
  terminate(SIGTERM);
  EXPECT_TRUE(noted);
  Logger::enable();
  Logger::append(1, "late\n");
  EXPECT_FALSE(std::filesystem::exists(folder_.path("pelowatchd.log")));
}

TEST_F(SignalsTest, AFaultOutsideTheStatusAreaOrSentBySomebodyEndsTheProcess) {
  for (const bool sent : {true, false}) {
    ChildProcess process([sent] {
      rlimit no_core{};
      (void)setrlimit(RLIMIT_CORE, &no_core);
      setsignals();
      if (sent) {
        (void)kill(getpid(), SIGBUS);
        return char{0};
      }
      char name[] = "/tmp/pelo-test-XXXXXX";
      const int file = mkstemp(name);
      (void)unlink(name);
      auto* bytes = static_cast<volatile char*>(
          mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
      return char{bytes[0]};  // behind the file's end
    });
    EXPECT_EQ(process.wait(), -1) << sent;
  }
}

TEST_F(SignalsTest, HandlersLeaveErrnoAlone) {
  ChildProcess process([] {
    (void)close(STDERR_FILENO);  // what they say cannot be written
    for (void (*handler)(int) : {terminate, startscan, reconfigure}) {
      errno = 4711;
      handler(0);
      if (errno != 4711) {
        return 1;
      }
    }
    return 0;
  });
  EXPECT_EQ(process.wait(), 0);
}

}  // namespace
