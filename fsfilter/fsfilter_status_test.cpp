// The status area as another process reads it: whatever stands there, the reader comes to no harm.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "child_process.h"
#include "fsfilter_context.h"
#include "status_area_fixture.h"
#include "temp_directory.h"
#include "wait.h"

namespace {

constexpr uid_t nobody = 65534;

/// What stands in a reader's record before, to be found untouched.
constexpr char untouched = '\x5A';

class StatusTest : public StatusAreaTest {
 protected:
  StatusTest() { std::memset(status_.get(), untouched, sizeof *status_); }

  int read_status() {
    errno = 0;
    return fsfilter_shared_read(name_.c_str(), status_.get());
  }

  bool status_untouched() const {
    const auto* bytes = reinterpret_cast<const char*>(status_.get());
    return std::all_of(bytes, bytes + sizeof *status_, [](char b) { return b == untouched; });
  }

  std::vector<std::string_view> texts() const {
    return {{status_->jobs, sizeof status_->jobs},
            {status_->inclusions, sizeof status_->inclusions},
            {status_->exclusions, sizeof status_->exclusions},
            {status_->mounts, sizeof status_->mounts}};
  }

  std::unique_ptr<fsfilter_status_struct> status_ = std::make_unique<fsfilter_status_struct>();
};

// labels: essential
TEST_F(StatusTest, EverythingTheAreaSaysIsRead) {
  const fsfilter_shared_t area = create();
  area->owner_pid = 4711;
  std::fill(std::begin(area->trusted_pids), std::end(area->trusted_pids), 1000);
  area->trusted_pids[9] = 1009;
  area->slot_mask = 0xFFFFFC00 | 1U | 1U << 9;
  area->statistics.answered = 0x1122334455667788;
  area->statistics.denied = 7;
  std::strcpy(area->statistics.jobs, "job\n");
  std::strcpy(area->inclusions, "/in\n");
  std::strcpy(area->exclusions, "/ex\n");
  std::strcpy(area->mounts, "/a\n/b\n");
  ASSERT_EQ(read_status(), 0);
  EXPECT_EQ(status_->owner_pid, 4711);
  EXPECT_EQ(status_->trusted_pids[0], 1000);
  EXPECT_EQ(status_->trusted_pids[9], 1009);
  EXPECT_EQ(std::count(status_->trusted_pids, status_->trusted_pids + 10, 0), 8)
      << "a pid counts only with its mask bit";
  EXPECT_EQ(status_->answered, 0x1122334455667788U);
  EXPECT_EQ(status_->denied, 7U);
  EXPECT_STREQ(status_->jobs, "job\n");
  EXPECT_STREQ(status_->inclusions, "/in\n");
  EXPECT_STREQ(status_->exclusions, "/ex\n");
  EXPECT_STREQ(status_->mounts, "/a\n/b\n");
}

TEST_F(StatusTest, AnAreaWithAllBitsSetHoldsNobodyAndTextsThatEnd) {
  std::memset(static_cast<void*>(create()), 0xFF, sizeof(fsfilter_shared_area));
  ASSERT_EQ(read_status(), 0);
  EXPECT_EQ(status_->owner_pid, 0);
  EXPECT_EQ(std::count(status_->trusted_pids, status_->trusted_pids + 10, 0), 10);
  EXPECT_EQ(status_->answered, UINT64_MAX);
  for (const std::string_view text : texts()) {
    EXPECT_EQ(text, std::string(FSFILTER_TEXT_SIZE, '\xFF') + '\0');
  }
}

TEST_F(StatusTest, WhatIsNoAreaIsRefusedWithoutAWait) {
  struct {
    std::function<void()> put;
    int error;
  } const others[] = {
      {[] {}, ENOENT},
      {[this] { std::ofstream(file()) << std::string(sizeof(fsfilter_shared_area) - 1, 'x'); },
       EINVAL},
      {[this] { std::ofstream(file()).flush(); }, EINVAL},
      {[this] { ASSERT_EQ(mkfifo(file().c_str(), 0666), 0); }, EINVAL},
      {[this] { ASSERT_EQ(mkdir(file().c_str(), 0755), 0); }, EINVAL},
      {[this] { ASSERT_EQ(symlink("/proc/self/exe", file().c_str()), 0); }, ELOOP}};
  for (const auto& [put, error] : others) {
    put();
    EXPECT_EQ(read_status(), -1);
    EXPECT_EQ(errno, error);
    EXPECT_TRUE(status_untouched());
    EXPECT_EQ(open_again(), nullptr);
    (void)remove(file().c_str());
  }
}

/// A process that writes all of an area, cuts it off and back, until it is killed.
ChildProcess scribbler(const std::string& name) {
  return ChildProcess([name] {
    const int fd = shm_open(name.c_str(), O_RDWR, 0);
    const std::string full(sizeof(fsfilter_shared_area), 'x');
    for (;;) {
      (void)!ftruncate(fd, 100);
      (void)!ftruncate(fd, sizeof(fsfilter_shared_area));
      (void)!pwrite(fd, full.data(), full.size(), 0);
    }
    return 0;
  });
}

// labels: essential
TEST_F(StatusTest, AnAreaThatIsWrittenAndCutOffMeanwhileIsReadOrRefused) {
  (void)create();
  const ChildProcess writer = scribbler(name_);
  bool seen_written = false;
  bool seen_cut = false;
  EXPECT_TRUE(eventually([&] {
    for (int i = 0; i < 1000; ++i) {
      const bool whole = read_status() == 0;
      EXPECT_TRUE(whole || errno == EINVAL) << errno;
      seen_cut = seen_cut || !whole;
      for (const std::string_view text : whole ? texts() : std::vector<std::string_view>{}) {
        EXPECT_EQ(text.back(), '\0');
        EXPECT_EQ(text.find_first_not_of(std::string_view("x\0", 2)), std::string_view::npos);
        seen_written = seen_written || text.front() == 'x';
      }
    }
    return seen_written && seen_cut;
  }));
}

/// Reads as an unprivileged user. @return 0, or errno
int read_as_nobody(const std::string& name) {
  ChildProcess reader([&] {
    fsfilter_status_struct status{};
    if (setresgid(nobody, nobody, nobody) != 0 || setresuid(nobody, nobody, nobody) != 0) {
      return 255;
    }
    return fsfilter_shared_read(name.c_str(), &status) == 0 ? 0 : errno;
  });
  return reader.wait();
}

TEST_F(StatusTest, ProcessesWithoutPrivilegesReadWhatTheyMayRead) {
  if (geteuid() != 0) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root";
    GTEST_SKIP() << "needs root, to become somebody else";
  }
  (void)create();
  ASSERT_EQ(chmod(file().c_str(), 0644), 0);
  EXPECT_EQ(read_as_nobody(name_), 0);
  ASSERT_EQ(chmod(file().c_str(), 0600), 0);
  EXPECT_EQ(read_as_nobody(name_), EACCES);
}

}  // namespace
