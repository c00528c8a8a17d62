// The adapter's definition updates, and what may run beside them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <ostream>
#include <thread>
#include <vector>

#include "engine_test.h"
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

  static string init(unsigned flags) {
    return "vseInit reserved=0 flags=" + std::to_string(flags) +
           " database=\"/db\" callback=set context=null handle=1 value=4097 result=0";
  }

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

void PrintTo(const Family& family, std::ostream* out) {
  *out << family.first;
}

class DefinitionFamily : public DefinitionUpdate, public testing::WithParamInterface<Family> {};

TEST_P(DefinitionFamily, LoadsBothFilesOnATemporaryHandle) {
  config().DefinitionType = GetParam().type;
  directory_.put(GetParam().first, "");
  directory_.put(GetParam().second, "");
  EXPECT_TRUE(update());
  EXPECT_THAT(
      new_calls(),
      ElementsAre(init(GetParam().flags),
                  load(in_quotes(GetParam().first), in_quotes(GetParam().second)), release_));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_P(DefinitionFamily, FirstFileAloneIsEnough) {
  config().DefinitionType = GetParam().type;
  directory_.put(GetParam().first, "");
  EXPECT_TRUE(update());
  EXPECT_THAT(new_calls(), ElementsAre(init(GetParam().flags),
                                       load(in_quotes(GetParam().first), "null"), release_));
}

TEST_P(DefinitionFamily, SecondFileAloneIsEnough) {
  config().DefinitionType = GetParam().type;
  directory_.put(GetParam().second, "");
  EXPECT_TRUE(update());
  EXPECT_THAT(new_calls(), ElementsAre(init(GetParam().flags),
                                       load("null", in_quotes(GetParam().second)), release_));
}

INSTANTIATE_TEST_SUITE_P(
    Each, DefinitionFamily,
    testing::Values(Family{ConfParser::V1, 2, "antivir.def", "aivsecon.def"},
                    Family{ConfParser::V2, 14, "antivir-v2.def", "aivsecon-v2.def"},
                    Family{ConfParser::V2S, 18, "antivir-v2s.def", "aivsecon-v2s.def"}));

TEST_F(DefinitionUpdate, NamesOfTheIncrementalFiles) {
  EXPECT_THAT(AVSDK_scanner::defV1Names_incremental, ElementsAre("antiviri.def", "aivseconi.def"));
  EXPECT_THAT(AVSDK_scanner::defV2Names_incremental,
              ElementsAre("antiviri-v2.def", "aivseconi-v2.def"));
  EXPECT_THAT(AVSDK_scanner::defV2sNames_incremental,
              ElementsAre("antiviri-v2s.def", "aivseconi-v2s.def"));
}

TEST_F(DefinitionUpdate, WithoutAFileTheEngineIsNotTouched) {
  EXPECT_FALSE(update());
  EXPECT_THAT(new_calls(), IsEmpty());
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(DefinitionUpdate, FilesOfAnotherFamilyOrIncrementalOnesDoNotCount) {
  directory_.put("antivir-v2.def", "");
  directory_.put("aivsecon-v2s.def", "");
  directory_.put("antiviri.def", "");
  directory_.put("aivseconi.def", "");
  EXPECT_FALSE(update());
  EXPECT_THAT(new_calls(), IsEmpty());
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
  EXPECT_THAT(new_calls(), ElementsAre(init(2), load(in_quotes("/antivir.def"), "null"), release_));
}

TEST_F(DefinitionUpdate, DefinitionsThatTheEngineRejectsAreAFailureAndTheHandleIsReleased) {
  script("fail vseExec:14\n");
  directory_.put("antivir.def", "");
  EXPECT_FALSE(update());
  EXPECT_THAT(new_calls(),
              ElementsAre(init(2), load(in_quotes("antivir.def"), "null", -1), release_));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(DefinitionUpdate, WithoutATemporaryHandleNothingIsLoadedOrReleased) {
  script("fail vseInit\n");
  directory_.put("antivir.def", "");
  EXPECT_FALSE(update());
  EXPECT_THAT(new_calls(), ElementsAre("vseInit reserved=0 flags=2 database=\"/db\" callback=set "
                                       "context=null result=-1"));
}

TEST_F(DefinitionUpdate, FailedReleaseOfTheTemporaryHandleIsIgnored) {
  script("fail vseRelease\n");
  directory_.put("antivir.def", "");
  EXPECT_TRUE(update());
}

TEST_F(DefinitionUpdate, CanSucceedAfterOneThatFailed) {
  script("fail vseExec:14 1\n");
  directory_.put("antivir.def", "");
  EXPECT_FALSE(update());
  EXPECT_TRUE(update());
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

TEST_F(DefinitionUpdateUnderWay, ScansGoOn) {
  void* scanning = handle();
  start_update();
  const string file = directory_.put("file", "!code 1\n");
  EXPECT_EQ(scanner().scan_file(scanning, file.c_str(), 2, ConfParser::REPORT, 0), 1);
  EXPECT_TRUE(under_way());
  EXPECT_TRUE(let_on());
}

TEST_F(DefinitionUpdateUnderWay, HandlesCanBeReleased) {
  void* released = handle();
  start_update();
  scanner().release_thread_scan_handler(released);
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
