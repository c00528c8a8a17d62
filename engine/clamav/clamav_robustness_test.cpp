// SPDX-License-Identifier: GPL-2.0-only
// Files that change while they are scanned, files too large to be scanned, and very many scans.
#include <malloc.h>

#include <cstdlib>

#include "archives_fixture.h"
#include "engine_fixture.h"

namespace engine_test {
namespace {

using testing::AnyOf;
using testing::IsEmpty;

const auto no_detection = AnyOf(VSE_SCAN_CLEAN, IsScanError());

class ClamavChangingFile : public ClamavEngine {
 protected:
  /// Scans a file that `change` happens to at libclamav's first read.
  int scan(const std::string& content, const std::function<void(const fs::path&)>& change) {
    at_next_read = [&] { change(root_ / "scanned"); };
    const int code = ClamavEngine::scan(content);
    EXPECT_FALSE(at_next_read);
    return code;
  }
};

TEST_F(ClamavChangingFile, FileThatGrowsOrVanishesIsScannedToItsEnd) {
  const auto grow = [](const fs::path& path) { fs::resize_file(path, 3 * mebibyte); };
  const auto vanish = [](const fs::path& path) { fs::remove(path); };
  EXPECT_EQ(scan(standard_test_file(), grow), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan(zip_with({{"bad", standard_test_file()}}), vanish), VSE_SCAN_DETECTED);
  EXPECT_EQ(scan("harmless content", grow), VSE_SCAN_CLEAN);
  EXPECT_EQ(scan("harmless content", vanish), VSE_SCAN_CLEAN);
}

TEST_F(ClamavChangingFile, FileThatShrinksIsNoDetectionAndNoCrash) {
  const std::string filler = output_of("head -c 2M /dev/urandom", "");
  for (const std::uintmax_t left : {0U, 10U, 5000U, 1'000'000U}) {
    const auto shrink = [&](const fs::path& path) { fs::resize_file(path, left); };
    EXPECT_THAT(scan(filler, shrink), no_detection) << left;
    EXPECT_THAT(scan(zip_with({{"a", filler}, {"bad", standard_test_file()}}), shrink),
                no_detection)
        << left;
    EXPECT_THAT(scan(gzip_of(tar_with({{"a", filler}, {"bad", standard_test_file()}})), shrink),
                no_detection)
        << left;
  }
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED) << "the handle goes on working";
}

TEST_F(ClamavEngine, FilesThatLibclamavTakesForTooShortOrTooLongAreCleanAndNotScanned) {
  const fs::path path = file("file", standard_test_file());
  constexpr std::uintmax_t too_long = std::uintmax_t{mebibyte} * 5120;
  for (const std::uintmax_t size :
       std::initializer_list<std::uintmax_t>{too_long, 5, 4, 3, 2, 1, 0}) {
    fs::resize_file(path, size);
    at_next_read = [size] { ADD_FAILURE() << size << " bytes cost a scan"; };
    EXPECT_EQ(scan_path(handle_, path), VSE_SCAN_CLEAN) << size;
    EXPECT_EQ(result(), VSE_RESULT_NOT_SCANNED) << size;
  }
  at_next_read = nullptr;
  EXPECT_EQ(scan("xxxxxx"), VSE_SCAN_CLEAN);
  EXPECT_EQ(result(), VSE_RESULT_NOTHING_FOUND);
}

// ---- Very many scans ----------------------------------------------------------------------------

/// 200 files of ten kinds; every second kind is bad.
class ClamavManyScans : public ClamavEngine {
 protected:
  ClamavManyScans() {
    const Member bad{"bad", standard_test_file()};
    const Member good{"good", std::string(5000, 'x')};
    const std::string zeros = zip_of_zeros("zeros", 2 * mebibyte);
    for (int i = 0; i < 20; ++i) {
      add(zip_with({good}));
      add(zip_with({good, bad}));
      add("harmless content");
      add(standard_test_file());
      add(zip_with({{"secret", std::string(50, 's'), true}}));
      add(gzip_of(tar_with({good, {"in.zip", zip_with({bad})}})));
      add(seven_zip_with(good));
      add(seven_zip_with(bad));
      add(zip_with({good}).substr(0, 3000));
      add(zeros);
    }
  }

  /// Scans all files, in five threads with a handle each.
  void scan_all() {
    std::vector<std::jthread> threads;
    for (std::size_t first = 0; first < 5; ++first) {
      threads.emplace_back([&, first] { scan_every_fifth(first); });
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
      const bool bad = i % 2 == 1;
      events.clear();
      wrong_ += scan_path(handle, paths_[i]) != (bad ? VSE_SCAN_DETECTED : VSE_SCAN_CLEAN);
      wrong_ += events.size() != (bad ? 1 : 0) || (bad && events[0].object != paths_[i]);
    }
    wrong_ += vseRelease(handle) != VSE_OK;
  }

  std::vector<fs::path> paths_;
};

std::size_t allocated() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
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
  EXPECT_LT(allocated(), before + 16 * 1024) << rounds;
}

}  // namespace
}  // namespace engine_test
