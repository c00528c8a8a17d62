#include "unix_loader.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

constexpr const char* library = "libquillbox.so.0";
using Function = void (*)(const char*, const char*, const char*, int, int);

/// Whether anybody in this process holds the library.
bool loaded() {
  void* handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

TEST(UnixLoader, LoadsFindsAndUnloadsAgainAndAgain) {
  {
    CUnixLoader loader;
    for (int round = 0; round < 2; ++round) {
      ASSERT_TRUE(loader.loadLibrary(library));
      EXPECT_TRUE(loaded());
      EXPECT_NE(loader.getProcAddress<Function>("event_push"), nullptr);
      EXPECT_EQ(loader.getProcAddress<Function>("no_such_function"), nullptr);
      EXPECT_EQ(loader.unloadLibrary(), 0);
      EXPECT_FALSE(loaded());
    }
    ASSERT_TRUE(loader.loadLibrary(library));
  }
  EXPECT_FALSE(loaded()) << "it unloads when it dies";
}

TEST(UnixLoader, UnloadsNothingTwice) {
  void* other = dlopen(library, RTLD_LAZY);
  ASSERT_NE(other, nullptr);
  {
    CUnixLoader loader;
    ASSERT_TRUE(loader.loadLibrary(library));
    ASSERT_EQ(loader.unloadLibrary(), 0);
  }
  EXPECT_TRUE(loaded());
  dlclose(other);
}

TEST(UnixLoader, DiesQuietlyWithoutALibrary) {
  CUnixLoader never_loaded;
  CUnixLoader failed;
  EXPECT_FALSE(failed.loadLibrary("libno-such-library.so.0"));
}

}  // namespace
