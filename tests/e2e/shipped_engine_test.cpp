// The daemon as it is installed: with the engine that it finds by itself.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "fixture.h"
#include "standard_test_file.h"

namespace e2e {
namespace {

// labels: essential
class ShippedEngine : public E2eTest {
 protected:
  /// The daemon without the path on which all other tests put their engine before its own.
  static Launch on_its_own() {
    Launch launch;
    launch.wrapper = {"env", "-u", "LD_LIBRARY_PATH"};
    return launch;
  }

  /// Whether the daemon has loaded a library from there.
  bool has_loaded(const std::string& library) {
    const std::string maps = world().read("/proc/" + std::to_string(daemon_pid()) + "/maps");
    return maps.find(" " + library + "\n") != std::string::npos;
  }
};

TEST_F(ShippedEngine, RefusesTheTestFileWithTheBundledDefinitions) {
  world().put(work("db/pelo.ndb"), world().read(PELO_BUNDLED_DEFINITIONS));
  const std::string infected = put("bad", standard_test_file());
  const std::string clean = put_clean("good");
  const std::string scripted = put_infected("scripted");
  start(on_its_own());
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(open_status(infected), EPERM);
    EXPECT_EQ(open_status(clean), 0);
    EXPECT_EQ(open_status(scripted), 0) << "means something to the tests' engine only";
  }
  EXPECT_TRUE(has_loaded(PELO_LIBRARIES "/libaivse000.so.5"));
  EXPECT_TRUE(logged("infection detected in: ")) << log();
  EXPECT_TRUE(logged("\nPath: \"" + infected + "\"\n")) << log();
  EXPECT_EQ(engine_record(), "");
}

// Which start of many goes wrong is a matter of luck: --gtest_repeat makes more of them.
// labels: long
TEST_F(ShippedEngine, RefusesTheTestFileFromTheFirstOpenOnAfterEveryStart) {
  set("Loglevel", "3");
  world().put(work("db/pelo.ndb"), world().read(PELO_BUNDLED_DEFINITIONS));
  const std::string infected = put("bad", standard_test_file());
  for (int i = 0; i < 20; ++i) {
    start(on_its_own());
    ASSERT_EQ(open_status(infected), EPERM) << "start " << i << "\n"
                                            << testing::PrintToString(descriptors()) << "\n"
                                            << log();
    // Most end at once. What is left of them must not be taken for the next one's.
    if (i % 10 == 0) {
      stop();
    } else {
      kill_daemon();
      unlink(StatusArea::kPath);
    }
  }
}

}  // namespace
}  // namespace e2e
