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
  void prepare() override {
    ScheduleTest::prepare();
    set("DatabaseDirectory", PELO_LIBRARIES "/../share/definitions");
    fill_share();
  }

  std::string share(const std::string& name) const { return watched("share/" + name); }
  const std::vector<std::string>& bad() const { return bad_; }

  /// The daemon as it is installed: it finds its own engine.
  void start_with_clamav() {
    Launch how;
    how.environment = {{"LD_LIBRARY_PATH", PELO_LIBRARIES "/event"}};
    start_at_noon(how);
  }

  void scan_with(const std::string& action, size_t number) {
    Job job = due_job(watched("share"));
    job.recursive = true;
    job.action = action;
    ASSERT_NO_FATAL_FAILURE(write_jobs({job}));
    ASSERT_TRUE(request_pass_until([&] { return scans_started() == number; })) << log();
    ASSERT_TRUE(eventually([&] { return scans_completed() == number; }, 4 * kPatience)) << log();
  }

  size_t files_left() const {
    size_t count = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(watched("share"))) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
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

TEST_F(ScheduleClamAv, EachOfThreeInAThousandIsReportedAndWithDeleteRemovedAndNoOther) {
  start_with_clamav();
  size_t scan = 0;
  for (const char* action : {"REPORT", "DELETE"}) {
    scan_with(action, ++scan);
    EXPECT_EQ(count_of(log(), "\nFile scan: "), scan * kFiles);
    EXPECT_EQ(count_of(log(), "\ninfection detected in: "), scan * bad().size());
    EXPECT_EQ(count_of(log(), "\"\nDetections: \"yes\"\n"), scan);
    EXPECT_EQ(events().size(), scan * bad().size());
    for (const std::string& file : bad()) {
      EXPECT_EQ(count_of(log(), "\nPath: \"" + file + "\"\nArchive name: \""), scan) << file;
      EXPECT_EQ(World::exists(file), scan == 1) << file;
    }
    EXPECT_EQ(files_left(), kFiles - (scan - 1) * bad().size());
  }
}

}  // namespace
}  // namespace e2e
