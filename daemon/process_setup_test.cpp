#include "process_setup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

#include "child_process.h"
#include "daemonize.h"
#include "temp_directory.h"

namespace {

TEST(DescriptorLimitTest, IsRaisedAndKeepsSomeForTheScansButNoMoreThanHalf) {
  struct LimitRow {
    rlim_t soft;
    rlim_t hard;
    int workers;
    int held;
  };
  for (const LimitRow& row :
       {LimitRow{256, 4096, 5, 4096 - 64 - 5 * 32}, LimitRow{1024, 1024, 1, 1024 - 64 - 32},
        LimitRow{1024, 1024, 0, 1024 - 64}, LimitRow{512, 512, 1024, 256}, LimitRow{32, 32, 5, 16},
        LimitRow{1024, 20000, 5, 16320}}) {
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < row.hard && geteuid() != 0) {
      GTEST_SKIP() << "only root may raise the hard limit of descriptors";
    }
    ChildProcess process([&row] {
      rlimit set{row.soft, row.hard};
      const bool raised = setrlimit(RLIMIT_NOFILE, &set) == 0 &&
                          raise_descriptor_limit(row.workers) == row.held &&
                          getrlimit(RLIMIT_NOFILE, &set) == 0 && set.rlim_cur == row.hard;
      return raised ? 0 : 1;
    });
    EXPECT_EQ(process.wait(), 0) << row.hard << " " << row.workers;
  }
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

TEST(StandardStreamsTest, WhatNobodyReadsIsNotWaitedForWhenFullAndItsOtherUsersStayBlocking) {
  int pipes[2];
  int sockets[2];
  ASSERT_EQ(pipe(pipes), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  for (const int end : {pipes[1], sockets[1]}) {
    fill(end);
    EXPECT_EQ(prepared(end, write_much), 0);
  }
  EXPECT_EQ(fcntl(pipes[1], F_GETFL) & O_NONBLOCK, 0);
}

TEST(StandardStreamsTest, APipeThatIsReadAndAFileGetEveryLine) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(prepared(ends[1], [] { return std::printf("line\n") == 5 ? 0 : 1; }), 0);
  char text[16] = {};
  EXPECT_EQ(read(ends[0], text, sizeof text), 5) << "lines are written one by one, at their end";
  EXPECT_STREQ(text, "line\n");
  const TempDirectory folder;
  const int file = open(folder.path("out").c_str(), O_RDWR | O_CREAT | O_APPEND, 0600);
  EXPECT_EQ(prepared(file, write_much), 0);
  EXPECT_EQ(folder.read("out").size(), 1000U * (25 + 16));
  EXPECT_EQ(fcntl(file, F_GETFL) & O_NONBLOCK, 0) << "it stays blocking";
  (void)close(file);
}

TEST(PreparedProcessTest, IsEndedByNoPipeOrFileAndStoppedByNoTerminalNorNeedsOne) {
  ChildProcess process([] {
    (void)close(STDOUT_FILENO);
    (void)close(STDERR_FILENO);
    prepare_process();
    for (const int number : {SIGPIPE, SIGXFSZ, SIGTSTP, SIGTTIN, SIGTTOU}) {
      struct sigaction action {};
      if (sigaction(number, nullptr, &action) != 0 || action.sa_handler != SIG_IGN) {
        return number;
      }
    }
    return 0;
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(PreparedProcessTest, ItsFilesGetTheModesThatTheyAreMadeWith) {
  ChildProcess process([] {
    (void)umask(077);
    prepare_process();
    return static_cast<int>(umask(0));
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(PreparedProcessTest, ItsTimeZoneIsNamedSoThatItIsNotLookedForAgain) {
  ChildProcess process([] {
    (void)unsetenv("TZ");
    prepare_process();
    const bool named = std::string(std::getenv("TZ")) == ":/etc/localtime";
    (void)setenv("TZ", "XYZ-5", 1);
    prepare_process();
    const bool kept = std::string(std::getenv("TZ")) == "XYZ-5" && timezone == -5 * 3600;
    return named && kept ? 0 : 1;
  });
  EXPECT_EQ(process.wait(), 0);
}

TEST(ForeignExitTest, OnAnyThreadButTheMainOneEndsTheProcessAndItsPidFile) {
  const TempDirectory folder;
  for (const bool main_thread : {true, false}) {
    ChildProcess process([&] {
      (void)set_pidfile_dir(folder.path().c_str());
      (void)create_pidfile("pelowatchd");
      end_at_foreign_exit();
      main_thread ? std::exit(7) : std::thread([] { std::exit(7); }).join();
      return 0;
    });
    EXPECT_EQ(process.wait(), main_thread ? 7 : 1);
    EXPECT_EQ(folder.read("pelowatchd.pid").empty(), !main_thread);
    (void)unlink(folder.path("pelowatchd.pid").c_str());
  }
}

}  // namespace
