// The tests of the other folders and the end-to-end tests believe what this engine records. Where
// it does not do what it is told, or leaves a call out, they fail; that it notices faults they
// cannot see, so it is tested here.
#include <gtest/gtest.h>
#include <vse.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "temp_directory.h"
#include "wait.h"

namespace {

using std::string;

class ScriptedEngine : public testing::Test {
 protected:
  void SetUp() override {
    setenv("PELO_TEST_ENGINE_RECORD", path("record").c_str(), 1);
    setenv("PELO_TEST_ENGINE_SCRIPT", path("script").c_str(), 1);
  }

  void TearDown() override { vseGlobalRelease(); }

  string path(const string& name) const { return folder_.path(name); }
  string put(const string& name, const string& content) const { return folder_.put(name, content); }
  string recorded() const { return folder_.read("record"); }
  bool recorded(const string& text) const { return recorded().find(text) != string::npos; }

  static VSEHANDLE handle() {
    VSEHANDLE made = nullptr;
    EXPECT_EQ(vseInit(0, 2, "/definitions", nullptr, nullptr, &made), 0);
    return made;
  }

  static int set(VSEHANDLE handle) {
    const int value = 0;
    return vseSet(handle, VSE_PROP_SCAN_ACTION, 0, &value, sizeof(value), 0);
  }

  static int scan(VSEHANDLE handle, const string& file) {
    return vseExec(handle, VSE_EXEC_SCAN_PATH, reinterpret_cast<uintptr_t>(file.c_str()), 0, 0);
  }

  TempDirectory folder_;
};

TEST_F(ScriptedEngine, NoticesWhatIsNoHandle) {
  vseGlobalInit(nullptr);
  const VSEHANDLE made = handle();
  EXPECT_EQ(set(made), 0);
  EXPECT_EQ(vseRelease(made), 0);
  EXPECT_FALSE(recorded("VIOLATION"));
  EXPECT_NE(vseRelease(made), 0) << "it is no handle any more";
  EXPECT_TRUE(recorded("VIOLATION"));
}

TEST_F(ScriptedEngine, GivesTheNumberOfAHandleReleasedUnusedToTheNextAndNoOther) {
  vseGlobalInit(nullptr);
  const VSEHANDLE unused = handle();
  EXPECT_EQ(vseRelease(unused), 0);
  const VSEHANDLE only_set = handle();
  EXPECT_EQ(only_set, unused);
  set(only_set);
  vseRelease(only_set);
  const VSEHANDLE scanned = handle();
  scan(scanned, put("clean", "nothing"));
  vseRelease(scanned);
  const VSEHANDLE older = handle();
  EXPECT_EQ(older, reinterpret_cast<VSEHANDLE>(0x1003));
  EXPECT_EQ(handle(), reinterpret_cast<VSEHANDLE>(0x1004));
  vseRelease(older);
  EXPECT_EQ(handle(), reinterpret_cast<VSEHANDLE>(0x1005));
}

TEST_F(ScriptedEngine, RecordsWhatItDoesNotUnderstand) {
  put("script", "fial vseInit\nfail vseInit x\nwait vseInit\n");
  vseGlobalInit(nullptr);
  scan(handle(), put("bad", "!detcet\n!detect kind=3\n!sleep\n"));
  const string all = recorded();
  size_t errors = 0;
  for (size_t at = 0; (at = all.find("-error thread=", at)) != string::npos; ++at) {
    ++errors;
  }
  EXPECT_EQ(errors, 3U + 3U + 3U) << all;
}

TEST_F(ScriptedEngine, WaitsUntilTheNamedFileIsThereAndNoticesTwoThreadsOnOneHandle) {
  vseGlobalInit(nullptr);
  const VSEHANDLE made = handle();
  const string held = put("held", "!wait " + path("go") + "\n!code 2\n");
  std::thread scanner([&] { EXPECT_EQ(scan(made, held), 2); });
  ASSERT_TRUE(eventually([&] { return recorded("vseExec-begin"); }));
  // The first scan is in use from a moment after its begin line on.
  EXPECT_TRUE(eventually([&] {
    set(made);
    return recorded("VIOLATION");
  }));
  EXPECT_FALSE(recorded("vseExec ")) << "the scan did not wait";
  put("go", "");
  scanner.join();
  EXPECT_TRUE(recorded("vseExec "));
}

}  // namespace
