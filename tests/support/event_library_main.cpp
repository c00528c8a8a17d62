// Runs the tests with the event library in the loader's path, where the code under test looks for
// it by name. The loader reads its path once, so the program starts itself again with it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

int main(int argc, char** argv) {
  const std::vector<char*> words(argv, argv + argc + 1);  // with those that GoogleTest takes out
  testing::InitGoogleTest(&argc, argv);
  const char* path = std::getenv("LD_LIBRARY_PATH");
  const bool set = path != nullptr && std::strcmp(path, PELO_EVENT_LIBRARY_FOLDER) == 0;
  if (!set && !testing::GTEST_FLAG(list_tests)) {
    setenv("LD_LIBRARY_PATH", PELO_EVENT_LIBRARY_FOLDER, 1);
    execv("/proc/self/exe", words.data());
    std::perror("execv");
    return 1;
  }
  return RUN_ALL_TESTS();
}
