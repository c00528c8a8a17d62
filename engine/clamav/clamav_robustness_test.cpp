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
  const std::vector<Member> members{{"a", filler}, {"bad", standard_test_file()}};
  for (const std::string& content : {filler, zip_with(members), gzip_of(tar_with(members))}) {
    for (const std::uintmax_t left : {0U, 10U, 5000U, 1'000'000U}) {
      const auto shrink = [&](const fs::path& path) { fs::resize_file(path, left); };
      EXPECT_THAT(scan(content, shrink), AnyOf(VSE_SCAN_CLEAN, IsScanError())) << left;
    }
  }
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(scan_path(handle_, bad_), VSE_SCAN_DETECTED) << "the handle goes on working";
}

TEST_F(ClamavEngine, FilesThatLibclamavTakesForTooShortOrTooLongAreCleanAndNotScanned) {
  passes = 0;
  const fs::path path = file("file", standard_test_file());
  constexpr std::uintmax_t too_long = std::uintmax_t{mebibyte} * 5120;
  for (const std::uintmax_t size :
       std::initializer_list<std::uintmax_t>{too_long, 5, 4, 3, 2, 1, 0}) {
    fs::resize_file(path, size);
    EXPECT_EQ(scan_path(handle_, path), VSE_SCAN_CLEAN) << size;
    EXPECT_EQ(result(), VSE_RESULT_NOT_SCANNED) << size;
  }
  EXPECT_EQ(passes, 0) << "none of them costs a scan";
  EXPECT_EQ(scan("xxxxxx"), VSE_SCAN_CLEAN);
  EXPECT_EQ(result(), VSE_RESULT_NOTHING_FOUND);
}

// ---- Very many scans ----------------------------------------------------------------------------

/// Every second one is bad.
std::vector<std::string> ten_kinds_of_files() {
  const Member bad{"bad", standard_test_file()};
  const Member good{"good", std::string(5000, 'x')};
  return {zip_with({good}),
          zip_with({good, bad}),
          "harmless content",
          standard_test_file(),
          zip_with({{"secret", std::string(50, 's'), true}}),
          gzip_of(tar_with({good, {"in.zip", zip_with({bad})}})),
          seven_zip_with(good),
          seven_zip_with(bad),
          zip_with({good}).substr(0, 3000),
          zip_of_zeros("zeros", 2 * mebibyte)};
}

std::size_t allocated() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// For a minute of it: PELO_SOAK_SECONDS=60. The fixture sees to it that no temporary file is left.
TEST_F(ClamavEngine, VeryManyScansLeaveNoTemporaryFileAndNoMemory) {
  std::vector<fs::path> paths;
  for (const std::string& content : ten_kinds_of_files()) {
    paths.push_back(file("file" + std::to_string(paths.size()), content));
  }
  std::atomic<int> wrong{0};
  const auto scan_many_times = [&] {
    const VSEHANDLE handle = make_handle();
    (void)set_number(handle, VSE_PROP_DECOMPRESS, 1, VSE_DECOMPRESS_LIMIT);
    for (std::size_t i = 0; i < 4 * paths.size(); ++i) {
      const fs::path& path = paths[i % paths.size()];
      const bool bad = i % 2 == 1;
      events.clear();
      wrong += scan_path(handle, path) != (bad ? VSE_SCAN_DETECTED : VSE_SCAN_CLEAN);
      wrong += events.size() != (bad ? 1 : 0) || (bad && events[0].object != path);
    }
    wrong += vseRelease(handle) != VSE_OK;
  };
  const auto scan_in_five_threads = [&] {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 5; ++i) {
      threads.emplace_back(scan_many_times);
    }
  };
  for (int round = 0; round < 2; ++round) {
    scan_in_five_threads();
  }
  const std::size_t before = allocated();
  const std::size_t descriptors = open_descriptors();
  const char* const seconds = std::getenv("PELO_SOAK_SECONDS");
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::seconds(seconds == nullptr ? 0 : std::atoi(seconds));
  int rounds = 0;
  do {
    scan_in_five_threads();
    ++rounds;
  } while (rounds < 4 || std::chrono::steady_clock::now() < end);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_LT(allocated(), before + 16 * 1024) << rounds;
}

}  // namespace
}  // namespace engine_test
