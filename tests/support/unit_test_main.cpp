// Runs each of several test cases in a process of its own, as ctest does: the daemon's process-wide
// objects are built once and live until the process ends.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

bool passes_alone(const std::string& name) {
  const std::string filter = "--gtest_filter=" + name;
  const pid_t child = fork();
  if (child == 0) {
    (void)execl("/proc/self/exe", program_invocation_name, filter.c_str(), "--gtest_brief=1",
                nullptr);
    _exit(127);
  }
  int status = 0;
  return waitpid(child, &status, 0) == child && status == 0;
}

class OneByOne : public testing::EmptyTestEventListener {
  // By now it is known which cases are wanted; a single one runs here, and so do all if asked for.
  void OnTestProgramStart(const testing::UnitTest& program) override {
    if (program.test_to_run_count() < 2 || std::getenv("PELO_ONE_PROCESS") != nullptr) {
      return;
    }
    int failed = 0;
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
      const testing::TestSuite& suite = *program.GetTestSuite(i);
      for (int j = 0; j < suite.total_test_count(); ++j) {
        const testing::TestInfo& test = *suite.GetTestInfo(j);
        if (test.should_run() && !passes_alone(std::string(suite.name()) + "." + test.name())) {
          ++failed;
        }
      }
    }
    std::printf("%d of %d test cases have failed.\n", failed, program.test_to_run_count());
    std::exit(failed == 0 ? 0 : 1);
  }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new OneByOne);
  return RUN_ALL_TESTS();
}
