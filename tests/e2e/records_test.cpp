// What detections become: log records and events. Each word and failed read has its unit test.
#include <gtest/gtest.h>

#include <cerrno>

#include "fixture.h"

namespace e2e {
namespace {

class Records : public E2eTest {
 protected:
  void prepare() override { set_threads(1); }  // whose handle is the first one

  static std::string detection(const std::string& path, const std::string& name,
                               const std::string& words, const std::string& archive = "") {
    return "\ninfection detected in: Session ID: -2147483647\nPath: \"" + path +
           "\"\nArchive name: \"" + archive + "\"\nDetection name: \"" + name + "\"\n" + words;
  }

  static std::string error(const std::string& number, const std::string& description,
                           const std::string& session) {
    return "\nError occurred in: Session ID: " + session +
           "\nPath: \"\"\nArchive name: \"\"\nError number: 0x" + number +
           "\nError Description: \"" + description + "\"\n";
  }

  /// The event record's line from the source on; quotes are written there as \x22.
  static std::string event(const std::string& object, const std::string& name) {
    const std::string xml =
        "<xs:add-s resource-type=\\x22AntiVirus\\x22><AntiVirus object-name=\\x22" + object +
        "\\x22 detection-name=\\x22" + name +
        "\\x22 detection-type=\\x22vseDetectionTypeTrojan\\x22/></xs:add-s>";
    return " source=\"scanner\" destination=\"quillboxd\" length=" +
           std::to_string(xml.size() - 3 * count_of(xml, "\\x22")) + " xml=\"" + xml +
           "\" first=0 second=0";
  }
};

// labels: essential
TEST_F(Records, SessionAndDetailsAreLoggedAsTheyAreAndPushedWithMarkupEscaped) {
  const std::string file =
      put("a&b<c>d'e\"f", "!detect name=x&<>'y type=24 accuracy=2 result=8 archive=in&ner\n");
  script("handle-base 0xffffffff80000000\n");  // a session is the handle with its sign
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_EQ(count_of(log(), "\nFile scan: Session ID: -2147483647\nPath: \"" + file + "\"\n"), 1U);
  EXPECT_EQ(count_of(log(), detection(file, "x&<>'y",
                                      "Detection type: \"Trojan\"\nDetection accuracy: "
                                      "\"Heuristic\"\nScan result: \"Deleted\"\n",
                                      "in&ner")),
            1U)
      << log();
  ASSERT_EQ(events().size(), 1U);
  EXPECT_NE(events()[0].find(event(watched("a&amp;b&lt;c&gt;d&apos;e&quot;fin&amp;ner"),
                                   "x&amp;&lt;&gt;&apos;y")),
            std::string::npos)
      << events()[0];
}

TEST_F(Records, EngineThatCannotStartIsReportedAndEverythingAllowed) {
  const std::string file = put_infected("bad");
  script("fail vseGlobalInit\n");
  const std::string record = error("00000001", "Unable to initialize scan engine", "-1");
  size_t starts = 0;
  for (const char* asynchronous : {"no", "yes", "yes", "yes"}) {
    set("AsyncLogging", asynchronous);
    start();
    EXPECT_EQ(open_status(file), 0);
    stop();
    EXPECT_EQ(count_of(log(), record), ++starts) << log();
  }
  for (const char* call : {"vseInit", "vseExec", "vseGlobalRelease"}) {
    EXPECT_TRUE(engine_calls(call).empty()) << call;
  }
}

TEST_F(Records, SettingsThatTheEngineRefusesAreReportedAndTheFileScanned) {
  const std::string file = put_infected("bad");
  script("fail vseSet:40\nfail vseSet:4\nfail vseSet:30\nfail vseSet:7\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(logged(error("00000009", "failed to set ignore flags while avsdk init", "4097")))
      << log();
  EXPECT_TRUE(logged(error("00000009", "Unable to set property scan action in AVSDK engine", "-1")))
      << log();
  EXPECT_EQ(count_of(log(), "Error occurred in: "), 2U) << "refused limits are not reported";
}

}  // namespace
}  // namespace e2e
