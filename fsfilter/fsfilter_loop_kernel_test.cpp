// The event loop, folder marks and other processes, against the real kernel.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "emulated.h"
#include "kernel_test.h"
#include "wait.h"

namespace {

std::atomic<int> begun{0};
std::atomic<bool> pass{false};

int deny_names_with_bad(fsfilter_handle_t, fsfilter_event_struct* event) {
  ++begun;
  return std::strstr(event->path, "bad") != nullptr ? FSFILTER_DENY : FSFILTER_ALLOW;
}

int wait_and_deny(fsfilter_handle_t, fsfilter_event_struct*) {
  ++begun;
  (void)eventually([] { return pass.load(); });
  return FSFILTER_DENY;
}

class LoopKernelTest : public KernelTest {
 protected:
  void TearDown() override {
    pass = true;
    stop();
    EXPECT_EQ(fsfilter_thread_end(), 0);
    KernelTest::TearDown();
  }

  /// Runs the loop over the registered filter.
  void start(fsfilter_callback_t open_callback) {
    loop_.handle = filter_;
    loop_.open_callback = open_callback;
    loop_.stop = 1;
    thread_ = std::thread([this] { EXPECT_EQ(start_event_loop(&loop_), 0); });
    ASSERT_TRUE(eventually([this] { return std::atomic_ref(loop_.stop).load() == 0; }));
  }

  void stop() {
    if (thread_.joinable()) {
      (void)stop_event_loop(&loop_);
      thread_.join();
    }
  }

  std::string put(const std::string& name) const {
    std::ofstream(watched_ + "/" + name) << "content";
    return watched_ + "/" + name;
  }

  event_loop_data_struct loop_{};
  std::thread thread_;
};

TEST_F(LoopKernelTest, ACallbackDecidesOpens) {
  Opener bad(put("bad"));
  Opener good(put("good"));
  watch();
  start(deny_names_with_bad);
  EXPECT_EQ(bad.go().result(), EPERM);
  EXPECT_EQ(good.go().result(), 0);
  EXPECT_EQ(begun, 2);
}

TEST_F(LoopKernelTest, ACallbackIsToldOfClosesAfterWriting) {
  Opener writer(put("good"), O_WRONLY);
  watch();
  loop_.close_wr_callback = [](fsfilter_handle_t, fsfilter_event_struct* event) -> int {
    begun += event->type == FSFILTER_CLOSE_WR ? 100 : 1000;
    return FSFILTER_DENY;
  };
  start(deny_names_with_bad);
  EXPECT_EQ(writer.go().result(), 0);
  EXPECT_TRUE(eventually([] { return begun == 101; })) << begun;
}

TEST_F(LoopKernelTest, AClosedFilterLetsGoOfWhatWaitsAndOfWhatIsInACallback) {
  std::deque<Opener> openers;
  for (int i = 0; i < 6; ++i) {
    openers.emplace_back(put("bad" + std::to_string(i)));
  }
  watch();
  start(wait_and_deny);
  for (Opener& opener : openers) {
    opener.go();
  }
  ASSERT_TRUE(eventually([] { return begun == 3; }));
  ASSERT_TRUE(eventually([this] { return await_event(filter_, 0) == -1; }));
  stop();
  EXPECT_EQ(unregister_filter(std::exchange(filter_, nullptr)), 0);
  for (Opener& opener : openers) {
    EXPECT_EQ(opener.result(), 0);
  }
  EXPECT_EQ(begun, 3);
  EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 0);
  fsfilter_handle_t next = nullptr;
  EXPECT_EQ(register_filter(&next), 0) << "while callbacks still use the old one";
  pass = true;
  EXPECT_EQ(fsfilter_thread_end(), 0);
  EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 1) << "the late end is not the new filter's";
  EXPECT_EQ(unregister_filter(next), 0);
}

std::string sibling;

int wait_and_open_the_sibling(fsfilter_handle_t, fsfilter_event_struct*) {
  ++begun;
  (void)eventually([] { return pass.load(); });
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
  ASSERT_TRUE(eventually([] { return begun == 1; }));
  stop();
  pass = true;  // nobody reads any more: its open waits
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

std::mutex seen_mutex;
std::map<pid_t, std::vector<std::uint64_t>> seen;  // message ids by worker

TEST_F(LoopKernelTest, ThousandsOfOpensAreAnsweredEachWorkerInOrderOfArrival) {
  constexpr std::size_t openers = 5;
  constexpr int rounds = PELO_EMULATED ? 50 : 1000;
  std::deque<BusyOpener> processes;
  for (std::size_t i = 0; i < openers; ++i) {
    const std::string name = std::to_string(i);
    processes.emplace_back(put("good" + name), put("bad" + name), rounds);
  }
  watch();
  start([](fsfilter_handle_t handle, fsfilter_event_struct* event) {
    {
      const std::lock_guard lock(seen_mutex);
      seen[gettid()].push_back(event->message_id);
    }
    return deny_names_with_bad(handle, event);
  });
  for (BusyOpener& process : processes) {
    process.go();
  }
  for (BusyOpener& process : processes) {
    EXPECT_EQ(process.result(), 0);
  }
  std::size_t events = 0;
  const std::lock_guard lock(seen_mutex);
  for (const auto& [worker, ids] : seen) {
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end())) << "by worker " << worker;
    events += ids.size();
  }
  EXPECT_EQ(events, 2 * rounds * openers);
}

TEST_F(LoopKernelTest, AnAreaCutOffAfterItsFilterWasClosedHarmsNoLateAnswer) {
  Opener bad(put("bad"));
  watch();
  start(wait_and_deny);
  bad.go();
  ASSERT_TRUE(eventually([] { return begun == 1; }));
  const int area = open("/dev/shm/fsfilter", O_RDWR | O_CLOEXEC);
  stop();
  EXPECT_EQ(unregister_filter(std::exchange(filter_, nullptr)), 0);
  ASSERT_EQ(ftruncate(area, 0), 0);
  pass = true;
  EXPECT_EQ(fsfilter_thread_end(), 0);
  EXPECT_EQ(bad.result(), 0);
  (void)close(area);
}

TEST_F(LoopKernelTest, AWorkerOutlivesAnAreaThatIsCutOff) {
  Opener bad(put("bad"));
  watch();
  start(wait_and_deny);
  bad.go();
  ASSERT_TRUE(eventually([] { return begun == 1; }));
  restore_area_when_it_faults();
  ASSERT_EQ(truncate("/dev/shm/fsfilter", 0), 0);
  pass = true;
  EXPECT_EQ(bad.result(), EPERM);
  EXPECT_EQ(fsfilter_thread_end(), 0);
}

/// Opens a file, reads or writes it and closes it, when it is told to.
class FileUser {
 public:
  FileUser(std::string path, int flags)
      : process_([this, path = std::move(path), flags] {
          go_.wait();
          char byte = 'x';
          const int file = open(path.c_str(), flags);
          const int error = errno;
          const bool used =
              file >= 0 && (flags == O_RDONLY ? read(file, &byte, 1) : write(file, &byte, 1)) == 1;
          (void)close_range(3, ~0U, 0);
          return used ? 0 : file < 0 ? error : 255;
        }) {}

  int result() {
    go_.open();
    return process_.wait();
  }

 private:
  Gate go_;
  ChildProcess process_;
};

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
  FileUser reader(put("good-read"), O_RDONLY);
  FileUser writer(put("good-written"), O_WRONLY);
  watch_folder();
  start(deny_names_with_bad);
  EXPECT_EQ(reader.result(), 0);
  EXPECT_EQ(writer.result(), 0);
  EXPECT_EQ(begun, 2);
  EXPECT_GT(std::atomic_ref(fsfilter_stat(filter_)->answered).load(), 2U);
}

TEST_F(FolderMarkTest, FilesInItAreDenied) {
  FileUser reader(put("bad"), O_RDONLY);
  watch_folder();
  start(deny_names_with_bad);
  EXPECT_EQ(reader.result(), EPERM);
}

TEST_F(FolderMarkTest, FilesElsewhereOnTheMountAreNot) {
  ASSERT_EQ(mkdir((watched_ + "/folder").c_str(), 0755), 0);
  FileUser inside(put("folder/bad"), O_RDONLY);
  FileUser beside(put("bad"), O_RDONLY);
  ASSERT_EQ(register_filter(&filter_), 0);
  ASSERT_EQ(register_folder(filter_, (watched_ + "/folder").c_str()), 0);
  start(deny_names_with_bad);
  EXPECT_EQ(beside.result(), 0);
  EXPECT_EQ(inside.result(), EPERM);
}

TEST_F(FolderMarkTest, ItStaysWhenTheFolderIsUnregistered) {
  FileUser reader(put("bad"), O_RDONLY);
  watch_folder();
  EXPECT_EQ(unregister_folder(filter_, watched_.c_str()), -1) << "there is no mount mark";
  EXPECT_EQ(errno, ENOENT);
  start(deny_names_with_bad);
  EXPECT_EQ(reader.result(), EPERM);
}

TEST_F(FolderMarkTest, WithTheFilterClosedNobodyIsAskedAnyMore) {
  FileUser reader(put("bad"), O_RDONLY);
  watch_folder();
  EXPECT_EQ(unregister_filter(std::exchange(filter_, nullptr)), 0);
  EXPECT_EQ(reader.result(), 0);
}

TEST_F(LoopKernelTest, TheMarksByDescriptorAreThoseOfAFilter) {
  FileUser reader(put("bad"), O_RDONLY);
  ASSERT_EQ(register_filter(&filter_), 0);
  EXPECT_EQ(fatotify_register_mount(group(), watched_.c_str()), 0);
  EXPECT_NE(group_information().find("mask:10008 "), std::string::npos);
  EXPECT_EQ(fatotify_unregister_mount(group(), watched_.c_str()), 0);
  EXPECT_EQ(group_information().find("mask:10008 "), std::string::npos);
  EXPECT_EQ(fanotify_register_folder(group(), watched_.c_str()), 0);
  EXPECT_EQ(fatotify_unregister_folder(group(), watched_.c_str()), -1);
  EXPECT_EQ(fatotify_ignore(group(), watched_.c_str()), -1);
  EXPECT_EQ(errno, EINVAL);
  start(deny_names_with_bad);
  EXPECT_EQ(reader.result(), EPERM);
}

/// A process that has opened the area of the filter: it tries to make itself trusted, opens a file,
/// and the same again once the owner has had its say.
class OtherProcess {
 public:
  explicit OtherProcess(std::string path)
      : process_([this, path = std::move(path)] {
          registered_.wait();
          fsfilter_handle_t area = nullptr;
          if (open_filter(&area) != 0 || register_trusted(area, getpid()) != -1 ||
              is_trusted_pid(area, getpid()) != 0) {
            return 1;
          }
          if (open(path.c_str(), O_RDONLY) >= 0) {
            return 2;
          }
          asked_.open();
          trusted_.wait();
          if (is_trusted_pid(area, getpid()) != 1 || open(path.c_str(), O_RDONLY) < 0) {
            return 3;
          }
          return close_filter(area) == 0 ? 0 : 4;
        }) {}

  pid_t pid() const { return process_.pid(); }
  void filter_is_registered() { registered_.open(); }
  void wait_until_denied() { asked_.wait(); }
  void is_trusted_now() { trusted_.open(); }
  int result() { return process_.wait(); }

 private:
  Gate registered_;
  Gate asked_;
  Gate trusted_;
  ChildProcess process_;
};

TEST_F(LoopKernelTest, AnotherProcessIsTrustedThroughTheOwnerOnly) {
  OtherProcess other(put("bad"));
  watch();
  start(deny_names_with_bad);
  other.filter_is_registered();
  other.wait_until_denied();
  EXPECT_EQ(register_trusted(filter_, other.pid()), 0);
  other.is_trusted_now();
  EXPECT_EQ(other.result(), 0);
  EXPECT_EQ(begun, 1) << "a trusted process is not asked about";
  EXPECT_EQ(fsfilter_shared_exist("/fsfilter"), 1);
}

}  // namespace
