// The event loop, folder marks and other processes, against the real kernel.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>

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

// labels: essential
TEST_F(LoopKernelTest, CallbacksDecideOpensAndAreToldOfClosesAfterWriting) {
  Opener bad(put("bad"));
  Opener good(put("good"), O_WRONLY);
  watch();
  loop_.close_wr_callback = Callbacks::deny;
  start(deny_names_with_bad);
  EXPECT_EQ(bad.go().result(), EPERM);
  EXPECT_EQ(good.go().result(), 0);
  ASSERT_TRUE(Callbacks::get().eventually_begun(3));
  EXPECT_EQ(Callbacks::get().events()[2].type, std::uint32_t{FSFILTER_CLOSE_WR});
}

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

std::string sibling;

int wait_and_open_the_sibling(fsfilter_handle_t handle, fsfilter_event_struct* event) {
  (void)Callbacks::wait_and_deny(handle, event);
  const int file = open(sibling.c_str(), O_RDONLY | O_CLOEXEC);
  (void)close(file);
  return file < 0 ? FSFILTER_DENY : FSFILTER_ALLOW;
}

TEST_F(LoopKernelTest, WithTheFilterClosedCallbacksThatRunMayOpenWhatWasWatched) {
  sibling = put("sibling");
  Opener first(put("first"));
  Opener second(put("second"));
  watch();
  start(wait_and_open_the_sibling);
  first.go();
  ASSERT_TRUE(Callbacks::get().eventually_begun(1));
  loop_.end();
  Callbacks::get().let_pass();  // nobody reads any more: its open waits
  second.go();
  EXPECT_EQ(unregister_filter(std::exchange(filter_, nullptr)), 0);
  EXPECT_EQ(fsfilter_thread_end(), 0);
  EXPECT_EQ(first.result(), 0);
  EXPECT_EQ(second.result(), 0);
}

/// Opens each of its files many times over.
class BusyOpener {
 public:
  BusyOpener(std::string good, std::string bad, int rounds)
      : process_([this, good = std::move(good), bad = std::move(bad), rounds] {
          go_.wait();
          for (int i = 0; i < rounds; ++i) {
            const int opened = open(good.c_str(), O_RDONLY | O_CLOEXEC);
            const int denied = open(bad.c_str(), O_RDONLY | O_CLOEXEC);
            if (opened < 0 || close(opened) != 0 || denied >= 0 || errno != EPERM) {
              return 1;
            }
          }
          (void)close_range(3, ~0U, 0);
          return 0;
        }) {}

  void go() { go_.open(); }
  int result() { return process_.wait(); }

 private:
  Gate go_;
  ChildProcess process_;
};

// labels: essential
TEST_F(LoopKernelTest, ThousandsOfOpensAreAnsweredEachWorkerInOrderOfArrival) {
  constexpr std::size_t openers = 5;
  constexpr int rounds = PELO_EMULATED ? 50 : 1000;
  std::deque<BusyOpener> processes;
  for (std::size_t i = 0; i < openers; ++i) {
    const std::string name = std::to_string(i);
    processes.emplace_back(put("good" + name), put("bad" + name), rounds);
  }
  watch();
  start(deny_names_with_bad);
  for (BusyOpener& process : processes) {
    process.go();
  }
  for (BusyOpener& process : processes) {
    EXPECT_EQ(process.result(), 0);
  }
  std::size_t events = 0;
  for (const auto& [worker, ids] : Callbacks::get().ids_by_thread()) {
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end())) << "by worker " << worker;
    events += ids.size();
  }
  EXPECT_EQ(events, 2 * rounds * openers);
  EXPECT_EQ(std::atomic_ref(fsfilter_stat(filter_)->answered).load(), events);
  EXPECT_EQ(std::atomic_ref(fsfilter_stat(filter_)->denied).load(), events / 2);
}

TEST_F(LoopKernelTest, AnAreaCutOffAfterItsFilterWasClosedHarmsNoLateAnswer) {
  Opener bad(put("bad"));
  watch();
  start(Callbacks::wait_and_deny);
  bad.go();
  ASSERT_TRUE(Callbacks::get().eventually_begun(1));
  const int area = open("/dev/shm/fsfilter", O_RDWR | O_CLOEXEC);
  loop_.end();
  EXPECT_EQ(unregister_filter(std::exchange(filter_, nullptr)), 0);
  ASSERT_EQ(ftruncate(area, 0), 0);
  Callbacks::get().let_pass();
  EXPECT_EQ(fsfilter_thread_end(), 0);
  EXPECT_EQ(bad.result(), 0);
  (void)close(area);
}

TEST_F(LoopKernelTest, AWorkerOutlivesAnAreaThatIsCutOff) {
  Opener bad(put("bad"));
  watch();
  start(Callbacks::wait_and_deny);
  bad.go();
  ASSERT_TRUE(Callbacks::get().eventually_begun(1));
  restore_area_when_it_faults();
  ASSERT_EQ(truncate("/dev/shm/fsfilter", 0), 0);
  Callbacks::get().let_pass();
  EXPECT_EQ(bad.result(), EPERM);
  EXPECT_EQ(fsfilter_thread_end(), 0);
}

class FolderMarkTest : public LoopKernelTest {
 protected:
  /// A filter that watches the folder alone, not its mount.
  void watch_folder() {
    ASSERT_EQ(register_filter(&filter_), 0);
    ASSERT_EQ(register_folder(filter_, watched_.c_str()), 0);
  }
};

// The mark also asks for the permission to read, which nobody is asked about.
TEST_F(FolderMarkTest, FilesInItAreOpenedReadAndWrittenOnceAllowed) {
  Opener reader(put("good-read"));
  Opener writer(put("good-written"), O_WRONLY);
  watch_folder();
  start(deny_names_with_bad);
  EXPECT_EQ(reader.go().result(), 0);
  EXPECT_EQ(writer.go().result(), 0);
  EXPECT_EQ(begun(), 2U);
  EXPECT_GT(std::atomic_ref(fsfilter_stat(filter_)->answered).load(), 2U);
}

TEST_F(FolderMarkTest, FilesElsewhereOnTheMountAreNot) {
  ASSERT_EQ(mkdir((watched_ + "/folder").c_str(), 0755), 0);
  Opener inside(put("folder/bad"));
  Opener beside(put("bad"));
  ASSERT_EQ(register_filter(&filter_), 0);
  ASSERT_EQ(register_folder(filter_, (watched_ + "/folder").c_str()), 0);
  start(deny_names_with_bad);
  EXPECT_EQ(beside.go().result(), 0);
  EXPECT_EQ(inside.go().result(), EPERM);
}

TEST_F(FolderMarkTest, WithTheFilterClosedNobodyIsAskedAnyMore) {
  Opener reader(put("bad"));
  watch_folder();
  EXPECT_EQ(unregister_filter(std::exchange(filter_, nullptr)), 0);
  EXPECT_EQ(reader.go().result(), 0);
}

TEST_F(LoopKernelTest, TheMarksByDescriptorAreThoseOfAFilter) {
  Opener reader(put("bad"));
  ASSERT_EQ(register_filter(&filter_), 0);
  EXPECT_EQ(fatotify_register_mount(group(), watched_.c_str()), 0);
  EXPECT_NE(group_information().find("mask:10008 "), std::string::npos);
  EXPECT_EQ(fatotify_unregister_mount(group(), watched_.c_str()), 0);
  EXPECT_EQ(group_information().find("mask:10008 "), std::string::npos);
  EXPECT_EQ(fanotify_register_folder(group(), watched_.c_str()), 0);
  EXPECT_EQ(fatotify_unregister_folder(group(), watched_.c_str()), -1) << "no mount mark is left";
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(fatotify_ignore(group(), watched_.c_str()), -1);
  EXPECT_EQ(errno, EINVAL);
  start(deny_names_with_bad);
  EXPECT_EQ(reader.go().result(), EPERM);
}

}  // namespace
