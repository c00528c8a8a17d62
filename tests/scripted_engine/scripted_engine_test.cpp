// The tests of the other folders and the end-to-end tests believe what this engine records, so it
// is tested itself.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vse.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "temp_directory.h"
#include "wait.h"

namespace {

using std::string;

/// What a callback saw of one detection.
struct Seen {
  string name;
  string archive;
  string object;
  int type = -1;
  int accuracy = -1;
  int result = -1;
  int name_status = 0;
  bool operator==(const Seen&) const = default;
};

std::vector<Seen> seen;

string text_property(VSEHANDLE handle, unsigned property, int* status = nullptr) {
  char buffer[64] = "";
  const int result = vseGet(handle, property, 0, buffer, sizeof(buffer), 0);
  if (status != nullptr) {
    *status = result;
  }
  return buffer;
}

int number_property(VSEHANDLE handle, unsigned property) {
  int number = -1;
  (void)vseGet(handle, property, 0, &number, sizeof(number), 0);
  return number;
}

int remember(VSEHANDLE handle, unsigned event_id, void* /*data*/) {
  EXPECT_EQ(event_id, static_cast<unsigned>(vseEvIdDetect));
  int status = 0;
  const string name = text_property(handle, VSE_PROP_DETECTION_NAME, &status);
  seen.push_back({name, text_property(handle, VSE_PROP_ARCHIVE_NAME),
                  text_property(handle, VSE_PROP_OBJECT_NAME),
                  number_property(handle, VSE_PROP_DETECTION_TYPE),
                  number_property(handle, VSE_PROP_DETECTION_ACCURACY),
                  number_property(handle, VSE_PROP_SCAN_RESULT), status});
  return 0;
}

class ScriptedEngine : public testing::Test {
 protected:
  void SetUp() override {
    setenv("PELO_TEST_ENGINE_RECORD", path("record").c_str(), 1);
    setenv("PELO_TEST_ENGINE_SCRIPT", path("script").c_str(), 1);
    seen.clear();
  }

  void TearDown() override { vseGlobalRelease(); }

  string path(const string& name) const { return folder_.path(name); }
  string put(const string& name, const string& content) const { return folder_.put(name, content); }
  string recorded() const { return folder_.read("record"); }
  bool recorded(const string& text) const { return recorded().find(text) != string::npos; }

  VSEHANDLE handle() const {
    VSEHANDLE made = nullptr;
    EXPECT_EQ(vseInit(0, 2, "/definitions", remember, nullptr, &made), 0);
    return made;
  }

  static int scan(VSEHANDLE handle, const string& file) {
    const int fd = open(file.c_str(), O_RDONLY);
    const int result = vseExec(handle, VSE_EXEC_SCAN_FD, reinterpret_cast<uintptr_t>(file.c_str()),
                               static_cast<uintptr_t>(fd), 0);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 0) << "the scan moved the caller's descriptor";
    close(fd);
    return result;
  }

  static int scan_path(VSEHANDLE handle, const string& file) {
    return vseExec(handle, VSE_EXEC_SCAN_PATH, reinterpret_cast<uintptr_t>(file.c_str()), 0, 0);
  }

  TempDirectory folder_;
};

TEST_F(ScriptedEngine, RecordsEachCallWithItsArguments) {
  vseGlobalInit("secret \"key\"");
  const VSEHANDLE made = handle();
  const uint64_t mask = 12;
  const int action = -2;
  vseSet(made, VSE_PROP_IGNORE_MASK, 0, &mask, sizeof(mask), 0);
  vseSet(made, VSE_PROP_DECOMPRESS, VSE_DECOMPRESS_LIMIT, &action, sizeof(action), 0);
  scan(made, put("clean", "nothing"));
  vseExec(made, VSE_EXEC_LOAD_DEFINITIONS, reinterpret_cast<uintptr_t>("/first"), 0, 0);
  vseRelease(made);
  const string thread = "thread=" + std::to_string(gettid());
  EXPECT_TRUE(recorded("vseGlobalInit " + thread + " key=\"secret \\x22key\\x22\" result=0\n"));
  EXPECT_TRUE(recorded("vseInit " + thread +
                       " reserved=0 flags=2 database=\"/definitions\" callback=set context=null "
                       "handle=1 value=4097 result=0\n"));
  EXPECT_TRUE(recorded("vseSet " + thread +
                       " handle=1 property=40 index=0 size=8 value=12 reserved=0 result=0\n"));
  EXPECT_TRUE(recorded("vseSet " + thread +
                       " handle=1 property=7 index=6 size=4 value=-2 reserved=0 result=0\n"));
  EXPECT_TRUE(
      recorded("vseExec " + thread + " handle=1 operation=9 path=\"" + path("clean") + "\" fd="));
  EXPECT_TRUE(recorded("operation=14 first=\"/first\" second=null result=0\n"));
  EXPECT_TRUE(recorded("vseRelease " + thread + " handle=1 result=0\n"));
  EXPECT_FALSE(recorded("VIOLATION"));
  EXPECT_NE(vseRelease(made), 0) << "it is no handle any more";
  EXPECT_TRUE(recorded("VIOLATION"));
}

TEST_F(ScriptedEngine, FindsWhatTheFileTellsItToFind) {
  vseGlobalInit(nullptr);
  const VSEHANDLE made = handle();
  const string file =
      put("bad",
          "!detect name=\"A <B>\" type=24 accuracy=3 result=8 code=7 archive=in.exe\n"
          "plain\n!detect name=Unseen\n");
  EXPECT_EQ(scan(made, file), 7);
  EXPECT_TRUE(seen == std::vector{(Seen{"A <B>", "in.exe", file, 24, 3, 8})});
  EXPECT_EQ(scan_path(made, file), 7);
  EXPECT_EQ(seen.size(), 2U);
  EXPECT_EQ(scan(made, put("clean", "plain\n!detect\n")), 0);
  EXPECT_EQ(scan(made, put("code", "!detect\n!code 3\n")), 3);
  const uint64_t adware = 1U << 2;
  vseSet(made, VSE_PROP_IGNORE_MASK, 0, &adware, sizeof(adware), 0);
  EXPECT_EQ(scan(made, put("adware", "!detect type=2\n")), 0);
}

TEST_F(ScriptedEngine, FailsTheCallsTheScriptNames) {
  put("script",
      "fail vseInit 2\nfail vseInit:4+\nfail vseSet:4\nfail vseGet:17\nfail vseExec:14 1\n");
  vseGlobalInit(nullptr);
  const VSEHANDLE made = handle();
  VSEHANDLE none = nullptr;
  EXPECT_NE(vseInit(0, 2, "", remember, nullptr, &none), 0);
  EXPECT_EQ(none, nullptr);
  EXPECT_NE(handle(), nullptr) << "only the second call fails";
  const int value = 0;
  EXPECT_NE(vseSet(made, 4, 0, &value, sizeof(value), 0), 0);
  EXPECT_EQ(vseSet(made, 30, 0, &value, sizeof(value), 0), 0);
  EXPECT_EQ(scan(made, put("bad", "!detect\n")), 1);
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_NE(seen[0].name_status, 0);
  EXPECT_NE(vseExec(made, VSE_EXEC_LOAD_DEFINITIONS, 0, 0, 0), 0);
  EXPECT_EQ(vseExec(made, VSE_EXEC_LOAD_DEFINITIONS, 0, 0, 0), 0);
  for (int i = 0; i < 2; ++i) {
    EXPECT_NE(vseInit(0, 2, "", remember, nullptr, &none), 0) << "from the fourth on";
  }
}

TEST_F(ScriptedEngine, ReadsItsScriptAgainAtEachNewHandle) {
  vseGlobalInit(nullptr);
  EXPECT_EQ(handle(), reinterpret_cast<VSEHANDLE>(0x1001));
  put("script", "handle-base 0x80000000\nvalue 15 28\n");
  const VSEHANDLE made = handle();
  EXPECT_EQ(made, reinterpret_cast<VSEHANDLE>(0x80000002));
  scan(made, put("bad", "!detect type=1\n"));
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].type, 28);
}

TEST_F(ScriptedEngine, GivesTheNumberOfAHandleReleasedUnusedToTheNextAndNoOther) {
  vseGlobalInit(nullptr);
  const VSEHANDLE unused = handle();
  EXPECT_EQ(vseRelease(unused), 0);
  const int value = 0;
  const VSEHANDLE set = handle();
  EXPECT_EQ(set, unused);
  vseSet(set, VSE_PROP_SCAN_ACTION, 0, &value, sizeof(value), 0);
  vseRelease(set);
  const VSEHANDLE scanned = handle();
  scan(scanned, put("clean", "nothing"));
  vseRelease(scanned);
  const VSEHANDLE older = handle();
  EXPECT_EQ(older, reinterpret_cast<VSEHANDLE>(0x1003));
  EXPECT_EQ(handle(), reinterpret_cast<VSEHANDLE>(0x1004));
  vseRelease(older);
  EXPECT_EQ(handle(), reinterpret_cast<VSEHANDLE>(0x1005));
}

TEST_F(ScriptedEngine, OpensTheFilesItIsToldTo) {
  put("script", "open vseInit 1 " + path("absent") + "\n");
  vseGlobalInit(nullptr);
  const VSEHANDLE made = handle();
  scan(made, put("opens", "!open " + path("script") + "\n"));
  EXPECT_TRUE(recorded("engine-open"));
  EXPECT_TRUE(recorded("path=\"" + path("absent") + "\" errno=2\n"));
  EXPECT_TRUE(recorded("path=\"" + path("script") + "\" errno=0\n"));
}

TEST_F(ScriptedEngine, RecordsWhatItDoesNotUnderstand) {
  put("script", "fial vseInit\nfail vseInit x\nslow vseInit\n");
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
  const int value = 0;
  // The first scan is in use from a moment after its begin line on.
  EXPECT_TRUE(eventually([&] {
    vseSet(made, 30, 0, &value, sizeof(value), 0);
    return recorded("VIOLATION");
  }));
  EXPECT_FALSE(recorded("vseExec ")) << "the scan did not wait";
  put("go", "");
  scanner.join();
  EXPECT_TRUE(recorded("vseExec "));
}

TEST_F(ScriptedEngine, EndsTheProcessWhenItIsToldTo) {
  const string file = put("ends", "!exit 3\n");
  EXPECT_EXIT(scan((vseGlobalInit(nullptr), handle()), file), testing::ExitedWithCode(3), "");
}

}  // namespace
