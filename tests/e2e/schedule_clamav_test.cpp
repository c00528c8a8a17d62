// A scheduled scan with the engine on libclamav and its bundled definitions.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "emulated.h"
#include "schedule_fixture.h"
#include "standard_test_file.h"

namespace e2e {
namespace {

constexpr size_t kFiles = PELO_EMULATED ? 100 : 1000;

class ScheduleClamAv : public ScheduleTest {
 protected:
  void SetUp() override {
    ScheduleTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    set("DatabaseDirectory", PELO_LIBRARIES "/../share/definitions");
    fill_share();
  }

  std::string share(const std::string& name) const { return watched("share/" + name); }
  const std::vector<std::string>& bad() const { return bad_; }

  /// The daemon as it is installed: it finds its own engine.
  void start_with_clamav() {
    World::make_folder(work("tmp"));
    Launch how;
    how.environment = {{"LD_LIBRARY_PATH", PELO_LIBRARIES "/event"}, {"TMPDIR", work("tmp")}};
    start_at_noon(how);
  }

  void scan_with(const std::string& action) {
    Job job = due_job(watched("share"));
    job.recursive = true;
    job.action = action;
    ASSERT_NO_FATAL_FAILURE(write_jobs({job}));
    ASSERT_TRUE(request_pass_until([&] { return scans_started() == 1; })) << log();
    ASSERT_TRUE(eventually([&] { return scans_completed() == 1; }, 4 * kPatience)) << log();
  }

  size_t files_left() const {
    size_t count = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(watched("share"))) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }

  size_t detections_in(const std::string& path) const {
    return count_of(log(), "\nPath: \"" + path + "\"\nArchive name: \"");
  }

 private:
  /// Runs before there is a daemon, so nothing holds these opens.
  static void run(const std::string& command) {
    Process shell([&] { return WEXITSTATUS(std::system(command.c_str())); });
    ASSERT_EQ(shell.status(), 0) << command;
  }

  void fill_share() {
    World::make_folder(watched("share"));
    for (int i = 0; i < 10; ++i) {
      World::make_folder(share(std::to_string(i)));
    }
    for (size_t i = 0; i < kFiles - 3; ++i) {
      put("share/" + std::to_string(i % 10) + "/file" + std::to_string(i),
          "Nothing is wrong with file " + std::to_string(i) + ".\n");
    }
    bad_ = {put("share/3/plain.com", standard_test_file()), share("5/packed.zip"),
            share("7/packed.tar.gz")};
    world().put(work("inner.com"), standard_test_file());
    run("cd " + work() + " && zip -q " + bad_[1] + " inner.com && tar -czf " + bad_[2] +
        " inner.com");
  }

  std::vector<std::string> bad_;
};

TEST_F(ScheduleClamAv, ReportLogsAndPushesEachOfThreeInAThousandAndLeavesThem) {
  start_with_clamav();
  scan_with("REPORT");
  EXPECT_EQ(count_of(log(), "\nFile scan: "), kFiles);
  EXPECT_EQ(count_of(log(), "\ninfection detected in: "), bad().size());
  for (const std::string& file : bad()) {
    EXPECT_EQ(detections_in(file), 1U) << file << "\n";
  }
  EXPECT_EQ(events().size(), bad().size());
  EXPECT_EQ(count_of(log(), "\"\nDetections: \"yes\"\n"), 1U);
  EXPECT_EQ(files_left(), kFiles);
}

TEST_F(ScheduleClamAv, DeleteRemovesThoseThreeAndNoOther) {
  start_with_clamav();
  scan_with("DELETE");
  EXPECT_EQ(count_of(log(), "\nFile scan: "), kFiles);
  EXPECT_EQ(count_of(log(), "\ninfection detected in: "), bad().size());
  EXPECT_EQ(count_of(log(), "\"\nDetections: \"yes\"\n"), 1U);
  for (const std::string& file : bad()) {
    EXPECT_EQ(detections_in(file), 1U) << file;
    EXPECT_FALSE(World::exists(file)) << file;
  }
  EXPECT_EQ(files_left(), kFiles - bad().size());
}

}  // namespace
}  // namespace e2e
