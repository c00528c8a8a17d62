// Who is never held: the daemon itself and the processes of the status area. Nobody else.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "fixture.h"

namespace e2e {
namespace {

class Trust : public E2eTest {
 protected:
  /// A process that opens `file` once the file `go` is there.
  Process open_after(const std::string& go, const std::string& file) {
    return Process([=] {
      if (!eventually([&] { return World::exists(go); })) {
        return ETIME;
      }
      return try_open(file);
    });
  }
};

TEST_F(Trust, TrustedProcessIsNotHeld) {
  const std::string file = put_infected("bad");
  start();
  Process opener = open_after(work("go"), file);
  auto area = StatusArea::map();
  area->trust(3, opener.pid());
  touch(work("go"));
  EXPECT_EQ(opener.status(), 0);
  EXPECT_EQ(scans_begun(file), 0U);
}

TEST_F(Trust, EverySlotOfTheTableCounts) {
  const std::string file = put_infected("bad");
  start();
  auto area = StatusArea::map();
  std::vector<Process> openers;
  for (size_t slot = 0; slot < StatusArea::kSlots; ++slot) {
    openers.push_back(open_after(work("go"), file));
    area->trust(slot, openers.back().pid());
  }
  touch(work("go"));
  for (Process& opener : openers) {
    EXPECT_EQ(opener.status(), 0);
  }
}

TEST_F(Trust, ProcessNoLongerTrustedIsHeld) {
  const std::string file = put_infected("bad");
  start();
  Process opener = open_after(work("go"), file);
  auto area = StatusArea::map();
  area->trust(0, opener.pid());
  area->distrust(0);
  touch(work("go"));
  EXPECT_EQ(opener.status(), EPERM);
}

TEST_F(Trust, SlotWithoutItsBitDoesNotCount) {
  const std::string file = put_infected("bad");
  start();
  Process opener = open_after(work("go"), file);
  auto area = StatusArea::map();
  area->trust(0, opener.pid());
  area->set_mask(0);
  touch(work("go"));
  EXPECT_EQ(opener.status(), EPERM);
}

TEST_F(Trust, ProcessOfANestedPidNamespaceIsScannedLikeAnyOther) {
  const std::string infected = put_infected("bad");
  const std::string clean = put_clean("good");
  start();
  const auto open_nested = [](const std::string& file) {
    Process outer([&] {
      if (unshare(CLONE_NEWPID) != 0) {
        return errno;
      }
      Process inner = start_open(file);
      return inner.status();
    });
    return outer.status();
  };
  EXPECT_EQ(open_nested(infected), EPERM);
  EXPECT_EQ(open_nested(clean), 0);
}

TEST_F(Trust, ProcessWhosePidTheDaemonCannotSeeIsScannedLikeAnyOther) {
  // To a daemon in a pid namespace of its own, everybody outside has pid 0.
  const std::string infected = put_infected("bad");
  const std::string clean = put_clean("good");
  Launch launch;
  launch.own_pid_namespace = true;
  start(launch);
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_EQ(open_status(clean), 0);
  expect_no_clean_end();
}

TEST_F(Trust, PidZeroIsNeverTrusted) {
  const std::string infected = put_infected("bad");
  Launch launch;
  launch.own_pid_namespace = true;
  start(launch);
  auto area = StatusArea::map();
  area->set_mask(0xffffffff);  // every free slot holds the value 0
  EXPECT_EQ(open_status(infected), EPERM);
  area->set_owner(0);
  EXPECT_EQ(open_status(infected), EPERM);
  expect_no_clean_end();
}

}  // namespace
}  // namespace e2e
