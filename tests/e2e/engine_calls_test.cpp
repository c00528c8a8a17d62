// What the engine is asked to do: every call, its arguments and their order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sstream>

#include "fixture.h"

namespace e2e {
namespace {

using testing::ElementsAre;

class EngineCalls : public E2eTest {
 protected:
  void prepare() override { set_threads(1); }

  /// The record without threads and "-begin" lines, descriptors written as N.
  std::vector<std::string> calls() const {
    std::vector<std::string> result;
    for (std::string line : lines_of(engine_record())) {
      if (line.find("-begin ") == std::string::npos) {
        cut_out(line, " thread=");
        const size_t fd = line.find(" fd=");
        if (fd != std::string::npos && line.find(" fd=-") == std::string::npos) {
          cut_out(line, " fd=");
          line.insert(fd, " fd=N");
        }
        result.push_back(line);
      }
    }
    return result;
  }

  static std::string init(int flags, const std::string& database, int handle) {
    return "vseInit reserved=0 flags=" + std::to_string(flags) + " database=\"" + database +
           "\" callback=set context=null handle=" + std::to_string(handle) +
           " value=" + std::to_string(4096 + handle) + " result=0";
  }
  static std::string set_call(int handle, int property, int index, int size,
                              const std::string& value) {
    return "vseSet handle=" + std::to_string(handle) + " property=" + std::to_string(property) +
           " index=" + std::to_string(index) + " size=" + std::to_string(size) + " value=" + value +
           " reserved=0 result=0";
  }
  static std::string scan(int handle, const std::string& path, int result) {
    return "vseExec handle=" + std::to_string(handle) + " operation=9 path=\"" + path +
           "\" fd=N result=" + std::to_string(result);
  }

  /// The calls of this property, one line each.
  std::vector<std::string> sets_of(int property) const {
    return engine_calls("vseSet", {" property=" + std::to_string(property) + " "});
  }

 private:
  static void cut_out(std::string& line, const std::string& field) {
    const size_t begin = line.find(field);
    if (begin != std::string::npos) {
      line.erase(begin, line.find(' ', begin + 1) - begin);
    }
  }
};

TEST_F(EngineCalls, OrderFromStartToEnd) {
  const std::string file = put_clean("file");
  const std::string bad = put_infected("bad");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(open_status(bad), EPERM);
  stop();
  auto all = calls();
  std::erase_if(all, [](const auto& call) { return call.rfind("vseGet ", 0) == 0; });
  // The properties are set before every scan.
  EXPECT_THAT(
      all,
      ElementsAre("vseGlobalInit key=null result=0", init(2, work("db"), 1),
                  set_call(1, 40, 0, 8, "12"), set_call(1, 9, 0, 4, "242"),
                  set_call(1, 4, 0, 4, "0"), set_call(1, 30, 0, 4, "2"), set_call(1, 7, 6, 4, "0"),
                  scan(1, file, 0), set_call(1, 4, 0, 4, "0"), set_call(1, 30, 0, 4, "2"),
                  set_call(1, 7, 6, 4, "0"), scan(1, bad, 1), "vseGlobalRelease result=0"));
}

TEST_F(EngineCalls, NothingIsWatchedBeforeTheEngineHasStarted) {
  const std::string file = put_infected("bad");
  script("wait vseGlobalInit " + work("go") + "\n");
  launch();
  ASSERT_TRUE(eventually([&] { return !engine_calls("vseGlobalInit-begin").empty(); }));
  EXPECT_FALSE(is_registered(watched()));
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 0U);
  touch(work("go"));
  wait_until_ready();
  EXPECT_EQ(open_status(file), EPERM);
}

TEST_F(EngineCalls, SettingsReachTheEngine) {
  struct Row {
    const char* settings;  // KEY VALUE;KEY VALUE
    const char* call;
    const char* text;  // null: no such call
  };
  constexpr Row kRows[] = {
      {"DefaultAction disinfect;MaxArchiveDepth 7", "vseSet",
       " property=4 index=0 size=4 value=1 "},
      {"ScheduledMaxArchiveDepth 55;MaxArchiveDepth 7", "vseSet",
       " property=30 index=0 size=4 value=7 "},
      {"DefaultAction DELETE;DecompressLimit 99", "vseSet", " property=7 index=6 size=4 value=99 "},
      {"DefaultAction DELETE", "vseSet", " property=4 index=0 size=4 value=2 "},
      {"IgnoreAdwareDetections no;IgnoreApplicationDetections no", "vseSet", nullptr},
      {"IgnoreArchiveBombDetections yes;IgnoreJokeDetections yes;IgnoreRemoteTemplateDetections "
       "yes;"
       "IgnoreSpywareDetections yes;IgnoreToolDetections yes",
       "vseSet", " property=40 index=0 size=8 value=13635628 "},
      {"DefinitionType V1", "vseInit", " flags=2 "},
      {"DefinitionType v2", "vseInit", " flags=14 "},
      {"DefinitionType V2S", "vseInit", " flags=18 "},
      {"DefinitionType unknown", "vseInit", " flags=2 "},
      {"CloudAccessKey of the file", "vseGlobalInit", " key=null "},
      {"CloudAccessKey of the file;EnableCloudScanning yes", "vseGlobalInit",
       " key=\"of the file\" "}};
  const std::string file = put_clean("file");
  for (const Row& row : kRows) {
    std::vector<std::string> keys;
    std::istringstream settings(row.settings);
    for (std::string setting; std::getline(settings, setting, ';');) {
      keys.push_back(setting.substr(0, setting.find(' ')));
      set(keys.back(), setting.substr(setting.find(' ') + 1));
    }
    world().put(work("engine.record"), "");
    start();
    EXPECT_EQ(open_status(file), 0);
    stop();
    if (row.text == nullptr) {
      EXPECT_TRUE(sets_of(40).empty()) << row.settings;
    } else {
      EXPECT_EQ(engine_calls(row.call, {row.text}).size(), 1U) << row.settings << engine_record();
    }
    for (const std::string& key : keys) {
      drop(key);
    }
  }
}

TEST_F(EngineCalls, CloudKeyOfTheCommandLineWinsWhenItComesLater) {
  set("CloudAccessKey", "file");
  set("EnableCloudScanning", "yes");
  const std::string configuration = work("pelowatchd.conf");
  const std::pair<std::vector<std::string>, const char*> kLines[] = {
      {{"-n", "-c", configuration, "-k", "line"}, "line"},
      {{"-n", "--cloudaccess-key", "line", "-c", configuration}, "file"}};
  for (const auto& [arguments, key] : kLines) {
    world().put(work("engine.record"), "");
    start({.arguments = arguments});
    stop();
    EXPECT_EQ(calls()[0], std::string("vseGlobalInit key=\"") + key + "\" result=0");
  }
}

// labels: essential one-processor
TEST_F(EngineCalls, UpdateLoadsBothFilesAndEachWorkerRenewsItsHandle) {
  stage_definitions();
  start();
  ASSERT_TRUE(eventually([&] { return calls().size() == 4; }));
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return !engine_calls("vseRelease").empty(); }));
  const std::string file = put_clean("file");
  // The renewal begins a moment after the definitions are loaded.
  ASSERT_TRUE(
      eventually([&] { return open_status(file) == 0 && engine_calls("vseRelease").size() == 2; }));
  ASSERT_TRUE(eventually([&] { return sets_of(9).size() == 2; }));
  auto all = calls();
  const auto is_scan = [](const std::string& call) {
    return call.find("operation=9") != std::string::npos ||
           call.find("property=4 ") != std::string::npos ||
           call.find("property=30 ") != std::string::npos ||
           call.find("property=7 ") != std::string::npos;
  };
  all.erase(std::remove_if(all.begin(), all.end(), is_scan), all.end());
  EXPECT_THAT(
      std::vector(all.begin() + 4, all.end()),
      ElementsAre(init(2, work("db"), 2),
                  "vseExec handle=2 operation=14 first=\"" + work("staging") +
                      "/antivir.def\" second=\"" + work("staging") + "/aivsecon.def\" result=0",
                  "vseRelease handle=2 result=0", "vseRelease handle=1 result=0",
                  init(2, work("db"), 3), set_call(3, 40, 0, 8, "12"),
                  set_call(3, 9, 0, 4, "242")));
}

TEST_F(EngineCalls, UpdateNamesOnlyTheFilesThatCanBeRead) {
  // A slash at the end of the folder is not taken away.
  set("StagingDirectory", work("staging") + "/");
  set("DefinitionType", "V2");
  world().put(work("staging/aivsecon-v2.def"), "definitions");
  world().put(work("staging/antivir.def"), "of another family");
  start();
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return engine_calls("vseExec").size() == 1; }));
  EXPECT_NE(engine_calls("vseExec")[0].find("operation=14 first=null second=\"" + work("staging") +
                                            "//aivsecon-v2.def\" result=0"),
            std::string::npos)
      << engine_record();
}

TEST_F(EngineCalls, TemporaryHandleOfARefusedUpdateIsReleased) {
  stage_definitions();
  script("fail vseExec:14\n");
  set("Loglevel", "3");
  start();
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return logged("service_thread error updating av database\n"); }));
  EXPECT_EQ(engine_calls("vseRelease", {"handle=2 "}).size(), 1U);
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
  EXPECT_EQ(engine_calls("vseInit").size(), 2U) << "no worker renewed its handle";
}

TEST_F(EngineCalls, UpdateWithoutATemporaryHandleLoadsNothing) {
  stage_definitions();
  set("Loglevel", "3");
  start();
  ASSERT_TRUE(eventually([&] { return sets_of(9).size() == 1; }));
  script("fail vseInit\n");
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return logged("service_thread error updating av database\n"); }));
  EXPECT_TRUE(engine_calls("vseExec").empty());
  EXPECT_TRUE(engine_calls("vseRelease").empty());
}

TEST_F(EngineCalls, HandleWhoseRenewalFailedIsNotUsedAndTheNextUpdateTriesAgain) {
  const std::string file = put_infected("bad");
  stage_definitions();
  start();
  EXPECT_EQ(open_status(file), EPERM);
  // The update's own handle is made, and the worker's next one is not.
  const size_t made = count_of(engine_record(), "vseInit-begin ");
  script("fail vseInit " + std::to_string(made + 2) + "\n");
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return open_status(file) == 0; })) << "without a handle: allowed";
  EXPECT_EQ(engine_calls("vseInit").size(), 3U);
  EXPECT_EQ(open_status(file), 0);
  EXPECT_TRUE(eventually([&] {
    daemon().signal(SIGHUP);
    return open_status(file) == EPERM;
  }));
}

TEST_F(EngineCalls, HandleWhoseOptionsAreRefusedIsNotUsed) {
  const std::string file = put_infected("bad");
  script("fail vseSet:9\n");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 0U);
}

TEST_F(EngineCalls, EachWorkerScansWithItsOwnHandle) {
  set_threads(3);
  std::vector<Process> openers;
  start();
  for (int i = 0; i < 3; ++i) {
    const std::string file = put("held" + std::to_string(i), "!wait " + work("go") + "\n");
    openers.push_back(start_open(file));
    ASSERT_TRUE(eventually([&] { return scans_begun(file) == 1; }));
  }
  touch(work("go"));
  for (Process& opener : openers) {
    EXPECT_EQ(opener.status(), 0);
  }
  for (const char* handle : {"handle=1 ", "handle=2 ", "handle=3 "}) {
    EXPECT_EQ(engine_calls("vseExec", {handle, "operation=9 "}).size(), 1U) << engine_record();
  }
}

TEST_F(EngineCalls, WorkerWithoutAHandleAllowsAndTheOthersScan) {
  const std::string file = put_infected("bad");
  set_threads(2);
  script("fail vseInit 2\n");  // one of the workers'
  start();
  // Whoever takes the event: the worker without a handle lets it pass, the other does not.
  EXPECT_TRUE(eventually([&] { return open_status(file) == EPERM; }));
  EXPECT_TRUE(eventually([&] { return open_status(file) == 0; }));
}

}  // namespace
}  // namespace e2e
