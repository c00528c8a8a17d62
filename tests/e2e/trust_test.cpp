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

// labels: essential
TEST_F(Trust, EverySlotOfTheTableCountsAndNoneWithoutItsBit) {
  const std::string file = put_infected("bad");
  start();
  auto area = StatusArea::map();
  std::vector<Process> openers;
  for (size_t slot = 0; slot < StatusArea::kSlots; ++slot) {
    openers.push_back(open_after(work("go"), file));
    area->trust(slot, openers.back().pid());
  }
  Process distrusted = open_after(work("again"), file);
  touch(work("go"));
  for (Process& opener : openers) {
    EXPECT_EQ(opener.status(), 0);
  }
  EXPECT_EQ(scans_begun(file), 0U);
  area->trust(0, distrusted.pid());
  Process unset = open_after(work("again"), file);
  area->trust(1, unset.pid());
  area->distrust(0);
  area->set_mask(0);
  touch(work("again"));
  EXPECT_EQ(distrusted.status(), EPERM) << "no longer trusted";
  EXPECT_EQ(unset.status(), EPERM) << "in a slot without its bit";
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
  start({.own_pid_namespace = true});
  EXPECT_EQ(open_status(infected), EPERM);
  EXPECT_EQ(open_status(put_clean("good")), 0);
  auto area = StatusArea::map();
  area->set_mask(0xffffffff);  // every free slot holds the value 0
  EXPECT_EQ(open_status(infected), EPERM);
  area->set_owner(0);
  EXPECT_EQ(open_status(infected), EPERM);
  expect_no_clean_end();
}

}  // namespace
}  // namespace e2e
