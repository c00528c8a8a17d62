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
  const char* first;
  const char* second;
};

TEST_F(DefinitionUpdate, LoadsTheFilesOfItsFamilyThatAreThereOnATemporaryHandle) {
  for (const Family& family : {Family{ConfParser::V1, 2, "antivir.def", "aivsecon.def"},
                               {ConfParser::V2, 14, "antivir-v2.def", "aivsecon-v2.def"},
                               {ConfParser::V2S, 18, "antivir-v2s.def", "aivsecon-v2s.def"}}) {
    config().DefinitionType = family.type;
    EXPECT_FALSE(update()) << "only other families' files are there";
    EXPECT_THAT(new_calls(), IsEmpty());
    for (const bool first : {true, false}) {
      for (const bool second : {true, false}) {
        std::filesystem::remove(directory_.path(family.first));
        std::filesystem::remove(directory_.path(family.second));
        if (first) {
          directory_.put(family.first, "");
        }
        if (second) {
          directory_.put(family.second, "");
        }
        EXPECT_EQ(update(), first || second);
        std::vector<string> made = new_calls();
        ASSERT_EQ(made.size(), first || second ? 3U : 0U);
        for (string& call : made) {
          call = std::regex_replace(call, std::regex("( handle=)[0-9]+|( value=)[0-9]+"), "$1$2");
        }
        if (first || second) {
          EXPECT_THAT(made,
                      ElementsAre("vseInit reserved=0 flags=" + std::to_string(family.flags) +
                                      " database=\"/db\" callback=set context=null handle= "
                                      "value= result=0",
                                  "vseExec handle= operation=14 first=" +
                                      (first ? in_quotes(family.first) : "null") + " second=" +
                                      (second ? in_quotes(family.second) : "null") + " result=0",
                                  "vseRelease handle= result=0"));
        }
      }
    }
    directory_.put(family.first, "");
  }
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(DefinitionUpdate, NamesOfTheIncrementalFiles) {
  EXPECT_THAT(AVSDK_scanner::defV1Names_incremental, ElementsAre("antiviri.def", "aivseconi.def"));
  EXPECT_THAT(AVSDK_scanner::defV2Names_incremental,
              ElementsAre("antiviri-v2.def", "aivseconi-v2.def"));
  EXPECT_THAT(AVSDK_scanner::defV2sNames_incremental,
              ElementsAre("antiviri-v2s.def", "aivseconi-v2s.def"));
}

TEST_F(DefinitionUpdate, IncrementalFilesDoNotCount) {
  directory_.put("antiviri.def", "");
  directory_.put("aivseconi.def", "");
  EXPECT_FALSE(update());
  EXPECT_THAT(new_calls(), IsEmpty());
  EXPECT_THAT(logged(), IsEmpty());
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

class DefinitionUpdateUnderWay : public DefinitionUpdate {
 protected:
  /// Starts an update that lasts until it is let on.
  void start_update() {
    directory_.put("antivir.def", "");
    script("wait vseExec:14 " + directory_.path("go-on") + "\n");
    update_ = std::async(std::launch::async, [this] { return update(); });
    ASSERT_TRUE(eventually(
        [this] { return directory_.read("engine-calls").find("operation=14") != string::npos; }));
  }

  bool under_way() const {
    return update_.wait_for(std::chrono::seconds(0)) == std::future_status::timeout;
  }

  bool let_on() {
    directory_.put("go-on", "");
    return update_.get();
  }

  std::future<bool> update_;
};

TEST_F(DefinitionUpdateUnderWay, ScansAndReleasesGoOn) {
  void* scanning = handle();
  start_update();
  const string file = directory_.put("file", "!code 1\n");
  EXPECT_EQ(scanner().scan_file(scanning, file.c_str(), 2, ConfParser::REPORT, 0), 1);
  scanner().release_thread_scan_handler(scanning);
  EXPECT_TRUE(under_way());
  EXPECT_TRUE(let_on());
}

TEST_F(DefinitionUpdateUnderWay, NewHandlesWaitForItsEnd) {
  start_update();
  auto waiting = std::async(std::launch::async, [] { return handle(); });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_TRUE(let_on());
  EXPECT_NE(waiting.get(), nullptr);
}

}  // namespace
