// What the engine is asked to do: every call, its arguments and their order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "fixture.h"

namespace e2e {
namespace {

using testing::ElementsAre;

class EngineCalls : public E2eTest {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    set_threads(1);
  }

  /// The record without threads and "-begin" lines, descriptors written as N.
  std::vector<std::string> calls() const { return calls_of(engine_lines()); }

  static std::vector<std::string> calls_of(const std::vector<std::string>& lines) {
    std::vector<std::string> result;
    for (std::string line : lines) {
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

  /// Starts, opens one clean file and stops: the calls of a whole life.
  std::vector<std::string> life_with_one_scan() {
    const std::string file = put_clean("file");
    start();
    EXPECT_EQ(open_status(file), 0);
    stop();
    return calls();
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
  EXPECT_THAT(
      life_with_one_scan(),
      ElementsAre("vseGlobalInit key=null result=0", init(2, work("db"), 1),
                  set_call(1, 40, 0, 8, "12"), set_call(1, 9, 0, 4, "242"),
                  set_call(1, 4, 0, 4, "0"), set_call(1, 30, 0, 4, "2"), set_call(1, 7, 6, 4, "0"),
                  scan(1, watched("file"), 0), "vseGlobalRelease result=0"));
}

TEST_F(EngineCalls, DefinitionsAreLoadedWithAHandleThatIsGivenBackUnused) {
  start();
  ASSERT_TRUE(eventually([&] { return sets_of(9).size() == 1; }));
  EXPECT_THAT(calls_of(lines_of(engine_record())),
              ElementsAre("vseGlobalInit key=null result=0", init(2, work("db"), 1),
                          "vseRelease handle=1 result=0", init(2, work("db"), 1),
                          set_call(1, 40, 0, 8, "12"), set_call(1, 9, 0, 4, "242")));
}

TEST_F(EngineCalls, NothingIsWatchedBeforeTheDefinitionsAreLoaded) {
  const std::string file = put_infected("bad");
  script("wait vseInit 1 " + work("go") + "\n");
  launch();
  ASSERT_TRUE(eventually([&] { return count_of(engine_record(), "vseInit-begin ") == 1; }));
  EXPECT_FALSE(is_registered(watched()));
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(scans_begun(file), 0U);
  touch(work("go"));
  wait_until_ready();
  EXPECT_EQ(open_status(file), EPERM);
}

TEST_F(EngineCalls, DefinitionsThatCannotBeLoadedDoNotEndTheStart) {
  script("fail vseInit 1\n");
  start();
  EXPECT_EQ(open_status(put_infected("bad")), EPERM) << "the worker has got its handle";
  EXPECT_TRUE(engine_calls("vseRelease").empty());
}

TEST_F(EngineCalls, LimitsAndActionComeFromTheConfiguration) {
  set("DefaultAction", "disinfect");
  set("MaxArchiveDepth", "7");
  set("DecompressLimit", "99");
  set("ScheduledMaxArchiveDepth", "55");
  (void)life_with_one_scan();
  ASSERT_EQ(sets_of(4).size(), 1U);
  EXPECT_NE(sets_of(4)[0].find("value=1 "), std::string::npos);
  EXPECT_NE(sets_of(30)[0].find("value=7 "), std::string::npos);
  EXPECT_NE(sets_of(7)[0].find("index=6 size=4 value=99 "), std::string::npos);
}

TEST_F(EngineCalls, ActionDeleteIsTwo) {
  set("DefaultAction", "DELETE");
  (void)life_with_one_scan();
  EXPECT_NE(sets_of(4)[0].find("value=2 "), std::string::npos);
}

TEST_F(EngineCalls, PropertiesAreSetBeforeEveryScan) {
  const std::string file = put_infected("bad");
  start();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open_status(file), EPERM);
  }
  for (const int property : {4, 30, 7}) {
    EXPECT_EQ(sets_of(property).size(), 3U) << property;
  }
  for (const int property : {40, 9}) {
    EXPECT_EQ(sets_of(property).size(), 1U) << property;
  }
}

TEST_F(EngineCalls, NoIgnoredTypeMeansNoMask) {
  set("IgnoreAdwareDetections", "no");
  set("IgnoreApplicationDetections", "no");
  (void)life_with_one_scan();
  EXPECT_TRUE(sets_of(40).empty());
}

TEST_F(EngineCalls, EveryIgnoredTypeHasItsBit) {
  for (const char* type :
       {"Adware", "Application", "ArchiveBomb", "Joke", "RemoteTemplate", "Spyware", "Tool"}) {
    set(std::string("Ignore") + type + "Detections", "yes");
  }
  (void)life_with_one_scan();
  const uint64_t mask = 0x4 | 0x8 | 0x20 | 0x1000 | 0x100000 | 0x400000 | 0x800000;
  ASSERT_EQ(sets_of(40).size(), 1U);
  EXPECT_NE(sets_of(40)[0].find("size=8 value=" + std::to_string(mask) + " "), std::string::npos);
}

TEST_F(EngineCalls, DefinitionFamilyMakesTheFlags) {
  const std::pair<const char*, int> kFamilies[] = {
      {"LEGACY", 2}, {"V1", 2}, {"v2", 14}, {"V2S", 18}, {"unknown", 2}};
  for (const auto& [word, flags] : kFamilies) {
    world().put(work("engine.record"), "");
    set("DefinitionType", word);
    const auto all = life_with_one_scan();
    ASSERT_GT(all.size(), 1U);
    EXPECT_EQ(all[1], init(flags, work("db"), 1)) << word;
  }
}

TEST_F(EngineCalls, CloudKeyIsGivenOnlyWhenCloudScanningIsOn) {
  set("CloudAccessKey", "key of the file");
  EXPECT_EQ(life_with_one_scan()[0], "vseGlobalInit key=null result=0");
  world().put(work("engine.record"), "");
  set("EnableCloudScanning", "yes");
  EXPECT_EQ(life_with_one_scan()[0], "vseGlobalInit key=\"key of the file\" result=0");
}

TEST_F(EngineCalls, CloudKeyOfTheCommandLineWinsWhenItComesLater) {
  set("CloudAccessKey", "file");
  set("EnableCloudScanning", "yes");
  const std::string configuration = work("pelowatchd.conf");
  const std::pair<std::vector<std::string>, const char*> kLines[] = {
      {{"-n", "-c", configuration, "-k", "line"}, "line"},
      {{"-n", "-c", configuration, "--cloudaccess-key", "line"}, "line"},
      {{"-n", "-k", "line", "-c", configuration}, "file"}};
  for (const auto& [arguments, key] : kLines) {
    world().put(work("engine.record"), "");
    Launch launch;
    launch.arguments = arguments;
    start(launch);
    stop();
    EXPECT_EQ(calls()[0], std::string("vseGlobalInit key=\"") + key + "\" result=0");
  }
}

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

TEST_F(EngineCalls, WorkersThatSleepRenewTheirHandlesToo) {
  stage_definitions();
  set_threads(5);
  start();
  ASSERT_TRUE(eventually([&] { return sets_of(9).size() == 5; }));
  daemon().signal(SIGHUP);
  // The update's own handle, and without any open the five that keep the old definitions alive.
  EXPECT_TRUE(eventually([&] { return engine_calls("vseRelease").size() == 6; }))
      << engine_record();
  EXPECT_TRUE(eventually([&] { return sets_of(9).size() == 10; })) << engine_record();
  EXPECT_EQ(open_status(put_infected("bad")), EPERM);
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
  script("fail vseInit 3\n");  // after the one that loads the definitions and the worker's
  set("Loglevel", "3");
  start();
  ASSERT_TRUE(eventually([&] { return sets_of(9).size() == 1; }));
  daemon().signal(SIGHUP);
  ASSERT_TRUE(eventually([&] { return logged("service_thread error updating av database\n"); }));
  EXPECT_TRUE(engine_calls("vseExec").empty());
  EXPECT_TRUE(engine_calls("vseRelease").empty());
}

TEST_F(EngineCalls, HandleWhoseRenewalFailedIsNotUsedAndTheNextUpdateTriesAgain) {
  const std::string file = put_infected("bad");
  stage_definitions();
  // After the one that loads the definitions, the worker's first and the update's own.
  script("fail vseInit 4\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
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
  script("fail vseInit 2\n");  // a worker's: the first one loads the definitions
  start();
  // Whoever takes the event: the worker without a handle lets it pass, the other does not.
  EXPECT_TRUE(eventually([&] { return open_status(file) == EPERM; }));
  EXPECT_TRUE(eventually([&] { return open_status(file) == 0; }));
}

}  // namespace
}  // namespace e2e
