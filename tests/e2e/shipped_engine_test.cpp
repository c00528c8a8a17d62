// The daemon as it is installed, with the engine on libclamav that it finds by itself.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "fixture.h"
#include "standard_test_file.h"

namespace e2e {
namespace {

constexpr const char* no_handle = "no engine handle: files are allowed unscanned";

class ShippedEngine : public E2eTest {
 protected:
  void prepare() override {
    set("Loglevel", "1");
    set("DatabaseDirectory", work("definitions"));
    bad_ = put("bad", standard_test_file());
  }

  /// Without the path on which all other tests put their engine before the daemon's own.
  void start_with_clamav() { start({.wrapper = {"env", "-u", "LD_LIBRARY_PATH"}}); }

  void install_definitions() {
    World::make_folder(work("definitions"));
    world().put(work("definitions/pelo.ndb"), world().read(PELO_BUNDLED_DEFINITIONS));
  }

  void expect_everything_allowed() {
    const size_t said = count_of(log(), no_handle);
    start_with_clamav();
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(open_status(bad_), 0);
    }
    EXPECT_TRUE(eventually([&] { return count_of(log(), no_handle) > said; })) << log();
    EXPECT_TRUE(logged("does \"" + work("definitions") + "\" hold definitions")) << log();
    stop();
    EXPECT_EQ(count_of(log(), no_handle), said + 1) << log();
  }

  std::string bad_;
};

// labels: essential
TEST_F(ShippedEngine, RefusesTheTestFileWithTheBundledDefinitions) {
  install_definitions();
  const std::string clean = put_clean("good");
  const std::string scripted = put_infected("scripted");
  start_with_clamav();
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(open_status(bad_), EPERM);
    EXPECT_EQ(open_status(clean), 0);
    EXPECT_EQ(open_status(scripted), 0) << "means something to the tests' engine only";
  }
  const std::string loaded = world().read("/proc/" + std::to_string(daemon_pid()) + "/maps");
  EXPECT_NE(loaded.find(" " PELO_LIBRARIES "/libaivse000.so.5\n"), std::string::npos);
  EXPECT_TRUE(logged("infection detected in: ")) << log();
  EXPECT_TRUE(logged("\nPath: \"" + bad_ + "\"\n")) << log();
  EXPECT_EQ(engine_record(), "");
}

TEST_F(ShippedEngine, DirectoryThatIsMissingEmptyOrBrokenIsSaidOnceAndEverythingAllowed) {
  expect_everything_allowed();
  World::make_folder(work("definitions"));
  expect_everything_allowed();
  world().put(work("definitions/pelo.ndb"), world().read(PELO_BUNDLED_DEFINITIONS));
  world().put(work("definitions/antivir.def"), "no signature\n");
  expect_everything_allowed();
}

TEST_F(ShippedEngine, UpdateOnSighupIsInForceWithoutARestart) {
  World::make_folder(work("definitions"));
  set("Loglevel", "3");
  world().put(work("definitions/other.ndb"), "Other:0:0:6e6f206f6e652068617320746869732e\n");
  world().put(work("staging/antivir.def"), world().read(PELO_BUNDLED_DEFINITIONS));
  start_with_clamav();
  EXPECT_EQ(open_status(bad_), 0);
  ASSERT_EQ(kill(daemon_pid(), SIGHUP), 0);
  EXPECT_TRUE(eventually([this] { return open_status(bad_) == EPERM; })) << log();
  EXPECT_TRUE(logged("av database updated.")) << log();
  EXPECT_FALSE(logged(no_handle));
  EXPECT_EQ(world().read(work("definitions/antivir.def")), world().read(PELO_BUNDLED_DEFINITIONS));
}

}  // namespace
}  // namespace e2e
