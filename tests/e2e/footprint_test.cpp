// What the daemon takes of a small machine.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>

#include "fixture.h"

namespace e2e {
namespace {

// labels: long essential
class Footprint : public E2eTest {};

TEST_F(Footprint, FiveWorkersAndAThousandCachedPathsTakeAFewMebibytes) {
  constexpr size_t kPaths = 1000;            // as many as the cache holds
  constexpr size_t kMost = size_t{6} << 10;  // KiB
  std::vector<std::string> files;
  for (size_t i = 0; i < kPaths; ++i) {
    files.push_back(put_clean("file" + std::to_string(i)));
  }
  set_threads(5);
  start();
  for (int round = 0; round < 2; ++round) {
    Process opener([&] {
      for (const std::string& file : files) {
        if (const int error = try_open(file); error != 0) {
          return error;
        }
      }
      return 0;
    });
    ASSERT_EQ(opener.status(4 * kPatience), 0);
  }
  EXPECT_EQ(engine_calls("vseInit").size(), 5U);
  EXPECT_EQ(engine_calls("vseExec").size(), kPaths) << "not all were cached";
  const size_t resident = memory("VmRSS");
  std::printf("figure: %zu KiB resident with 5 workers and %zu cached paths, %zu at most so far\n",
              resident, kPaths, memory("VmHWM"));
  EXPECT_GT(resident, 0U);
  if (PELO_SANITIZED == 0) {
    EXPECT_LT(resident, kMost);
  }
}

}  // namespace
}  // namespace e2e
