#include "process_setup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "child_process.h"
#include "temp_directory.h"

namespace {

/// Sets the limit of descriptors and prepares the process. @return what raising it returned, or -1
int raised(rlim_t soft, rlim_t hard) {
  rlimit limit{soft, hard};
  return setrlimit(RLIMIT_NOFILE, &limit) != 0 ? -1 : raise_descriptor_limit();
}

rlim_t soft_limit() {
  rlimit limit{};
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

TEST(DescriptorLimitTest, TheSoftLimitIsRaisedToTheHardOne) {
  ChildProcess process([] {
    const int held = raised(256, 1024);
    return soft_limit() == 1024 && held == 1024 - 64 ? 0 : 1;
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(DescriptorLimitTest, HeldOpensAreBoundedHoweverHighTheLimit) {
  rlimit limit{};
  (void)getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 20000 && geteuid() != 0) {
    // Only root may raise it to what the test bounds.
    GTEST_SKIP() << "the hard limit of descriptors is below 20000";
  }
  ChildProcess process([] { return raised(1024, 20000) == 16384 - 64 ? 0 : 1; });
  EXPECT_EQ(process.wait(), 0);
}

TEST(DescriptorLimitTest, OneOpenCanBeHeldHoweverLowTheLimit) {
  ChildProcess process([] { return raised(32, 32) == 1 ? 0 : 1; });
  EXPECT_EQ(process.wait(), 0);
}

/// A process with its output on a descriptor of the test's, prepared as the daemon is.
template <typename Body>
int prepared(int output, Body body) {
  ChildProcess process([&] {
    (void)dup2(output, STDOUT_FILENO);
    (void)dup2(output, STDERR_FILENO);
    prepare_process();
    return body();
  });
  return process.wait();
}

/// Fills a pipe or socket to the last byte without waiting.
void fill(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  (void)fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  char bytes[4096] = {};
  for (std::size_t size : {sizeof bytes, std::size_t{1}}) {
    while (write(fd, bytes, size) > 0) {
    }
  }
  (void)fcntl(fd, F_SETFL, flags);
}

int write_much() {
  for (int i = 0; i < 1000; ++i) {
    (void)std::printf("a line that nobody reads\n");
    (void)std::fprintf(stderr, "and another one\n");
  }
  return 0;
}

TEST(StandardStreamsTest, AFullPipeThatNobodyReadsIsNotWaitedFor) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  fill(ends[1]);
  EXPECT_EQ(prepared(ends[1], write_much), 0);
}

TEST(StandardStreamsTest, AFullSocketThatNobodyReadsIsNotWaitedFor) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  fill(ends[1]);
  EXPECT_EQ(prepared(ends[1], write_much), 0);
}

TEST(StandardStreamsTest, ThePipesOtherUsersKeepTheirFlags) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(prepared(ends[1], [] { return 0; }), 0);
  EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
}

TEST(StandardStreamsTest, APipeThatIsReadGetsEveryLine) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(prepared(ends[1], [] { return std::printf("line\n") == 5 ? 0 : 1; }), 0);
  char text[16] = {};
  EXPECT_EQ(read(ends[0], text, sizeof text), 5) << "lines are written one by one, at their end";
  EXPECT_STREQ(text, "line\n");
}

TEST(StandardStreamsTest, AFileGetsEveryLineAndStaysBlocking) {
  const TempDirectory folder;
  const int file = open(folder.path("out").c_str(), O_RDWR | O_CREAT | O_APPEND, 0600);
  EXPECT_EQ(prepared(file, write_much), 0);
  EXPECT_EQ(folder.read("out").size(), 1000U * (25 + 16));
  EXPECT_EQ(fcntl(file, F_GETFL) & O_NONBLOCK, 0);
  (void)close(file);
}

TEST(StandardStreamsTest, ClosedStreamsAreNoReasonToFail) {
  ChildProcess process([] {
    (void)close(STDOUT_FILENO);
    (void)close(STDERR_FILENO);
    prepare_process();
    return 0;
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(StandardStreamsTest, AReaderThatIsGoneIsAnErrorAndNotTheEnd) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  (void)close(ends[0]);
  EXPECT_EQ(prepared(ends[1],
                     [&] {
                       char byte = 0;
                       return write(ends[1], &byte, 1) == -1 && errno == EPIPE ? 0 : 1;
                     }),
            0);
}

TEST(TimeZoneTest, IsNamedOnceSoThatItIsNotLookedForAgain) {
  ChildProcess process([] {
    (void)unsetenv("TZ");
    prepare_process();
    return std::string(std::getenv("TZ")) == ":/etc/localtime" ? 0 : 1;
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(TimeZoneTest, OneThatIsGivenIsKept) {
  ChildProcess process([] {
    (void)setenv("TZ", "XYZ-5", 1);
    prepare_process();
    return std::string(std::getenv("TZ")) == "XYZ-5" && timezone == -5 * 3600 ? 0 : 1;
  });
  EXPECT_EQ(process.wait(), 0);
}

}  // namespace
