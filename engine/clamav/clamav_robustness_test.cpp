// SPDX-License-Identifier: GPL-2.0-only
// Files that change while they are scanned, files too large to be scanned, and very many scans.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::AnyOf;
using testing::IsEmpty;

const auto kNoDetection = AnyOf(VSE_SCAN_CLEAN, IsScanError());

class ClamavChangingFile : public ClamavEngine {
 protected:
  void prepare() override {
    start();
    handle_ = make_handle();
  }

  /// Scans a file that `change` happens to at libclamav's first read.
  int scan(const std::string& content, const std::function<void(const fs::path&)>& change) {
    const fs::path path = file("changing", content);
    bool happened = false;
    at_next_read = [&] {
      change(path);
      happened = true;
    };
    const int code = scan_path(handle_, path);
    EXPECT_TRUE(happened);
    return code;
  }

  VSEHANDLE handle_ = nullptr;
};

TEST_F(ClamavChangingFile, FileThatGrowsIsScanned) {
  const auto grow = [](const fs::path& path) { fs::resize_file(path, 3 * kMebibyte); };
  EXPECT_EQ(scan(test_file_content(), grow), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan("harmless content", grow), VSE_SCAN_CLEAN);
}

TEST_F(ClamavChangingFile, FileThatShrinksIsNoDetectionAndNoCrash) {
  const std::string filler(2 * kMebibyte, 'x');
  for (const std::uintmax_t left : {0U, 10U, 5000U, 1'000'000U}) {
    const auto shrink = [&](const fs::path& path) { fs::resize_file(path, left); };
    EXPECT_THAT(scan(filler, shrink), kNoDetection) << left;
    EXPECT_THAT(scan(zip_with({{"a", filler}, {"bad", test_file_content()}}), shrink), kNoDetection)
        << left;
    EXPECT_THAT(scan(gzip_of(tar_with({{"a", filler}, {"bad", test_file_content()}})), shrink),
                kNoDetection)
        << left;
  }
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED) << "the handle goes on working";
}

TEST_F(ClamavChangingFile, FileThatVanishesIsScannedToItsEnd) {
  const auto vanish = [](const fs::path& path) { fs::remove(path); };
  EXPECT_EQ(scan(zip_with({{"bad", test_file_content()}}), vanish), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan("harmless content", vanish), VSE_SCAN_CLEAN);
}

TEST_F(ClamavEngine, HugeFilesAreCleanAndNotScanned) {
  start();
  const VSEHANDLE handle = make_handle();
  const fs::path huge = file("huge", test_file_content());
  fs::resize_file(huge, 5120 * kMebibyte);
  EXPECT_EQ(scan_path(handle, huge), VSE_SCAN_CLEAN);
  EXPECT_EQ(get_number(handle, VSE_PROP_SCAN_RESULT), unsigned{VSE_RESULT_NOT_SCANNED});
  const int fd = open(huge.c_str(), O_RDONLY);
  EXPECT_EQ(scan_fd(handle, huge.c_str(), fd), VSE_SCAN_CLEAN);
  close(fd);
  EXPECT_THAT(events, IsEmpty());
}

// ---- Very many scans ----------------------------------------------------------------------------

/// 200 files of ten kinds; every second kind is bad.
class ClamavManyScans : public ClamavEngine {
 protected:
  void prepare() override {
    const Member bad{"bad", test_file_content()};
    const Member good{"good", std::string(5000, 'x')};
    for (int i = 0; i < 20; ++i) {
      add(zip_with({good}));
      add(zip_with({good, bad}));
      add("harmless content");
      add(test_file_content());
      add(zip_with({{"secret", std::string(50, 's'), true}}));
      add(gzip_of(tar_with({good, {"in.zip", zip_with({bad})}})));
      add(seven_zip_with(good));
      add(seven_zip_with(bad));
      add(zip_with({good}).substr(0, 3000));
      add(zip_of_zeros("zeros", 2 * kMebibyte));
    }
    start();
  }

  /// Scans all files, in five threads with a handle each.
  void scan_all() {
    std::vector<std::thread> threads;
    for (std::size_t first = 0; first < 5; ++first) {
      threads.emplace_back([&, first] { scan_every_fifth(first); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  std::atomic<int> wrong_{0};

 private:
  void add(const std::string& content) {
    paths_.push_back(file("file" + std::to_string(paths_.size()), content));
  }

  void scan_every_fifth(std::size_t first) {
    const VSEHANDLE handle = make_handle();
    (void)set_number(handle, VSE_PROP_DECOMPRESS, 1, VSE_DECOMPRESS_LIMIT);
    for (std::size_t i = first; i < paths_.size(); i += 5) {
      const int expected = i % 2 == 1 ? VSE_SCAN_DETECTED : VSE_SCAN_CLEAN;
      wrong_ += scan_path(handle, paths_[i]) != expected;
    }
    wrong_ += vseRelease(handle) != VSE_OK;
  }

  std::vector<fs::path> paths_;
};

std::size_t allocated() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST_F(ClamavEngine, FilesTooShortForASignatureAreCleanAndNotScanned) {
  start();
  const VSEHANDLE handle = make_handle();
  for (std::size_t size = 0; size <= 5; ++size) {
    at_next_read = [size] { ADD_FAILURE() << size << " bytes cost a scan"; };
    EXPECT_EQ(scan_path(handle, file("short", std::string(size, 'x'))), VSE_SCAN_CLEAN) << size;
    EXPECT_EQ(get_number(handle, VSE_PROP_SCAN_RESULT), unsigned{VSE_RESULT_NOT_SCANNED}) << size;
  }
  at_next_read = nullptr;
  EXPECT_EQ(scan_path(handle, file("short", "xxxxxx")), VSE_SCAN_CLEAN);
  EXPECT_EQ(get_number(handle, VSE_PROP_SCAN_RESULT), unsigned{VSE_RESULT_NOTHING_FOUND});
}

// For a minute of it: PELO_SOAK_SECONDS=60. The fixture sees to it that no temporary file is left.
TEST_F(ClamavManyScans, LeaveNoTemporaryFileAndNoMemory) {
  const char* const wanted = std::getenv("PELO_SOAK_SECONDS");
  const std::chrono::seconds duration(wanted == nullptr ? 0 : std::atoi(wanted));
  for (int round = 0; round < 2; ++round) {
    scan_all();
  }
  const std::size_t before = allocated();
  const std::size_t descriptors = open_descriptors();
  const auto end = std::chrono::steady_clock::now() + duration;
  int rounds = 0;
  do {
    scan_all();
    ++rounds;
  } while (rounds < 4 || std::chrono::steady_clock::now() < end);
  EXPECT_EQ(wrong_, 0);
  EXPECT_EQ(open_descriptors(), descriptors);
  RecordProperty("rounds", rounds);
  RecordProperty("bytes_more", static_cast<int>(allocated() - before));
  EXPECT_LT(allocated(), before + 16 * 1024) << rounds;
}

}  // namespace
}  // namespace engine_test
