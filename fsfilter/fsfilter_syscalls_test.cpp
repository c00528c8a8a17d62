// The exact arguments of the kernel calls: the two of the C library are replaced here, for this
// program alone.
#include "fsfilter_syscalls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <cerrno>
#include <cstdint>
#include <functional>
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
};

TEST_F(KernelCallsTest, AGroupHasPermissionEventsAndNoLimitsAndOpensLargeFilesForReading) {
  const Descriptor group(fanotify_init());
  ASSERT_EQ(inits.size(), 1U);
  EXPECT_EQ(inits[0].flags, 0x34U);
  EXPECT_EQ(inits[0].event_flags, static_cast<unsigned>(O_RDONLY | O_NONBLOCK | O_LARGEFILE));
  EXPECT_NE(fcntl(group.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(group.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(KernelCallsTest, AGroupWhoseDescriptorIsTooHighToWaitForIsRefusedAndClosed) {
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = FD_SETSIZE + 10;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  lowest_group = FD_SETSIZE;
  EXPECT_EQ(fanotify_init(), -1);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(fcntl(FD_SETSIZE, F_GETFD), -1);
  lowest_group = FD_SETSIZE - 1;
  EXPECT_EQ(Descriptor(fanotify_init()).get(), FD_SETSIZE - 1);
}

TEST_F(KernelCallsTest, ARefusalIsMinusOneWithErrno) {
  kernel_error = EPERM;
  fsfilter_handle_t handle = nullptr;
  const std::function<int()> calls[] = {[] { return fanotify_init(); },
                                        [&] { return register_filter(&handle); },
                                        [] { return fatotify_register_mount(7, "/share"); }};
  for (const auto& call : calls) {
    errno = 0;
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errno, EPERM);
  }
  EXPECT_EQ(handle, nullptr);
}

TEST_F(KernelCallsTest, EachMarkHasItsFlagsAndMaskAndAFiltersAreOnItsDescriptor) {
  fsfilter_context_t filter;
  filter.group.reset(fcntl(0, F_DUPFD_CLOEXEC, 9));
  struct {
    int (*mark)(int, const char*);
    int (*operation)(fsfilter_handle_t, const char*);
    unsigned int flags;
    std::uint64_t mask;
  } const rows[] = {{fatotify_register_mount, nullptr, 0x11, 0x08010008},
                    {fatotify_unregister_mount, nullptr, 0x12, 0x08010008},
                    {fanotify_register_folder, register_folder, 0x01, 0x0803003B},
                    {fatotify_unregister_folder, unregister_folder, 0x12, 0x0803003B},
                    {fatotify_ignore, ignore_path, 0x20, 0x3B}};
  for (const auto& [mark, operation, flags, mask] : rows) {
    EXPECT_EQ(mark(7, "/share"), 0);
    EXPECT_EQ(marks.back(), (Mark{7, flags, mask, AT_FDCWD, "/share"}));
    if (operation != nullptr) {
      EXPECT_EQ(operation(&filter, "/share"), 0);
      EXPECT_EQ(marks.back(), (Mark{filter.group.get(), flags, mask, AT_FDCWD, "/share"}));
    }
  }
}

}  // namespace
