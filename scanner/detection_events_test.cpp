// What a detection leaves in the log, on a machine without the event library. What it pushes:
// event_push_test.cpp.
#include "detection_events.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "recorded_syslog.h"
#include "scripted_engine_fixture.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;

// The words

const char* const type_words[] = {
    "None",       "Virus",          "Adware",          "Application",    "Backdoor", "Bomb",
    "Boot_Virus", "DDoS",           "Dialer",          "Downloader",     "Exploit",  "Garbage",
    "Joke",       "Macro",          "MassMailer",      "MisDisinfected", "NetWorm",  "P2PWorm",
    "Proxy",      "PWStealer",      "Remote_Template", "Security_Risk",  "Spyware",  "Tool",
    "Trojan",     "Hidden_Process", "Injected_Code",   "Packer"};

using Words = std::vector<std::pair<unsigned, const char*>>;

void expect_words(void (*get)(unsigned, string&), const Words& words) {
  for (const auto& [code, expected] : words) {
    string word = "before";
    get(code, word);
    EXPECT_EQ(word, expected) << code;
  }
}

TEST(DetectionWords, OfEveryType) {
  ASSERT_EQ(std::size(type_words), 28U);
  Words words{{28, "before"}, {29, "before"}, {1000, "before"}, {0xffffffffU, "before"}};
  for (unsigned code = 0; code < 28; ++code) {
    words.emplace_back(code, type_words[code]);
  }
  expect_words(&get_string_detection_type, words);
}

TEST(DetectionWords, OfEveryAccuracyAndScanResult) {
  expect_words(&get_string_detection_accuracy, {{0, "None"},
                                                {1, "Exact"},
                                                {2, "Heuristic"},
                                                {3, "Modified"},
                                                {4, "Possibly"},
                                                {5, "Unknown"},
                                                {6, "Unknown"},
                                                {0xffffffffU, "Unknown"}});
  expect_words(&get_string_scan_result, {{0, "Nothing found"},
                                         {1, "Not scanned"},
                                         {2, "Damaged"},
                                         {3, "Encrypted"},
                                         {4, "Unsupported type"},
                                         {5, "Maximum archive depth"},
                                         {6, "Found"},
                                         {7, "Disinfected"},
                                         {8, "Deleted"},
                                         {9, "Unknown result"},
                                         {10, "Disinfection failed"},
                                         {11, "Delete failed"},
                                         {12, "Unknown result"},
                                         {13, "Error"},
                                         {14, "Unknown result"},
                                         {0xffffffffU, "Unknown result"}});
}

// The escapes

TEST(XmlEscapes, ReplaceFiveCharactersAndLeaveEveryOtherByte) {
  const std::pair<char, string> escapes[] = {
      {'"', "&quot;"}, {'\'', "&apos;"}, {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}};
  string all;
  string expected;
  for (int byte = 1; byte < 256; ++byte) {
    const auto c = static_cast<char>(byte);
    const auto* escape = std::find_if(std::begin(escapes), std::end(escapes),
                                      [c](const auto& each) { return each.first == c; });
    const string text = escape == std::end(escapes) ? string(1, c) : escape->second;
    EXPECT_EQ(escape_for_xml_len(string(1, c).c_str()), text.size() + 1) << byte;
    all += c;
    expected += text;
  }
  EXPECT_EQ(escape_for_xml(all), expected);
  EXPECT_EQ(escape_for_xml_len(all.c_str()), expected.size() + 1);
  EXPECT_EQ(escape_for_xml(""), "");
  EXPECT_EQ(escape_for_xml("&amp;"), "&amp;amp;");
}

// Detections

struct Fields {
  string path = "/named";
  string archive = "in.exe";
  string name = "Test.Name";
  string type = "Packer";
  string accuracy = "Heuristic";
  string result = "Found";
};

class DetectionEvents : public EngineTest {
 protected:
  DetectionEvents() {
    EXPECT_EQ(dlopen("libquillbox.so.0", RTLD_LAZY), nullptr) << "this machine has the library";
    log_up_to(1);
  }

  /// Scans a file with these directives, with a handle of its own.
  int find(const string& directives) { return EngineTest::find(handle(), directives); }

  static string record(const Fields& fields, const string& session = "4097") {
    return "infection detected in: Session ID: " + session + "\nPath: \"" + fields.path +
           "\"\nArchive name: \"" + fields.archive + "\"\nDetection name: \"" + fields.name +
           "\"\nDetection type: \"" + fields.type + "\"\nDetection accuracy: \"" + fields.accuracy +
           "\"\nScan result: \"" + fields.result + "\"\n";
  }

  const string detection_ = "!detect name=Test.Name type=27 accuracy=2 result=6 archive=in.exe\n";
};

TEST_F(DetectionEvents, EveryDetectionOfAScanIsLoggedInFull) {
  find(detection_ + "!detect name=Other type=1 accuracy=1 result=8\n");
  Fields other;
  other.name = "Other";
  other.type = "Virus";
  other.accuracy = "Exact";
  other.result = "Deleted";
  other.archive = "";
  EXPECT_THAT(logged(), ElementsAre(record({}), record(other)));
}

TEST_F(DetectionEvents, DetailsAreReadInTheirOrderWithTheirSizes) {
  handle();
  find(detection_);
  std::vector<string> reads;
  for (const string& call : calls()) {
    if (call.starts_with("vseGet")) {
      reads.push_back(call);
    }
  }
  const auto read = [](int property, int size) {
    return "vseGet handle=2 property=" + std::to_string(property) +
           " index=0 size=" + std::to_string(size) + " reserved=0 result=0";
  };
  // The type is read a second time for the event, where it has another name.
  EXPECT_THAT(reads, ElementsAre(read(21, 10240), read(20, 10240), read(15, 4), read(17, 10240),
                                 read(16, 4), read(5, 4), read(15, 4)));
}

TEST_F(DetectionEvents, TypeOutOfRangeLeavesTheWordEmpty) {
  script("value 15 28\n");
  find(detection_);
  Fields fields;
  fields.type = "";
  EXPECT_THAT(logged(), ElementsAre(record(fields)));
}

TEST_F(DetectionEvents, ResultsWithoutAWordAreUnknown) {
  for (const char* code : {"9", "12"}) {
    script(string("value 5 ") + code + "\n");
    find(detection_);
    Fields fields;
    fields.result = "Unknown result";
    EXPECT_EQ(logged().back().substr(logged().back().find("\nPath")),
              record(fields).substr(record(fields).find("\nPath")));
  }
}

TEST_F(DetectionEvents, DetectionIsNotLoggedAtLevelZero) {
  log_up_to(0);
  find(detection_);
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(DetectionEvents, OtherEventsAreIgnored) {
  void* scanning = handle();
  new_calls();
  for (const unsigned event : {0U, 15U, 17U, 0xffffffffU}) {
    EXPECT_EQ(myEvents(scanning, event, nullptr), 0) << event;
  }
  EXPECT_THAT(new_calls(), IsEmpty());
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_THAT(syslog_calls(), IsEmpty());
}

TEST_F(DetectionEvents, EventDataIsNotRead) {
  EXPECT_EQ(myEvents(handle(), 16, reinterpret_cast<void*>(1)), 0);
}

// Reads that fail

struct FailedRead {
  int property;
  int error;
  const char* message;
  int times;  ///< the type is read for the log and for the event
  string Fields::*field;
};

TEST_F(DetectionEvents, FailedReadIsAnErrorRecordAndLeavesItsFieldEmpty) {
  for (const FailedRead& read : {FailedRead{21, 3, "file info.", 1, &Fields::path},
                                 {15, 4, "detection type", 2, &Fields::type},
                                 {17, 5, "detection name", 1, &Fields::name},
                                 {16, 6, "detection accuracy", 1, &Fields::accuracy},
                                 {20, 7, "file archive info.", 1, &Fields::archive},
                                 {5, 8, "scan result info.", 1, &Fields::result}}) {
    script("fail vseGet:" + std::to_string(read.property) + "\n");
    directory_.put("pelowatchd.log", "");
    void* scanning = handle();
    EngineTest::find(scanning, detection_);
    const string session = std::to_string(session_id(scanning));
    Fields fields;
    fields.*read.field = "";
    const string error = error_record(session, read.error,
                                      string("vseEvIdDetect but failed to get ") + read.message);
    EXPECT_EQ(count_record(logged(), error), read.times);
    EXPECT_EQ(count_record(logged(), record(fields, session)), 1);
    EXPECT_EQ(logged().size(), static_cast<std::size_t>(read.times) + 1);
  }
}

TEST_F(DetectionEvents, ErrorsComeInTheOrderOfTheReadsAndBeforeTheRecord) {
  script("fail vseGet\n");
  find(detection_);
  const auto error = [](int number, const char* what) {
    return error_record("4097", number, string("vseEvIdDetect but failed to get ") + what);
  };
  EXPECT_THAT(logged(), ElementsAre(error(3, "file info."), error(7, "file archive info."),
                                    error(4, "detection type"), error(5, "detection name"),
                                    error(6, "detection accuracy"), error(8, "scan result info."),
                                    record({"", "", "", "", "", ""}), error(4, "detection type")));
}

TEST_F(DetectionEvents, FailedReadLeavesTheOutputAsItWas) {
  void* scanning = handle();  // outside of a detection there is nothing to read
  string out = "before";
  get_object_name(scanning, out);
  get_archive_name(scanning, out);
  get_detection_props(scanning, out, out, out);
  get_detection_type(scanning, out);
  get_scan_result(scanning, out);
  EXPECT_EQ(out, "before");
}

// Without the event library

TEST_F(DetectionEvents, MissingEventLibraryIsNoticedInTheSystemLogAndTheVerdictStands) {
  EXPECT_EQ(find(detection_), 1);
  EXPECT_THAT(syslog_calls(), ElementsAre("openlog pelowatchd 0 " + std::to_string(LOG_USER),
                                          "syslog " + std::to_string(LOG_NOTICE) +
                                              " Unable to load library: libquillbox",
                                          "closelog"));
}

}  // namespace
