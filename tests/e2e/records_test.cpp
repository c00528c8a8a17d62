// What detections become: log records and events, word for word.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "fixture.h"

namespace e2e {
namespace {

constexpr const char* kTypeWords[] = {
    "None",       "Virus",          "Adware",          "Application",    "Backdoor", "Bomb",
    "Boot_Virus", "DDoS",           "Dialer",          "Downloader",     "Exploit",  "Garbage",
    "Joke",       "Macro",          "MassMailer",      "MisDisinfected", "NetWorm",  "P2PWorm",
    "Proxy",      "PWStealer",      "Remote_Template", "Security_Risk",  "Spyware",  "Tool",
    "Trojan",     "Hidden_Process", "Injected_Code",   "Packer"};
constexpr const char* kTypeConstants[] = {
    "None",     "Virus",         "Adware",       "Application",
    "Backdoor", "Bomb",          "BootVirus",    "Denial",
    "Dialer",   "Downloader",    "Exploit",      "Garbage",
    "Joke",     "Macro",         "MassMailer",   "MisDisinfection",
    "NetWorm",  "P2PWorm",       "Proxy",        "PasswordStealer",
    "Remote",   "Risk",          "Spyware",      "Tool",
    "Trojan",   "HiddenProcess", "InjectedCode", "Packer"};
constexpr const char* kAccuracyWords[] = {"None",     "Exact",    "Heuristic",
                                          "Modified", "Possibly", "Unknown"};
constexpr const char* kResultWords[] = {
    "Nothing found",         "Not scanned",   "Damaged",        "Encrypted", "Unsupported type",
    "Maximum archive depth", "Found",         "Disinfected",    "Deleted",   "Unknown result",
    "Disinfection failed",   "Delete failed", "Unknown result", "Error",     "Unknown result"};

class Records : public E2eTest {
 protected:
  void SetUp() override {
    E2eTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
      return;
    }
    set_threads(1);  // whose handle is the first one, with the value 0x1001
  }

  static std::string detection(const std::string& path, const std::string& name,
                               const std::string& type, const std::string& accuracy,
                               const std::string& result, const std::string& archive = "") {
    return "infection detected in: Session ID: 4097\nPath: \"" + path + "\"\nArchive name: \"" +
           archive + "\"\nDetection name: \"" + name + "\"\nDetection type: \"" + type +
           "\"\nDetection accuracy: \"" + accuracy + "\"\nScan result: \"" + result + "\"\n";
  }

  static std::string error(const std::string& number, const std::string& description,
                           const std::string& session = "4097") {
    return "Error occurred in: Session ID: " + session +
           "\nPath: \"\"\nArchive name: \"\"\nError number: 0x" + number +
           "\nError Description: \"" + description + "\"\n";
  }

  static std::string event(const std::string& object, const std::string& name,
                           const std::string& type) {
    return "<xs:add-s resource-type=\\x22AntiVirus\\x22><AntiVirus object-name=\\x22" + object +
           "\\x22 detection-name=\\x22" + name + "\\x22 detection-type=\\x22" + type +
           "\\x22/></xs:add-s>";
  }

  /// The event record's line of this text.
  std::string pushed(const std::string& xml, size_t length) const {
    return " source=\"scanner\" destination=\"quillboxd\" length=" + std::to_string(length) +
           " xml=\"" + xml + "\" first=0 second=0";
  }
  static size_t length_of(const std::string& xml) {
    return xml.size() - 3 * count_of(xml, "\\x22");
  }
};

TEST_F(Records, DetectionIsLoggedAndPushed) {
  const std::string file =
      put("bad", "!detect name=Some.Virus type=24 accuracy=2 result=8 archive=inner.exe\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_EQ(count_of(log(), "\n" + detection(file, "Some.Virus", "Trojan", "Heuristic", "Deleted",
                                             "inner.exe")),
            1U)
      << log();
  const std::string xml = event(file + "inner.exe", "Some.Virus", "vseDetectionTypeTrojan");
  ASSERT_EQ(events().size(), 1U);
  EXPECT_NE(events()[0].find(pushed(xml, length_of(xml))), std::string::npos) << events()[0];
}

TEST_F(Records, EachCodeHasItsWord) {
  std::string content;
  for (size_t type = 0; type < std::size(kTypeWords); ++type) {
    content += "!detect name=T" + std::to_string(type) + " type=" + std::to_string(type) +
               " accuracy=" + std::to_string(type % 6) + " result=" + std::to_string(type % 15) +
               "\n";
  }
  const std::string file = put("bad", content);
  set("IgnoreAdwareDetections", "no");
  set("IgnoreApplicationDetections", "no");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  const std::string text = log();
  const auto pushes = events();
  ASSERT_EQ(pushes.size(), std::size(kTypeWords));
  for (size_t type = 0; type < std::size(kTypeWords); ++type) {
    const std::string name = "T" + std::to_string(type);
    const std::string record =
        detection(file, name, kTypeWords[type], kAccuracyWords[type % 6], kResultWords[type % 15]);
    EXPECT_EQ(count_of(text, record), 1U) << record;
    const std::string xml =
        event(file, name, std::string("vseDetectionType") + kTypeConstants[type]);
    EXPECT_NE(pushes[type].find(" xml=\"" + xml + "\""), std::string::npos) << pushes[type];
  }
}

TEST_F(Records, TypeCodesPastTheTableHaveNoWord) {
  const std::string file = put_infected("bad");
  for (const char* code : {"28", "29", "-1", "2147483647"}) {
    script(std::string("value 15 ") + code + "\nvalue 17 Code" + code + "\n");
    start();
    EXPECT_EQ(open_status(file), EPERM);
    EXPECT_TRUE(logged(detection(file, std::string("Code") + code, "", "Exact", "Found"))) << log();
    stop();
  }
  for (const std::string& line : events()) {
    EXPECT_NE(line.find("detection-type=\\x22\\x22/>"), std::string::npos) << line;
  }
}

TEST_F(Records, CodesOfZeroAreNone) {
  const std::string file = put("bad", "!detect type=0 accuracy=0 result=0 name=\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(logged(detection(file, "", "None", "None", "Nothing found"))) << log();
}

TEST_F(Records, MarkupIsEscapedInTheEventAndKeptInTheLog) {
  const std::string file = put("a&b<c>d'e\"f", "!detect name=x&<>'y archive=in&ner\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(logged(detection(file, "x&<>'y", "Virus", "Exact", "Found", "in&ner"))) << log();
  const std::string xml = event(watched("a&amp;b&lt;c&gt;d&apos;e&quot;fin&amp;ner"),
                                "x&amp;&lt;&gt;&apos;y", "vseDetectionTypeVirus");
  ASSERT_EQ(events().size(), 1U);
  EXPECT_NE(events()[0].find(pushed(xml, length_of(xml))), std::string::npos) << events()[0];
}

TEST_F(Records, EventIsCutAt1023Characters) {
  std::string folder(240, 'd');
  for (int depth = 0; depth < 4; ++depth) {
    World::make_folder(watched(folder));
    folder += "/" + std::string(240, 'd');
  }
  World::make_folder(watched(folder));
  const std::string file = put(folder + "/bad", "!detect\n");
  ASSERT_GT(file.size(), 1023U);
  start();
  EXPECT_EQ(open_status(file), EPERM);
  ASSERT_EQ(events().size(), 1U);
  const std::string whole = event(file, "Test.Scripted", "vseDetectionTypeVirus");
  const std::string cut = whole.substr(0, 1023 + 3 * count_of(whole.substr(0, 1023), "\\x22"));
  EXPECT_NE(events()[0].find(pushed(cut, 1023)), std::string::npos) << events()[0];
}

TEST_F(Records, LogRecordIsCutAt1023Characters) {
  std::string folder(240, 'd');
  for (int depth = 0; depth < 4; ++depth) {
    World::make_folder(watched(folder));
    folder += "/" + std::string(240, 'd');
  }
  World::make_folder(watched(folder));
  const std::string file = put(folder + "/bad", "!detect\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  const std::string whole = detection(file, "Test.Scripted", "Virus", "Exact", "Found");
  const std::string text = log();
  const size_t at = text.find("infection detected in: ");
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(text.substr(at, 1023), whole.substr(0, 1023));
  EXPECT_NE(text.substr(at, 1024), whole.substr(0, 1024));
}

TEST_F(Records, ScanIsRecordedFromLevelTwoOn) {
  const std::string file = put_clean("file");
  const std::string record = "File scan: Session ID: 4097\nPath: \"" + file + "\"\n";
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(count_of(log(), "\n" + record), 1U) << log();
  stop();
  set("Loglevel", "1");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_EQ(count_of(log(), record), 1U) << "one more at level 1";
}

TEST_F(Records, HeaderGivesTheTimeWithoutLeadingZeros) {
  const std::string file = put_clean("file");
  start();
  const time_t before = time(nullptr);
  EXPECT_EQ(open_status(file), 0);
  const std::string text = log();
  const size_t at = text.rfind("\nAt ", text.find("File scan: "));
  ASSERT_NE(at, std::string::npos);
  const std::string header = text.substr(at, text.find("File scan: ") - at);
  tm parts{};
  ASSERT_EQ(sscanf(header.c_str(), "\nAt %d:%d:%d %d/%d/%d\n", &parts.tm_hour, &parts.tm_min,
                   &parts.tm_sec, &parts.tm_mon, &parts.tm_mday, &parts.tm_year),
            6);
  char again[64];
  snprintf(again, sizeof(again), "\nAt %d:%d:%d %d/%d/%d\n", parts.tm_hour, parts.tm_min,
           parts.tm_sec, parts.tm_mon, parts.tm_mday, parts.tm_year);
  EXPECT_EQ(header, again);
  parts.tm_mon -= 1;
  parts.tm_year -= 1900;
  parts.tm_isdst = -1;
  EXPECT_NEAR(static_cast<double>(mktime(&parts)), static_cast<double>(before), 60);
}

TEST_F(Records, SessionIsTheHandlesValueWithItsSign) {
  const std::string file = put_infected("bad");
  script("handle-base 0xffffffff80000000\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(logged("infection detected in: Session ID: -2147483647\n")) << log();
  EXPECT_TRUE(logged("File scan: Session ID: -2147483647\n"));
}

struct FailedRead {
  const char* property;
  const char* number;
  const char* description;
};

TEST_F(Records, EachDetailThatCannotBeReadIsReportedAndLeftEmpty) {
  constexpr FailedRead kReads[] = {
      {"21", "00000003", "vseEvIdDetect but failed to get file info."},
      {"15", "00000004", "vseEvIdDetect but failed to get detection type"},
      {"17", "00000005", "vseEvIdDetect but failed to get detection name"},
      {"16", "00000006", "vseEvIdDetect but failed to get detection accuracy"},
      {"20", "00000007", "vseEvIdDetect but failed to get file archive info."},
      {"5", "00000008", "vseEvIdDetect but failed to get scan result info."}};
  const std::string file = put("bad", "!detect name=Name archive=in\n");
  for (const FailedRead& read : kReads) {
    const std::string property = read.property;
    script("fail vseGet:" + property + "\n");
    start();
    EXPECT_EQ(open_status(file), EPERM) << "the detection counts all the same";
    EXPECT_TRUE(logged("\n" + error(read.number, read.description))) << log();
    EXPECT_EQ(
        count_of(log(), detection(property == "21" ? "" : file, property == "17" ? "" : "Name",
                                  property == "15" ? "" : "Virus", property == "16" ? "" : "Exact",
                                  property == "5" ? "" : "Found", property == "20" ? "" : "in")),
        1U)
        << log();
    stop();
  }
  EXPECT_EQ(events().size(), std::size(kReads));
}

TEST_F(Records, MissingEventLibraryIsToldToTheSystemLogAndTheDetectionIsLogged) {
  world().replace_devices();
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof(address.sun_path), "/dev/log");
  ASSERT_EQ(bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  const std::string libraries = PELO_LIBRARIES;
  const std::pair<std::string, std::string> cases[] = {
      {libraries + "/scripted", "Unable to load library: libquillbox"},
      {libraries + "/scripted:" + libraries + "/event-without-push",
       "Unable to find function: event_push"}};
  const std::string file = put_infected("bad");
  for (const auto& [path, notice] : cases) {
    Launch launch;
    launch.environment["LD_LIBRARY_PATH"] = path;
    start(launch);
    EXPECT_EQ(open_status(file), EPERM);
    char message[1024] = "";
    ASSERT_TRUE(eventually([&] { return recv(socket, message, sizeof(message) - 1, 0) > 0; }));
    // LOG_USER and LOG_NOTICE make 13.
    EXPECT_EQ(std::string(message).compare(0, 4, "<13>"), 0) << message;
    EXPECT_NE(std::string(message).find(" pelowatchd: " + notice), std::string::npos) << message;
    EXPECT_TRUE(logged(detection(file, "Test.Infected", "Virus", "Exact", "Found")));
    stop();
  }
  close(socket);
  EXPECT_TRUE(events().empty());
  EXPECT_EQ(count_of(log(), "infection detected in: "), 2U);
}

TEST_F(Records, EngineThatCannotStartIsReportedAndEverythingAllowed) {
  const std::string file = put_infected("bad");
  script("fail vseGlobalInit\n");
  start();
  EXPECT_EQ(open_status(file), 0);
  EXPECT_TRUE(logged("\n" + error("00000001", "Unable to initialize scan engine", "-1"))) << log();
  EXPECT_TRUE(engine_calls("vseInit").empty());
  EXPECT_TRUE(engine_calls("vseExec").empty());
  stop();
  EXPECT_TRUE(engine_calls("vseGlobalRelease").empty());
}

TEST_F(Records, EngineThatCannotStartIsReportedWithAsynchronousLoggingToo) {
  script("fail vseGlobalInit\n");
  set("AsyncLogging", "yes");
  const std::string record = error("00000001", "Unable to initialize scan engine", "-1");
  for (size_t round = 1; round <= 5; ++round) {
    start();
    stop();
    EXPECT_EQ(count_of(log(), "\n" + record), round) << log();
  }
}

TEST_F(Records, RefusedIgnoreMaskIsReportedAndTheHandleUsed) {
  const std::string file = put_infected("bad");
  script("fail vseSet:40\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(logged("\n" + error("00000009", "failed to set ignore flags while avsdk init")))
      << log();
}

TEST_F(Records, RefusedScanActionIsReportedAndTheFileScanned) {
  const std::string file = put_infected("bad");
  script("fail vseSet:4\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_TRUE(
      logged("\n" + error("00000009", "Unable to set property scan action in AVSDK engine", "-1")))
      << log();
}

TEST_F(Records, RefusedLimitsAreNotReportedAndTheFileScanned) {
  const std::string file = put_infected("bad");
  script("fail vseSet:30\nfail vseSet:7\n");
  start();
  EXPECT_EQ(open_status(file), EPERM);
  EXPECT_FALSE(logged("Error occurred in: "));
}

}  // namespace
}  // namespace e2e
