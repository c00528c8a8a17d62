// The event loop, folder marks and other processes, against the real kernel.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <deque>
#include <map>
#include <vector>

#include "emulated.h"
#include "kernel_fixture.h"
#include "pool_fixture.h"

namespace {

int deny_names_with_bad(fsfilter_handle_t handle, fsfilter_event_struct* event) {
  (void)Callbacks::allow(handle, event);
  return std::strstr(event->path, "bad") != nullptr ? FSFILTER_DENY : FSFILTER_ALLOW;
}

std::size_t begun() {
  return Callbacks::get().begun();
}

class LoopKernelTest : public KernelTest {
 protected:
  void TearDown() override {
    Callbacks::get().let_pass();
    loop_.end();
    EXPECT_EQ(fsfilter_thread_end(), 0);
    KernelTest::TearDown();
  }

  /// Runs the loop over the registered filter.
  void start(fsfilter_callback_t open_callback) {
    loop_.handle = filter_;
    loop_.open_callback = open_callback;
    loop_.begin();
  }

  std::string put(const std::string& name) const {
    std::ofstream(watched_ + "/" + name) << "content";
    return watched_ + "/" + name;
  }

  RunningLoop loop_;
};

TEST_F(LoopKernelTest, AClosedFilterLetsGoOfWhatWaitsAndOfWhatIsInACallback) {
  std::deque<Opener> openers;
  for (int i = 0; i < 6; ++i) {
    openers.emplace_back(put("bad" + std::to_string(i)));
  }
  watch();
  start(Callbacks::wait_and_deny);
  for (Opener& opener : openers) {
    opener.go();
  }
  ASSERT_TRUE(Callbacks::get().eventually_begun(3));
  ASSERT_TRUE(eventually([this] { return group_is_empty(); }));
  loop_.end();
  EXPECT_EQ(unregister_filter(std::exchange(filter_, nullptr)), 0);
  for (Opener& opener : openers) {
    EXPECT_EQ(opener.result(), 0);
  }
  EXPECT_EQ(begun(), 3U);
  EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 0);
  fsfilter_handle_t next = nullptr;
  EXPECT_EQ(register_filter(&next), 0) << "while callbacks still use the old one";
  Callbacks::get().let_pass();
  EXPECT_EQ(fsfilter_thread_end(), 0);
  EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 1) << "the late end is not the new filter's";
  EXPECT_EQ(unregister_filter(next), 0);
}

/// Opens both files many times over. @return 0 when the bad one alone was always denied
int open_often(const std::string& good, const std::string& bad, int rounds) {
  for (int i = 0; i < rounds; ++i) {
    const Descriptor opened(open(good.c_str(), O_RDONLY | O_CLOEXEC));
    const Descriptor denied(open(bad.c_str(), O_RDONLY | O_CLOEXEC));
    if (!opened || denied || errno != EPERM) {
      return 1;
    }
  }
  (void)close_range(3, ~0U, 0);
  return 0;
}

// labels: essential
TEST_F(LoopKernelTest, ThousandsOfOpensAreAnsweredEachWorkerInOrderOfArrival) {
  constexpr std::size_t openers = 5;
  constexpr int rounds = PELO_EMULATED ? 50 : 1000;
  std::array<Gate, openers> gates;
  std::deque<ChildProcess> processes;
  for (Gate& gate : gates) {
    const std::string name = std::to_string(processes.size());
    processes.emplace_back([&gate, good = put("good" + name), bad = put("bad" + name)] {
      gate.wait();
      return open_often(good, bad, rounds);
    });
  }
  watch();
  start(deny_names_with_bad);
  for (Gate& gate : gates) {
    gate.open();
  }
  for (ChildProcess& process : processes) {
    EXPECT_EQ(process.wait(), 0);
  }
  std::map<pid_t, std::vector<std::uint64_t>> ids_by_worker;
  for (const Callbacks::Seen& seen : Callbacks::get().seen()) {
    ids_by_worker[seen.thread].push_back(seen.event.message_id);
  }
  std::size_t events = 0;
  for (const auto& [worker, ids] : ids_by_worker) {
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end())) << "by worker " << worker;
    events += ids.size();
  }
  EXPECT_EQ(events, openers * 2 * rounds);
  EXPECT_EQ(std::atomic_ref(fsfilter_stat(filter_)->answered).load(), events);
  EXPECT_EQ(std::atomic_ref(fsfilter_stat(filter_)->denied).load(), events / 2);
}

class FolderMarkTest : public LoopKernelTest {
 protected:
  /// A filter that watches the folder alone, not its mount.
  void watch_folder(const std::string& folder) {
    ASSERT_EQ(register_filter(&filter_), 0);
    ASSERT_EQ(register_folder(filter_, folder.c_str()), 0);
    start(deny_names_with_bad);
  }
};

// The mark also asks for the permission to read, which nobody is asked about.
TEST_F(FolderMarkTest, FilesInItAreOpenedReadAndWrittenOnceAllowed) {
  Opener reader(put("good-read"));
  Opener writer(put("good-written"), O_WRONLY);
  watch_folder(watched_);
  EXPECT_EQ(reader.go().result(), 0);
  EXPECT_EQ(writer.go().result(), 0);
  EXPECT_EQ(begun(), 2U);
  EXPECT_GT(std::atomic_ref(fsfilter_stat(filter_)->answered).load(), 2U);
}

TEST_F(FolderMarkTest, FilesElsewhereOnTheMountAreNot) {
  ASSERT_EQ(mkdir((watched_ + "/folder").c_str(), 0755), 0);
  Opener inside(put("folder/bad"));
  Opener beside(put("bad"));
  watch_folder(watched_ + "/folder");
  EXPECT_EQ(beside.go().result(), 0);
  EXPECT_EQ(inside.go().result(), EPERM);
}

}  // namespace
