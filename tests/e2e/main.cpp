#include <gtest/gtest.h>
#include <sys/personality.h>
#include <unistd.h>

#include <fstream>

#include "isolation.h"

namespace {

/// ThreadSanitizer's memory layout has room for 28 random bits of mapping addresses. On kernels set
/// to more, the process starts itself again without randomisation; the daemon inherits that.
void make_addresses_predictable([[maybe_unused]] char** argv) {
#if PELO_SANITIZED
  int bits = 0;
  std::ifstream("/proc/sys/vm/mmap_rnd_bits") >> bits;
  const int current = personality(0xffffffff);
  if (bits > 28 && current >= 0 && (current & ADDR_NO_RANDOMIZE) == 0) {
    personality(static_cast<unsigned long>(current) | ADDR_NO_RANDOMIZE);
    execv("/proc/self/exe", argv);
  }
#endif
}

}  // namespace

int main(int argc, char** argv) {
  make_addresses_predictable(argv);
  testing::InitGoogleTest(&argc, argv);
  if (testing::GTEST_FLAG(list_tests)) {
    return RUN_ALL_TESTS();
  }
  return e2e::run_isolated([] { return RUN_ALL_TESTS(); });
}
