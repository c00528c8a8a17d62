// A worker without memory: whoever waits is released, and the worker lives on. In a program of its
// own, whose allocations the test can refuse.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "avsdk_scanner.h"
#include "service_fixture.h"

namespace {

/// While it is not negative: so many more allocations are granted to threads other than the main
/// one, on which the tests run.
std::atomic<long> granted{-1};
std::atomic<long> refused{0};

bool is_granted() {
  if (granted.load() < 0 || gettid() == getpid()) {
    return true;
  }
  long left = granted.load();
  while (left > 0 && !granted.compare_exchange_weak(left, left - 1)) {
  }
  if (left != 0) {
    return true;
  }
  refused.fetch_add(1);
  return false;
}

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return is_granted() ? std::malloc(size == 0 ? 1 : size) : nullptr;
}
void* operator new(std::size_t size) {
  if (void* place = operator new(size, std::nothrow); place != nullptr) {
    return place;
  }
  throw std::bad_alloc();
}
void operator delete(void* place) noexcept {
  std::free(place);
}
void operator delete(void* place, std::size_t) noexcept {
  std::free(place);
}

namespace {

/// Other threads get no memory in its scope, after so many allocations.
class Starvation {
 public:
  explicit Starvation(long first_granted = 0) {
    refused.store(0);
    granted.store(first_granted);
  }
  ~Starvation() { granted.store(-1); }
  Starvation(const Starvation&) = delete;
  Starvation& operator=(const Starvation&) = delete;

  static long refusals() { return refused.load(); }
};

class WorkerMemoryTest : public ServiceTest {
 protected:
  /// Starts one worker; it has its engine handle and has denied a first open when this returns.
  void start_worker() {
    run(1);
    ASSERT_EQ(verdict_on(infected_, FAN_OPEN_PERM), deny);
  }

  /// The verdict on one event, which must be answered once and let go of completely.
  std::uint32_t verdict_on(const std::string& path, std::uint64_t mask) {
    const int fd = feed(path, mask);
    const std::uint32_t verdict = filter_.verdict_for(fd);
    EXPECT_NE(verdict, 0U) << path;
    // The descriptor is closed, and the event counted off, after the answer is out.
    EXPECT_TRUE(eventually([fd] { return !is_open(fd); }));
    EXPECT_TRUE(eventually([] { return service().getefp()->held() == 0; }))
        << service().getefp()->held();
    EXPECT_TRUE(filter_.quiet());
    return verdict;
  }

  /// Every allocation that other threads ask for on the road of such an event fails once, and all
  /// after it. Two events, so that the worker is certainly done with the first.
  void fail_at_each_allocation(const std::string& content, std::uint64_t mask) {
    long refusals = 1;
    for (long before = 0; refusals > 0; ++before) {
      const std::string path = put("file" + std::to_string(before), content);
      const std::string next = put("next" + std::to_string(before), content);
      const Starvation starvation(before);
      (void)verdict_on(path, mask);
      (void)verdict_on(next, mask);
      refusals = Starvation::refusals();
      ASSERT_FALSE(HasFailure()) << "with " << before << " allocations granted";
    }
    EXPECT_EQ(verdict_on(infected_, FAN_OPEN_PERM), deny);
  }

  const std::string infected_ = put("bad", detection);
};

TEST_F(WorkerMemoryTest, AnEventWithoutMemoryForItsScanIsAllowedAndTheWorkerLivesOn) {
  start_worker();
  const std::string clean = put("clean", "clean\n");
  for (const int log_level : {3, 0}) {
    log_up_to(log_level);
    {
      const Starvation starvation;
      EXPECT_EQ(verdict_on(clean, FAN_OPEN_PERM), allow);
      EXPECT_EQ(verdict_on(clean, FAN_CLOSE_WRITE), allow);
      EXPECT_EQ(verdict_on(infected_, FAN_OPEN_PERM), allow);
      EXPECT_GT(Starvation::refusals(), 0) << "the test does not show what it should";
    }
    EXPECT_FALSE(cache().lookup(clean));
    EXPECT_EQ(verdict_on(infected_, FAN_OPEN_PERM), deny);
  }
  EXPECT_EQ(verdict_on(clean, FAN_OPEN_PERM), allow);
}

TEST_F(WorkerMemoryTest, AWrittenFileThatCouldNotBeScannedIsNotTakenForCleanAnyMore) {
  start_worker();
  const std::string path = put("file", "clean\n");
  EXPECT_EQ(verdict_on(path, FAN_OPEN_PERM), allow);
  ASSERT_TRUE(eventually([&] { return cache().lookup(path); }));
  put("file", detection);
  {
    const Starvation starvation;
    EXPECT_EQ(verdict_on(path, FAN_CLOSE_WRITE), allow);
  }
  EXPECT_EQ(verdict_on(path, FAN_OPEN_PERM), deny);
}

TEST_F(WorkerMemoryTest, AWorkerWithoutMemoryForItsHandleAllowsUntilTheNextUpdate) {
  (void)AVSDK_scanner::getAVSDK_scanner();  // start-up makes it
  {
    const Starvation starvation;
    run(1);
    EXPECT_EQ(verdict_on(infected_, FAN_OPEN_PERM), allow);
    EXPECT_GT(Starvation::refusals(), 0) << "the test does not show what it should";
  }
  EXPECT_EQ(verdict_on(infected_, FAN_OPEN_PERM), allow);
  (void)service().reloaddb();
  EXPECT_TRUE(eventually([this] { return verdict_on(infected_, FAN_OPEN_PERM) == deny; }));
}

TEST_F(WorkerMemoryTest, WhicheverAllocationFailsAnOpenIsAnsweredOnce) {
  start_worker();
  fail_at_each_allocation("clean\n", FAN_OPEN_PERM);
}

TEST_F(WorkerMemoryTest, WhicheverAllocationFailsAFileToBeRemovedIsAnsweredOnce) {
  start_worker();
  fail_at_each_allocation(removal, FAN_CLOSE_WRITE);
}

}  // namespace
