#include "signals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "child_process.h"
#include "daemon_config.h"
#include "filter_service.h"
#include "temp_directory.h"

namespace {

class SignalsTest : public testing::Test {
 protected:
  SignalsTest() { GlobalConfig::getGlobalConfig()->LogPath = folder_.path(); }

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

TEST_F(SignalsTest, TerminationSignalsInterruptWaits) {
  setsignals();
  for (int signal : {SIGTERM, SIGINT}) {
    EXPECT_EQ(installed(signal).sa_handler, terminate) << signal;
    EXPECT_EQ(installed(signal).sa_flags & SA_RESTART, 0) << signal;
  }
}

TEST_F(SignalsTest, RequestsRestartWhatTheyInterrupt) {
  setsignals();
  EXPECT_EQ(installed(SIGUSR2).sa_handler, startscan);
  EXPECT_EQ(installed(SIGALRM).sa_handler, startscan);
  EXPECT_EQ(installed(SIGHUP).sa_handler, reconfigure);
  for (int signal : {SIGUSR2, SIGALRM, SIGHUP}) {
    EXPECT_NE(installed(signal).sa_flags & SA_RESTART, 0) << signal;
  }
}

TEST_F(SignalsTest, NoHandlerKeepsOtherSignalsAway) {
  setsignals();
  for (int signal : {SIGTERM, SIGINT, SIGUSR2, SIGALRM, SIGHUP}) {
    const struct sigaction action = installed(signal);
    for (int other : {SIGTERM, SIGINT, SIGUSR2, SIGALRM, SIGHUP}) {
      EXPECT_EQ(sigismember(&action.sa_mask, other), 0) << signal << " " << other;
    }
  }
}

TEST_F(SignalsTest, EarlySignalsWaitForTheHandlers) {
  hold_signals();
  for (int signal : {SIGTERM, SIGINT, SIGUSR2, SIGALRM, SIGHUP}) {
    EXPECT_TRUE(blocked(signal)) << signal;
  }
  EXPECT_EQ(raise(SIGUSR2), 0);  // would end the process by default
  EXPECT_EQ(raise(SIGHUP), 0);
  setsignals();
  for (int signal : {SIGTERM, SIGINT, SIGUSR2, SIGALRM, SIGHUP}) {
    EXPECT_FALSE(blocked(signal)) << signal;
  }
}

TEST_F(SignalsTest, AnEarlyTerminationStopsTheServiceThatComesLater) {
  hold_signals();
  (void)raise(SIGTERM);
  testing::internal::CaptureStderr();
  setsignals();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "terminate signal\n");
  EXPECT_EQ(fsfilter::get()->start_threads(0), 0);
  EXPECT_EQ(fsfilter::get()->isrunning(), 0);
}

TEST_F(SignalsTest, EveryTerminationSaysSo) {
  setsignals();
  testing::internal::CaptureStderr();
  (void)raise(SIGTERM);
  (void)raise(SIGINT);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "terminate signal\nterminate signal\n");
  EXPECT_EQ(fsfilter::get()->isrunning(), 0);
}

TEST_F(SignalsTest, AFaultOutsideTheStatusAreaEndsTheProcess) {
  ChildProcess process([] {
    rlimit no_core{};
    (void)setrlimit(RLIMIT_CORE, &no_core);
    setsignals();
    char name[] = "/tmp/pelo-test-XXXXXX";
    const int file = mkstemp(name);
    (void)unlink(name);
    auto* bytes = static_cast<volatile char*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    return bytes[0];  // behind the file's end
  });
  EXPECT_EQ(process.wait(), -1);
}

TEST_F(SignalsTest, AFaultThatSomebodySendsEndsTheProcess) {
  ChildProcess process([] {
    rlimit no_core{};
    (void)setrlimit(RLIMIT_CORE, &no_core);
    setsignals();
    (void)kill(getpid(), SIGBUS);
    return 0;
  });
  EXPECT_EQ(process.wait(), -1);
}

TEST_F(SignalsTest, HandlersLeaveErrnoAlone) {
  setsignals();
  const int kept = dup(STDERR_FILENO);
  (void)close(STDERR_FILENO);  // what they say cannot be written
  for (int signal : {SIGTERM, SIGUSR2, SIGHUP}) {
    errno = 4711;
    (void)raise(signal);
    EXPECT_EQ(errno, 4711) << signal;
  }
  (void)dup2(kept, STDERR_FILENO);
  (void)close(kept);
}

}  // namespace
