// The engine on libclamav without definitions that load: the daemon says so once and allows.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "fixture.h"
#include "standard_test_file.h"

namespace e2e {
namespace {

constexpr const char* kNoHandle = "no engine handle: files are allowed unscanned";

class ClamAvDefinitions : public E2eTest {
 protected:
  void prepare() override {
    set("Loglevel", "1");
    set("DatabaseDirectory", work("definitions"));
    bad_ = put("bad", standard_test_file());
  }

  /// The daemon as it is installed: it finds its own engine.
  void start_with_clamav() {
    Launch how;
    how.wrapper = {"env", "-u", "LD_LIBRARY_PATH"};
    start(how);
  }

  void expect_everything_allowed() {
    const size_t said = count_of(log(), kNoHandle);
    start_with_clamav();
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(open_status(bad_), 0);
    }
    EXPECT_TRUE(eventually([&] { return count_of(log(), kNoHandle) > said; })) << log();
    EXPECT_TRUE(logged("does \"" + work("definitions") + "\" hold definitions")) << log();
    stop();
    EXPECT_EQ(count_of(log(), kNoHandle), said + 1) << log();
  }

  std::string bad_;
};

TEST_F(ClamAvDefinitions, DirectoryThatIsMissingEmptyOrBrokenIsSaidOnceAndEverythingAllowed) {
  expect_everything_allowed();
  World::make_folder(work("definitions"));
  expect_everything_allowed();
  world().put(work("definitions/pelo.ndb"), world().read(PELO_BUNDLED_DEFINITIONS));
  world().put(work("definitions/antivir.def"), "no signature\n");
  expect_everything_allowed();
}

TEST_F(ClamAvDefinitions, UpdateOnSighupIsInForceWithoutARestart) {
  World::make_folder(work("definitions"));
  World::make_folder(work("staging"));
  set("Loglevel", "3");
  set("StagingDirectory", work("staging"));
  world().put(work("definitions/other.ndb"), "Other:0:0:6e6f206f6e652068617320746869732e\n");
  world().put(work("staging/antivir.def"), world().read(PELO_BUNDLED_DEFINITIONS));
  start_with_clamav();
  EXPECT_EQ(open_status(bad_), 0);
  ASSERT_EQ(kill(daemon_pid(), SIGHUP), 0);
  EXPECT_TRUE(eventually([this] { return open_status(bad_) == EPERM; })) << log();
  EXPECT_TRUE(logged("av database updated.")) << log();
  EXPECT_FALSE(logged(kNoHandle));
  EXPECT_EQ(world().read(work("definitions/antivir.def")), world().read(PELO_BUNDLED_DEFINITIONS));
}

}  // namespace
}  // namespace e2e
