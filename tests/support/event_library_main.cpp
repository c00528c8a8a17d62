// Runs the tests with the event library in the loader's path, where the code under test looks for
// it by name. The loader reads its path once, so the program starts itself again with it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
  const char* path = std::getenv("LD_LIBRARY_PATH");
  if (path == nullptr || std::strcmp(path, PELO_EVENT_LIBRARY_FOLDER) != 0) {
    setenv("LD_LIBRARY_PATH", PELO_EVENT_LIBRARY_FOLDER, 1);
    execv("/proc/self/exe", argv);
    std::perror("execv");
    return 1;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
