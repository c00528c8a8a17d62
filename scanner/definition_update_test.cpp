// The adapter's definition updates, and what may run beside them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <regex>
#include <thread>
#include <vector>

#include "scripted_engine_fixture.h"
#include "wait.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;

class DefinitionUpdate : public EngineTest {
 protected:
  DefinitionUpdate() {
    scanner();
    new_calls();
  }

  bool update() { return scanner().apply_update(directory_.path()); }

  string in_quotes(const string& name) const { return "\"" + directory_.path(name) + "\""; }

  static string load(const string& first, const string& second, int result = 0) {
    return "vseExec handle=1 operation=14 first=" + first + " second=" + second +
           " result=" + std::to_string(result);
  }

  const string release_ = "vseRelease handle=1 result=0";
};

struct Family {
  ConfParser::definition_type_t type;
  unsigned flags;
  const char* suffix;
};

TEST_F(DefinitionUpdate, LoadsTheFilesOfItsFamilyThatAreThereOnATemporaryHandle) {
  const std::regex handles("( handle=)[0-9]+|( value=)[0-9]+");
  for (const Family& family : {Family{ConfParser::V1, 2, ".def"},
                               {ConfParser::V2, 14, "-v2.def"},
                               {ConfParser::V2S, 18, "-v2s.def"}}) {
    config().DefinitionType = family.type;
    const string names[] = {string("antivir") + family.suffix, string("aivsecon") + family.suffix};
    directory_.put(string("antiviri") + family.suffix, "");  // incremental ones do not count
    directory_.put(string("aivseconi") + family.suffix, "");
    EXPECT_FALSE(update()) << "nor those of other families";
    EXPECT_THAT(new_calls(), IsEmpty());
    for (const auto& [first, second] : {std::pair(true, true), {true, false}, {false, true}}) {
      std::filesystem::remove(directory_.path(names[0]));
      (void)(first ? directory_.put(names[0], "") : "");
      (void)(second ? directory_.put(names[1], "") : "");
      EXPECT_TRUE(update());
      std::vector<string> made = new_calls();
      for (string& call : made) {
        call = std::regex_replace(call, handles, "$1$2");
      }
      EXPECT_THAT(
          made, ElementsAre(
                    "vseInit reserved=0 flags=" + std::to_string(family.flags) +
                        " database=\"/db\" callback=set context=null handle= "
                        "value= result=0",
                    "vseExec handle= operation=14 first=" + (first ? in_quotes(names[0]) : "null") +
                        " second=" + (second ? in_quotes(names[1]) : "null") + " result=0",
                    "vseRelease handle= result=0"));
      std::filesystem::remove(directory_.path(names[1]));
    }
    directory_.put(names[0], "");
  }
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_THAT(AVSDK_scanner::defV1Names_incremental, ElementsAre("antiviri.def", "aivseconi.def"));
  EXPECT_THAT(AVSDK_scanner::defV2Names_incremental,
              ElementsAre("antiviri-v2.def", "aivseconi-v2.def"));
  EXPECT_THAT(AVSDK_scanner::defV2sNames_incremental,
              ElementsAre("antiviri-v2s.def", "aivseconi-v2s.def"));
}

TEST_F(DefinitionUpdate, FamilyThatIsNoneIsRefusedWithoutTouchingTheEngine) {
  directory_.put("antivir.def", "");
  for (const int type : {3, -1}) {
    config().DefinitionType = static_cast<ConfParser::definition_type_t>(type);
    EXPECT_FALSE(update()) << type;
  }
  EXPECT_THAT(new_calls(), IsEmpty());
}

TEST_F(DefinitionUpdate, TrailingSlashOfTheDirectoryIsNotRemoved) {
  directory_.put("antivir.def", "");
  EXPECT_TRUE(scanner().apply_update(directory_.path() + "/"));
  EXPECT_THAT(new_calls(),
              ElementsAre(engine_init(2), load(in_quotes("/antivir.def"), "null"), release_));
}

TEST_F(DefinitionUpdate, DefinitionsThatTheEngineRejectsAreAFailureAndTheHandleIsReleased) {
  script("fail vseExec:14 1\nfail vseRelease\n");
  directory_.put("antivir.def", "");
  EXPECT_FALSE(update());
  EXPECT_THAT(new_calls(), ElementsAre(engine_init(2), load(in_quotes("antivir.def"), "null", -1),
                                       "vseRelease handle=1 result=-1"));
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_TRUE(update()) << "the next one may succeed, and a failed release is ignored";
}

TEST_F(DefinitionUpdate, WithoutATemporaryHandleNothingIsLoadedOrReleased) {
  script("fail vseInit\n");
  directory_.put("antivir.def", "");
  EXPECT_FALSE(update());
  EXPECT_THAT(new_calls(), ElementsAre("vseInit reserved=0 flags=2 database=\"/db\" callback=set "
                                       "context=null result=-1"));
}

// Threads. The engine itself records a call that overlaps one it must not, and a handle that two
// threads use; the fixture looks for either.

TEST_F(DefinitionUpdate, HandleCreationAndUpdatesNeverOverlap) {
  directory_.put("antivir.def", "");
  script("slow vseInit 2\nslow vseExec:14 2\n");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int round = 0; round < 10; ++round) {
        if (t == 0) {
          EXPECT_TRUE(update());
        } else {
          scanner().release_thread_scan_handler(handle());
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(new_calls().size(), 10U * 3 + 30U * 4);
}

TEST_F(DefinitionUpdate, MakesNewHandlesWaitAndNeitherScansNorReleases) {
  void* scanning = handle();
  directory_.put("antivir.def", "");
  script("wait vseExec:14 " + directory_.path("go-on") + "\n");
  auto updated = std::async(std::launch::async, [this] { return update(); });
  ASSERT_TRUE(eventually(
      [this] { return directory_.read("engine-calls").find("operation=14") != string::npos; }));
  EXPECT_TRUE(scanner().update_in_progress());
  auto waiting = std::async(std::launch::async, [] { return handle(); });
  EXPECT_EQ(find(scanning, "!code 1\n"), 1);
  scanner().release_thread_scan_handler(scanning);
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  directory_.put("go-on", "");
  EXPECT_TRUE(updated.get());
  EXPECT_FALSE(scanner().update_in_progress());
  EXPECT_NE(waiting.get(), nullptr);
}

}  // namespace
