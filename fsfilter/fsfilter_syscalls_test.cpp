// The exact arguments of the kernel calls: the two of the C library are replaced here, for this
// program alone.
#include "fsfilter_syscalls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "fsfilter.h"
#include "fsfilter_context.h"

namespace {

struct Mark {
  int fd;
  unsigned int flags;
  std::uint64_t mask;
  int directory;
  std::string path;
  bool operator==(const Mark&) const = default;
};

struct Init {
  unsigned int flags;
  unsigned int event_flags;
};

std::vector<Init> inits;
std::vector<Mark> marks;
int kernel_error = 0;  // what the calls fail with; 0: they succeed
int lowest_group = 0;  // the number from which a group's descriptor is taken

int kernel_result(int success) {
  errno = kernel_error;
  return kernel_error == 0 ? success : -1;
}

}  // namespace

extern "C" int fanotify_init(unsigned int flags, unsigned int event_flags) noexcept {
  inits.push_back({flags, event_flags});
  return kernel_result(kernel_error == 0 ? fcntl(0, F_DUPFD, lowest_group) : -1);
}

extern "C" int fanotify_mark(int fd, unsigned int flags, std::uint64_t mask, int directory,
                             const char* path) noexcept {
  marks.push_back({fd, flags, mask, directory, path});
  return kernel_result(0);
}

namespace {

class KernelCallsTest : public testing::Test {
 protected:
  KernelCallsTest() {
    inits.clear();
    marks.clear();
    kernel_error = 0;
    lowest_group = 0;
  }

  /// Allows descriptors a little beyond what an fd_set holds.
  static void allow_high_descriptors() {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = FD_SETSIZE + 10;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
};

TEST_F(KernelCallsTest, TheGroupHasPermissionEventsAndNoLimits) {
  const int fd = fanotify_init();
  ASSERT_EQ(inits.size(), 1U);
  EXPECT_EQ(inits[0].flags, 0x34U);
  (void)close(fd);
}

TEST_F(KernelCallsTest, EventFilesAreReadOnlyNonblockingAndLarge) {
  const int fd = fanotify_init();
  ASSERT_EQ(inits.size(), 1U);
  EXPECT_EQ(inits[0].event_flags, static_cast<unsigned>(O_RDONLY | O_NONBLOCK | O_LARGEFILE));
#if defined(__x86_64__)
  EXPECT_EQ(inits[0].event_flags, 0x800U);
#endif
  (void)close(fd);
}

TEST_F(KernelCallsTest, TheGroupsDescriptorIsCloseOnExecAndDoesNotBlock) {
  const int fd = fanotify_init();
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  (void)close(fd);
}

TEST_F(KernelCallsTest, ARefusedGroupIsANegativeResultWithErrno) {
  kernel_error = EPERM;
  EXPECT_EQ(fanotify_init(), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST_F(KernelCallsTest, AGroupWhoseDescriptorIsTooHighToWaitForIsRefusedAndClosed) {
  allow_high_descriptors();
  lowest_group = FD_SETSIZE;
  errno = 0;
  EXPECT_EQ(fanotify_init(), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(fcntl(FD_SETSIZE, F_GETFD), -1);
}

TEST_F(KernelCallsTest, AGroupWithTheHighestDescriptorThatCanBeWaitedForIsTaken) {
  allow_high_descriptors();
  lowest_group = FD_SETSIZE - 1;
  EXPECT_EQ(fanotify_init(), FD_SETSIZE - 1);
  EXPECT_EQ(close(FD_SETSIZE - 1), 0);
}

TEST_F(KernelCallsTest, ATooHighGroupFailsRegistrationWithEmfile) {
  allow_high_descriptors();
  lowest_group = FD_SETSIZE;
  fsfilter_handle_t handle = nullptr;
  errno = 0;
  EXPECT_EQ(register_filter(&handle), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(handle, nullptr);
}

TEST_F(KernelCallsTest, RegisteringAMountAddsAMountMark) {
  EXPECT_EQ(fatotify_register_mount(7, "/share"), 0);
  EXPECT_EQ(marks, (std::vector<Mark>{{7, 0x11, 0x08010008, AT_FDCWD, "/share"}}));
}

TEST_F(KernelCallsTest, UnregisteringAMountRemovesTheSameMark) {
  EXPECT_EQ(fatotify_unregister_mount(7, "/share"), 0);
  EXPECT_EQ(marks, (std::vector<Mark>{{7, 0x12, 0x08010008, AT_FDCWD, "/share"}}));
}

TEST_F(KernelCallsTest, RegisteringAFolderAddsAnInodeMark) {
  EXPECT_EQ(fanotify_register_folder(7, "/share"), 0);
  EXPECT_EQ(marks, (std::vector<Mark>{{7, 0x01, 0x0803003B, AT_FDCWD, "/share"}}));
}

TEST_F(KernelCallsTest, UnregisteringAFolderRemovesAMountMark) {
  EXPECT_EQ(fatotify_unregister_folder(7, "/share"), 0);
  EXPECT_EQ(marks, (std::vector<Mark>{{7, 0x12, 0x0803003B, AT_FDCWD, "/share"}}));
}

TEST_F(KernelCallsTest, IgnoringAPathPassesTheIgnoreFlagAlone) {
  EXPECT_EQ(fatotify_ignore(7, "/share"), 0);
  EXPECT_EQ(marks, (std::vector<Mark>{{7, 0x20, 0x3B, AT_FDCWD, "/share"}}));
}

TEST_F(KernelCallsTest, ARefusedMarkIsMinusOneWithErrno) {
  kernel_error = EINVAL;
  EXPECT_EQ(fatotify_register_mount(7, "/share"), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(KernelCallsTest, ARefusedGroupFailsRegistrationWithTheKernelsResult) {
  kernel_error = EPERM;
  fsfilter_handle_t handle = nullptr;
  errno = 0;
  EXPECT_EQ(register_filter(&handle), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(handle, nullptr);
}

TEST_F(KernelCallsTest, FolderAndIgnoreOperationsUseTheFiltersDescriptor) {
  fsfilter_context_t context;
  context.fanotify_fd = 9;
  EXPECT_EQ(register_folder(&context, "/a"), 0);
  EXPECT_EQ(unregister_folder(&context, "/b"), 0);
  EXPECT_EQ(ignore_path(&context, "/c"), 0);
  EXPECT_EQ(marks, (std::vector<Mark>{{9, 0x01, 0x0803003B, AT_FDCWD, "/a"},
                                      {9, 0x12, 0x0803003B, AT_FDCWD, "/b"},
                                      {9, 0x20, 0x3B, AT_FDCWD, "/c"}}));
}

TEST_F(KernelCallsTest, ReleasingKeepsTheDescriptorsNumberTaken) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(fanotify_release(ends[1]), 0);
  EXPECT_NE(fcntl(ends[1], F_GETFD), -1);
  EXPECT_NE(fcntl(ends[1], F_GETFD) & FD_CLOEXEC, 0);
  char byte;
  EXPECT_EQ(read(ends[0], &byte, 1), 0) << "what stood behind the number is still open";
  EXPECT_EQ(write(ends[1], &byte, 1), -1);
}

}  // namespace
