// The adapter's definition updates, and what may run beside them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <regex>
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

TEST_F(DefinitionUpdate, FailsIfTheEngineRejectsItAndTheHandleIsReleased) {
  directory_.put("antivir.def", "");
  script("fail vseInit\n");
  EXPECT_FALSE(update());
  EXPECT_THAT(new_calls(), ElementsAre("vseInit reserved=0 flags=2 database=\"/db\" callback=set "
                                       "context=null result=-1"));
  script("fail vseExec:14\nfail vseRelease\n");
  EXPECT_FALSE(scanner().apply_update(directory_.path() + "/")) << "whose slash is not removed";
  EXPECT_THAT(new_calls(), ElementsAre(engine_init(2),
                                       "vseExec handle=1 operation=14 first=" +
                                           in_quotes("/antivir.def") + " second=null result=-1",
                                       "vseRelease handle=1 result=-1"));
  script("fail vseRelease\n");
  EXPECT_TRUE(update()) << "that a release fails does not matter";
  EXPECT_THAT(logged(), IsEmpty());
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
