// The status area as another process reads it: whatever stands there, the reader comes to no harm.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "child_process.h"
#include "fsfilter_context.h"
#include "private_mounts.h"
#include "temp_directory.h"
#include "wait.h"

namespace {
/// When set, reading from a file goes word by word, and this is called before each one.
std::function<void(off_t)> before_word;
}  // namespace

// Stands before the C library's in this program: it can copy as a 32-bit kernel does.
ssize_t pread(int fd, void* out, std::size_t size, off_t offset) {
  const std::size_t step = before_word ? sizeof(std::uint32_t) : size;
  std::size_t done = 0;
  ssize_t count = 0;
  do {
    const off_t at = offset + static_cast<off_t>(done);
    if (before_word) {
      before_word(at);
    }
    const iovec part{static_cast<char*>(out) + done, std::min(step, size - done)};
    count = preadv(fd, &part, 1, at);
    done += count > 0 ? static_cast<std::size_t>(count) : 0;
  } while (count > 0 && done < size);
  return count < 0 ? count : static_cast<ssize_t>(done);
}

namespace {

constexpr uid_t nobody = 65534;

/// What stands in a reader's record before, to be found untouched.
constexpr char untouched = '\x5A';

class StatusTest : public testing::Test {
 protected:
  StatusTest()
      : name_("/pelo-test-" + std::to_string(getpid())),
        status_(std::make_unique<fsfilter_status_struct>()) {
    (void)shm_unlink(name_.c_str());
    std::memset(status_.get(), untouched, sizeof *status_);
  }
  ~StatusTest() override { (void)shm_unlink(name_.c_str()); }

  std::string file() const { return "/dev/shm" + name_; }

  int read_status() {
    errno = 0;
    return fsfilter_shared_read(name_.c_str(), status_.get());
  }

  bool status_untouched() const {
    const auto* bytes = reinterpret_cast<const char*>(status_.get());
    return std::all_of(bytes, bytes + sizeof *status_, [](char b) { return b == untouched; });
  }

  /// A mapped area of zeros, of which nothing is known to its readers.
  fsfilter_shared_t put_area(std::size_t size = sizeof(fsfilter_shared_area)) const {
    const int fd = shm_open(name_.c_str(), O_CREAT | O_EXCL | O_RDWR, 0666);
    (void)fchmod(fd, 0666);
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
    void* area =
        mmap(nullptr, sizeof(fsfilter_shared_area), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    (void)close(fd);
    return static_cast<fsfilter_shared_t>(area);
  }

  std::vector<std::string_view> texts() const {
    return {{status_->jobs, sizeof status_->jobs},
            {status_->inclusions, sizeof status_->inclusions},
            {status_->exclusions, sizeof status_->exclusions},
            {status_->mounts, sizeof status_->mounts}};
  }

  std::string name_;
  std::unique_ptr<fsfilter_status_struct> status_;
};

TEST_F(StatusTest, EverythingTheAreaSaysIsRead) {
  const fsfilter_shared_t area = put_area();
  area->owner_pid = 4711;
  area->trusted_pids[0] = 1000;
  area->trusted_pids[9] = 1009;
  area->slot_mask = 1U | 1U << 9;
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
  EXPECT_EQ(std::count(status_->trusted_pids, status_->trusted_pids + 10, 0), 8);
  EXPECT_EQ(status_->answered, 0x1122334455667788U);
  EXPECT_EQ(status_->denied, 7U);
  EXPECT_STREQ(status_->jobs, "job\n");
  EXPECT_STREQ(status_->inclusions, "/in\n");
  EXPECT_STREQ(status_->exclusions, "/ex\n");
  EXPECT_STREQ(status_->mounts, "/a\n/b\n");
}

TEST_F(StatusTest, AnAreaWithAllBitsSetHoldsNobodyAndTextsThatEnd) {
  std::memset(static_cast<void*>(put_area()), 0xFF, sizeof(fsfilter_shared_area));
  ASSERT_EQ(read_status(), 0);
  EXPECT_EQ(status_->owner_pid, 0);
  EXPECT_EQ(std::count(status_->trusted_pids, status_->trusted_pids + 10, 0), 10);
  EXPECT_EQ(status_->answered, UINT64_MAX);
  for (const std::string_view text : texts()) {
    EXPECT_EQ(text.find('\0'), std::size_t{FSFILTER_TEXT_SIZE});
  }
}

TEST_F(StatusTest, TextsWithoutATerminatorEndWithTheirArea) {
  const fsfilter_shared_t area = put_area();
  std::memset(area->statistics.jobs, 'j', sizeof area->statistics.jobs);
  std::memset(area->inclusions, 'i', sizeof area->inclusions);
  std::memset(area->exclusions, 'e', sizeof area->exclusions);
  std::memset(area->mounts, 'm', sizeof area->mounts);
  ASSERT_EQ(read_status(), 0);
  EXPECT_EQ(status_->jobs, std::string(FSFILTER_TEXT_SIZE, 'j'));
  EXPECT_EQ(status_->inclusions, std::string(FSFILTER_TEXT_SIZE, 'i'));
  EXPECT_EQ(status_->exclusions, std::string(FSFILTER_TEXT_SIZE, 'e'));
  EXPECT_EQ(status_->mounts, std::string(FSFILTER_TEXT_SIZE, 'm'));
}

TEST_F(StatusTest, APidCountsOnlyWithItsMaskBit) {
  const fsfilter_shared_t area = put_area();
  std::fill(std::begin(area->trusted_pids), std::end(area->trusted_pids), 1000);
  area->slot_mask = 0xFFFFFC04;
  ASSERT_EQ(read_status(), 0);
  EXPECT_EQ(status_->trusted_pids[2], 1000);
  EXPECT_EQ(std::count(status_->trusted_pids, status_->trusted_pids + 10, 0), 9);
}

TEST_F(StatusTest, NegativePidsAreNobody) {
  const fsfilter_shared_t area = put_area();
  area->trusted_pids[3] = -1;
  area->slot_mask = 0x3FF;
  area->owner_pid = INT32_MIN;
  ASSERT_EQ(read_status(), 0);
  EXPECT_EQ(status_->trusted_pids[3], 0);
  EXPECT_EQ(status_->owner_pid, 0);
}

TEST_F(StatusTest, WithoutAnAreaThereIsEnoent) {
  EXPECT_EQ(read_status(), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(status_untouched());
}

TEST_F(StatusTest, AShortAreaIsRefused) {
  (void)put_area(sizeof(fsfilter_shared_area) - 1);
  EXPECT_EQ(read_status(), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(status_untouched());
}

TEST_F(StatusTest, AnEmptyAreaIsRefused) {
  (void)put_area(0);
  EXPECT_EQ(read_status(), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(StatusTest, APipeInItsPlaceIsRefusedWithoutAWait) {
  ASSERT_EQ(mkfifo(file().c_str(), 0666), 0);
  EXPECT_EQ(read_status(), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(status_untouched());
}

TEST_F(StatusTest, ALinkInItsPlaceIsNotFollowed) {
  ASSERT_EQ(symlink("/proc/self/exe", file().c_str()), 0);
  EXPECT_EQ(read_status(), -1);
  EXPECT_EQ(errno, ELOOP);
}

TEST_F(StatusTest, ADirectoryInItsPlaceIsRefused) {
  ASSERT_EQ(mkdir(file().c_str(), 0755), 0);
  EXPECT_EQ(read_status(), -1);
  EXPECT_EQ(errno, EINVAL);
  (void)rmdir(file().c_str());
}

TEST_F(StatusTest, NoDescriptorAndNoMappingStay) {
  const std::size_t maps_before = read_file("/proc/self/maps").find(name_);
  (void)munmap(put_area(), sizeof(fsfilter_shared_area));
  const int before = dup(0);
  ASSERT_EQ(read_status(), 0);
  const int after = dup(0);
  EXPECT_EQ(after, before + 1);
  EXPECT_EQ(maps_before, std::string::npos);
  EXPECT_EQ(read_file("/proc/self/maps").find(name_), std::string::npos);
  (void)close(before);
  (void)close(after);
}

/// A process that writes all of an area until it is killed, and cuts it off and back if it may.
ChildProcess scribbler(const std::string& name, bool cuts) {
  return ChildProcess([name, cuts] {
    const int fd = shm_open(name.c_str(), O_RDWR, 0);
    const std::string full(sizeof(fsfilter_shared_area), 'x');
    for (;;) {
      if (cuts) {
        (void)!ftruncate(fd, 100);
        (void)!ftruncate(fd, sizeof(fsfilter_shared_area));
      }
      (void)!pwrite(fd, full.data(), full.size(), 0);
      (void)!pwrite(fd, std::string(full.size(), '\0').data(), full.size(), 0);
    }
    return 0;
  });
}

TEST_F(StatusTest, AnAreaThatIsWrittenMeanwhileIsReadWithoutTextBeyondItsEnd) {
  (void)put_area();
  const ChildProcess writer = scribbler(name_, false);
  int seen_written = 0;
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(read_status(), 0);
    for (const std::string_view text : texts()) {
      EXPECT_EQ(text.back(), '\0');
      EXPECT_EQ(text.find_first_not_of(std::string_view("x\0", 2)), std::string_view::npos);
      seen_written += text.front() == 'x' ? 1 : 0;
    }
    return seen_written >= 1000;
  }));
}

TEST_F(StatusTest, AnAreaThatIsCutOffMeanwhileIsReadOrRefused) {
  (void)put_area();
  const ChildProcess writer = scribbler(name_, true);
  bool seen_whole = false;
  bool seen_cut = false;
  EXPECT_TRUE(eventually([&] {
    for (int i = 0; i < 1000; ++i) {
      const bool whole = read_status() == 0;
      EXPECT_TRUE(whole || errno == EINVAL) << errno;
      seen_whole = seen_whole || whole;
      seen_cut = seen_cut || !whole;
    }
    return seen_whole && seen_cut;
  }));
}

/// A process that counts in an area until it is killed: often beyond what 32 bits hold, but not so
/// often that no reader could keep up.
ChildProcess counter_in(fsfilter_shared_t area) {
  return ChildProcess([area] {
    for (;;) {
      std::atomic_ref(area->statistics.answered).fetch_add(1U << 22);
      std::atomic_ref(area->statistics.denied).fetch_add(1U << 22);
    }
    return 0;
  });
}

TEST_F(StatusTest, CountsWhoseUpperHalfChangesMeanwhileAreReadWhole) {
  const fsfilter_shared_t area = put_area();
  const std::atomic_ref answered(area->statistics.answered);
  const std::atomic_ref denied(area->statistics.denied);
  const ChildProcess counter = counter_in(area);
  int reads = 0;
  EXPECT_TRUE(eventually([&] {
    for (int i = 0; i < 100; ++i, ++reads) {
      const std::uint64_t answered_before = answered;
      const std::uint64_t denied_before = denied;
      EXPECT_EQ(read_status(), 0);
      EXPECT_GE(status_->answered, answered_before);
      EXPECT_LE(status_->answered, answered);
      EXPECT_GE(status_->denied, denied_before);
      EXPECT_LE(status_->denied, denied);
    }
    return HasFailure() || (reads >= 5000 && denied >> 32 >= 1000);
  }));
}

/// Adds one to both counters before the reading number `change` (from 0 on) of a word of theirs.
class CountingBetweenWords {
 public:
  CountingBetweenWords(fsfilter_stat_struct& statistics, int change) {
    before_word = [&statistics, change, words = 0](off_t at) mutable {
      if (at >= 72 && at < 88 && words++ == change) {
        ++statistics.answered;
        ++statistics.denied;
      }
    };
  }
  ~CountingBetweenWords() { before_word = nullptr; }
  CountingBetweenWords(const CountingBetweenWords&) = delete;
  CountingBetweenWords& operator=(const CountingBetweenWords&) = delete;
};

TEST_F(StatusTest, CountsThatGetTheirThirtyThirdBitBetweenTwoWordsAreReadWhole) {
  const fsfilter_shared_t area = put_area();
  const auto whole = testing::AnyOf(std::uint64_t{UINT32_MAX}, std::uint64_t{UINT32_MAX} + 1);
  for (int change = 0; change < 20; ++change) {
    area->statistics.answered = UINT32_MAX;
    area->statistics.denied = UINT32_MAX;
    const CountingBetweenWords counting(area->statistics, change);
    ASSERT_EQ(read_status(), 0);
    EXPECT_THAT(status_->answered, whole) << change;
    EXPECT_THAT(status_->denied, whole) << change;
  }
}

/// A counter of which a reader reads halves while it counts.
class CountingMeanwhile {
 public:
  /// It has `value` before the reading number `change` (from 0 on) and one more from then on; with
  /// `always`, its upper half is another one at each reading.
  CountingMeanwhile(std::uint64_t value, int change, bool always = false)
      : value_(value), change_(change), always_(always) {}

  bool read(bool upper, std::uint32_t* half) {
    value_ += readings_ == change_ ? 1 : 0;
    value_ += always_ ? std::uint64_t{1} << 32 : 0;
    ++readings_;
    *half = static_cast<std::uint32_t>(upper ? value_ >> 32 : value_);
    return readings_ != fails_at;
  }

  int readings() const { return readings_; }
  int fails_at = -1;

 private:
  std::uint64_t value_;
  int change_;
  bool always_;
  int readings_ = 0;
};

std::optional<std::uint64_t> counter_of(CountingMeanwhile& counter) {
  std::uint64_t value = 0;
  const bool read = read_counter(
      [&](bool upper, std::uint32_t* half) { return counter.read(upper, half); }, &value);
  return read ? std::optional(value) : std::nullopt;
}

TEST(ReadCounterTest, ACountThatGetsItsThirtyThirdBitMeanwhileIsTheOneBeforeOrTheOneAfter) {
  for (int change = 0; change < 8; ++change) {
    CountingMeanwhile counter(UINT32_MAX, change);
    const auto value = counter_of(counter);
    EXPECT_TRUE(value == UINT32_MAX || value == std::uint64_t{UINT32_MAX} + 1)
        << value.value_or(0) << " when it changes before reading " << change;
  }
}

TEST(ReadCounterTest, OneWhoseUpperHalfNeverStaysIsGivenUp) {
  CountingMeanwhile counter(7, 0, true);
  EXPECT_TRUE(counter_of(counter).has_value());
  EXPECT_LT(counter.readings(), 1000);
}

TEST(ReadCounterTest, AHalfThatCannotBeReadFails) {
  for (int reading = 1; reading <= 3; ++reading) {
    CountingMeanwhile counter(7, -1);
    counter.fails_at = reading;
    EXPECT_EQ(counter_of(counter), std::nullopt) << reading;
  }
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
  (void)put_area();
  ASSERT_EQ(chmod(file().c_str(), 0644), 0);
  EXPECT_EQ(read_as_nobody(name_), 0);
  ASSERT_EQ(chmod(file().c_str(), 0600), 0);
  EXPECT_EQ(read_as_nobody(name_), EACCES);
}

TEST(ReadStatusTest, ANullRecordIsRefused) {
  errno = 0;
  EXPECT_EQ(fsfilter_read_status(nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
}

class OwnersStatusTest : public PrivateMountsTest {};

TEST_F(OwnersStatusTest, AnotherProcessReadsWhatTheOwnerSays) {
  auto status = std::make_unique<fsfilter_status_struct>();
  EXPECT_EQ(fsfilter_read_status(status.get()), -1);
  EXPECT_EQ(errno, ENOENT);
  Gate registered;
  Gate done;
  ChildProcess owner([&] {
    fsfilter_handle_t filter = nullptr;
    if (register_filter(&filter) != 0 || register_trusted(filter, 1000) != 0 ||
        add_inclusion(filter, "/run") != 0) {
      return 1;
    }
    registered.open();
    done.wait();
    return unregister_filter(filter);
  });
  registered.wait();
  ASSERT_EQ(fsfilter_read_status(status.get()), 0);
  EXPECT_EQ(status->owner_pid, owner.pid());
  EXPECT_EQ(status->trusted_pids[0], 1000);
  EXPECT_STREQ(status->inclusions, "/run\n");
  done.open();
  EXPECT_EQ(owner.wait(), 0);
  EXPECT_EQ(fsfilter_read_status(status.get()), -1);
}

}  // namespace
