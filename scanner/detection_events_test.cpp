// What a detection leaves in the log, on a machine without the event library. What it pushes:
// event_push_test.cpp.
#include "detection_events.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <iterator>

#include "engine_test.h"
#include "recorded_syslog.h"

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

TEST(DetectionWords, OfEveryType) {
  ASSERT_EQ(std::size(type_words), 28U);
  for (unsigned code = 0; code < 28; ++code) {
    string word;
    get_string_detection_type(code, word);
    EXPECT_EQ(word, type_words[code]) << code;
  }
}

TEST(DetectionWords, OfATypeOutOfRangeLeaveTheOutput) {
  for (const unsigned code : {28U, 29U, 1000U, 0xffffffffU}) {
    string word = "before";
    get_string_detection_type(code, word);
    EXPECT_EQ(word, "before") << code;
  }
}

TEST(DetectionWords, OfEveryAccuracy) {
  const char* words[] = {"None",     "Exact",   "Heuristic", "Modified",
                         "Possibly", "Unknown", "Unknown"};
  for (unsigned code = 0; code < std::size(words); ++code) {
    string word;
    get_string_detection_accuracy(code, word);
    EXPECT_EQ(word, words[code]) << code;
  }
  string word;
  get_string_detection_accuracy(0xffffffffU, word);
  EXPECT_EQ(word, "Unknown");
}

TEST(DetectionWords, OfEveryScanResult) {
  const char* words[] = {
      "Nothing found",         "Not scanned",   "Damaged",        "Encrypted", "Unsupported type",
      "Maximum archive depth", "Found",         "Disinfected",    "Deleted",   "Unknown result",
      "Disinfection failed",   "Delete failed", "Unknown result", "Error",     "Unknown result",
      "Unknown result"};
  for (unsigned code = 0; code < std::size(words); ++code) {
    string word;
    get_string_scan_result(code, word);
    EXPECT_EQ(word, words[code]) << code;
  }
  string word;
  get_string_scan_result(0xffffffffU, word);
  EXPECT_EQ(word, "Unknown result");
}

// The escapes

string escaped(const string& text) {
  return escape_for_xml(text).get();
}

TEST(XmlEscapes, ReplaceTheFiveCharacters) {
  EXPECT_EQ(escaped("\"'&<>"), "&quot;&apos;&amp;&lt;&gt;");
}

TEST(XmlEscapes, LeaveEveryOtherByte) {
  string others;
  for (int byte = 1; byte < 256; ++byte) {
    const auto c = static_cast<char>(byte);
    if (string("\"'&<>").find(c) == string::npos) {
      others += c;
    }
  }
  EXPECT_EQ(escaped(others), others);
  EXPECT_EQ(escaped(""), "");
}

TEST(XmlEscapes, ReplaceWithinAText) {
  EXPECT_EQ(escaped("/a&b/<c>&amp;"), "/a&amp;b/&lt;c&gt;&amp;amp;");
}

TEST(XmlEscapes, LengthCountsTheEscapesAndTheTerminator) {
  EXPECT_EQ(escape_for_xml_len(""), 1U);
  EXPECT_EQ(escape_for_xml_len("\""), 7U);
  EXPECT_EQ(escape_for_xml_len("'"), 7U);
  EXPECT_EQ(escape_for_xml_len("&"), 6U);
  EXPECT_EQ(escape_for_xml_len("<"), 5U);
  EXPECT_EQ(escape_for_xml_len(">"), 5U);
  EXPECT_EQ(escape_for_xml_len("a\n\xff"), 4U);
  EXPECT_EQ(escape_for_xml_len("a<b>&"), 1U + 4 + 1 + 4 + 5 + 1);
}

// Detections

class DetectionEvents : public EngineTest {
 protected:
  DetectionEvents() {
    EXPECT_EQ(dlopen("libquillbox.so.0", RTLD_LAZY), nullptr) << "this machine has the library";
    config().Loglevel = 1;
  }

  /// Scans "/named" as a file with these directives.
  void find(const string& directives) {
    const string file = directory_.put("file", directives);
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    scanner().scan_file(handle(), fd, "/named", 2, ConfParser::REPORT, 0);
    close(fd);
  }

  struct Fields {
    string path = "/named";
    string archive = "in.exe";
    string name = "Test.Name";
    string type = "Packer";
    string accuracy = "Heuristic";
    string result = "Found";
  };

  static string record(const Fields& fields) {
    return "infection detected in: Session ID: 4097\nPath: \"" + fields.path +
           "\"\nArchive name: \"" + fields.archive + "\"\nDetection name: \"" + fields.name +
           "\"\nDetection type: \"" + fields.type + "\"\nDetection accuracy: \"" + fields.accuracy +
           "\"\nScan result: \"" + fields.result + "\"\n";
  }

  const string detection_ = "!detect name=Test.Name type=27 accuracy=2 result=6 archive=in.exe\n";
};

TEST_F(DetectionEvents, DetectionIsLoggedInFull) {
  find(detection_);
  EXPECT_THAT(logged(), ElementsAre(record({})));
}

TEST_F(DetectionEvents, DetectionOutsideAnArchiveHasAnEmptyArchiveName) {
  find("!detect name=Test.Name type=27 accuracy=2 result=6\n");
  Fields fields;
  fields.archive = "";
  EXPECT_THAT(logged(), ElementsAre(record(fields)));
}

TEST_F(DetectionEvents, EveryDetectionOfAScanIsLogged) {
  find(detection_ + "!detect name=Other type=1 accuracy=1 result=8 archive=b\n");
  Fields other;
  other.name = "Other";
  other.type = "Virus";
  other.accuracy = "Exact";
  other.result = "Deleted";
  other.archive = "b";
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
  config().Loglevel = 0;
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

class DetectionReads : public DetectionEvents {
 protected:
  /// Lets the read of one property fail and looks for what that leaves in the log.
  void expect_failure(int property, const string& error, int times, const Fields& fields) {
    script("fail vseGet:" + std::to_string(property) + "\n");
    find(detection_);
    EXPECT_EQ(count_record(logged(), error), times);
    EXPECT_EQ(count_record(logged(), record(fields)), 1);
    EXPECT_EQ(logged().size(), static_cast<std::size_t>(times) + 1);
  }
};

TEST_F(DetectionReads, FailedObjectNameIsErrorThreeAndLeavesItEmpty) {
  Fields fields;
  fields.path = "";
  expect_failure(21, error_record("4097", 3, "vseEvIdDetect but failed to get file info."), 1,
                 fields);
}

TEST_F(DetectionReads, FailedTypeIsErrorFourForTheLogAndForTheEvent) {
  Fields fields;
  fields.type = "";
  expect_failure(15, error_record("4097", 4, "vseEvIdDetect but failed to get detection type"), 2,
                 fields);
}

TEST_F(DetectionReads, FailedDetectionNameIsErrorFiveAndLeavesItEmpty) {
  Fields fields;
  fields.name = "";
  expect_failure(17, error_record("4097", 5, "vseEvIdDetect but failed to get detection name"), 1,
                 fields);
}

TEST_F(DetectionReads, FailedAccuracyIsErrorSixAndLeavesItEmpty) {
  Fields fields;
  fields.accuracy = "";
  expect_failure(16, error_record("4097", 6, "vseEvIdDetect but failed to get detection accuracy"),
                 1, fields);
}

TEST_F(DetectionReads, FailedArchiveNameIsErrorSevenAndLeavesItEmpty) {
  Fields fields;
  fields.archive = "";
  expect_failure(20, error_record("4097", 7, "vseEvIdDetect but failed to get file archive info."),
                 1, fields);
}

TEST_F(DetectionReads, FailedScanResultIsErrorEightAndLeavesItEmpty) {
  Fields fields;
  fields.result = "";
  expect_failure(5, error_record("4097", 8, "vseEvIdDetect but failed to get scan result info."), 1,
                 fields);
}

TEST_F(DetectionReads, ErrorsComeInTheOrderOfTheReadsAndBeforeTheRecord) {
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

TEST_F(DetectionReads, FailedReadLeavesTheOutputAsItWas) {
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

TEST_F(DetectionEvents, MissingEventLibraryIsNoticedInTheSystemLog) {
  find(detection_);
  EXPECT_THAT(syslog_calls(), ElementsAre("openlog pelowatchd 0 " + std::to_string(LOG_USER),
                                          "syslog " + std::to_string(LOG_NOTICE) +
                                              " Unable to load library: libquillbox",
                                          "closelog"));
}

TEST_F(DetectionEvents, MissingEventLibraryDoesNotChangeTheVerdict) {
  const string file = directory_.put("file", detection_);
  EXPECT_EQ(scanner().scan_file(handle(), file.c_str(), 2, ConfParser::REPORT, 0), 1);
}

}  // namespace
