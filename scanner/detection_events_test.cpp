// What a detection leaves in the log and the system log, and what it pushes through an event
// library that writes it down.
#include "detection_events.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <thread>
#include <utility>

#include "recorded_syslog.h"
#include "scripted_engine_fixture.h"
#include "unix_loader.h"

namespace {

constexpr char library_name[] = "libquillbox.so.0";
const char* library = PELO_EVENT_LIBRARY;  // what the name stands for

}  // namespace

// It stands before the C library's in this program.
void* dlopen(const char* file, int mode) noexcept {
  static const auto real = reinterpret_cast<decltype(&dlopen)>(dlsym(RTLD_NEXT, "dlopen"));
  return real(file != nullptr && std::string(file) == library_name ? library : file, mode);
}

namespace {

using std::string;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// By the engine's code; the constants follow "vseDetectionType".
const char* const words[] = {
    "None",       "Virus",          "Adware",          "Application",    "Backdoor", "Bomb",
    "Boot_Virus", "DDoS",           "Dialer",          "Downloader",     "Exploit",  "Garbage",
    "Joke",       "Macro",          "MassMailer",      "MisDisinfected", "NetWorm",  "P2PWorm",
    "Proxy",      "PWStealer",      "Remote_Template", "Security_Risk",  "Spyware",  "Tool",
    "Trojan",     "Hidden_Process", "Injected_Code",   "Packer"};
const char* const constants[] = {"None",     "Virus",         "Adware",       "Application",
                                 "Backdoor", "Bomb",          "BootVirus",    "Denial",
                                 "Dialer",   "Downloader",    "Exploit",      "Garbage",
                                 "Joke",     "Macro",         "MassMailer",   "MisDisinfection",
                                 "NetWorm",  "P2PWorm",       "Proxy",        "PasswordStealer",
                                 "Remote",   "Risk",          "Spyware",      "Tool",
                                 "Trojan",   "HiddenProcess", "InjectedCode", "Packer"};

struct Fields {
  string path = "/named";
  string archive = "";
  string name = "N";
  string type = "Virus";
  string accuracy = "Exact";
  string result = "Found";
};

class DetectionEvents : public EngineTest {
 protected:
  DetectionEvents() {
    setenv("PELO_TEST_EVENT_RECORD", directory_.path("pushed").c_str(), 1);
    log_up_to(1);
    config().IgnoreAdwareDetections = false;
    config().IgnoreApplicationDetections = false;
  }

  /// Scans a file in which there is this, with a handle of its own.
  int detect(const string& what, const string& name = "/named") {
    return find(handle(), "!detect name=N " + what + "\n", name);
  }

  static string record(const Fields& fields, const string& session = "4097") {
    return "infection detected in: Session ID: " + session + "\nPath: \"" + fields.path +
           "\"\nArchive name: \"" + fields.archive + "\"\nDetection name: \"" + fields.name +
           "\"\nDetection type: \"" + fields.type + "\"\nDetection accuracy: \"" + fields.accuracy +
           "\"\nScan result: \"" + fields.result + "\"\n";
  }
  /// The calls of event_push without their threads, the texts with their \xNN undone.
  std::vector<string> pushed() const {
    std::vector<string> calls;
    std::istringstream record(directory_.read("pushed"));
    for (string line; std::getline(record, line);) {
      const std::size_t thread = line.find(" thread=");
      line.erase(thread, line.find(' ', thread + 1) - thread);
      for (std::size_t at = 0; (at = line.find("\\x", at)) != string::npos; ++at) {
        line.replace(at, 4, 1, static_cast<char>(std::stoi(line.substr(at + 2, 2), nullptr, 16)));
      }
      calls.push_back(line);
    }
    return calls;
  }
  static string push(const string& text) {
    return "event_push source=\"scanner\" destination=\"quillboxd\" length=" +
           std::to_string(text.size()) + " xml=\"" + text + "\" first=0 second=0";
  }
  static string xml(const string& object, const string& name, const string& type) {
    return "<xs:add-s resource-type=\"AntiVirus\"><AntiVirus object-name=\"" + object +
           "\" detection-name=\"" + name + "\" detection-type=\"" + type + "\"/></xs:add-s>";
  }
  static string virus(const string& object) { return xml(object, "N", "vseDetectionTypeVirus"); }

  void expect_notice(const string& text) {
    EXPECT_THAT(syslog_calls(),
                ElementsAre("openlog pelowatchd 0 " + std::to_string(LOG_USER),
                            "syslog " + std::to_string(LOG_NOTICE) + " " + text, "closelog"));
    EXPECT_THAT(pushed(), IsEmpty());
    EXPECT_THAT(logged(), ElementsAre(record({})));
  }
};

// The words

TEST_F(DetectionEvents, EveryTypeHasItsWordInTheLogAndItsConstantInTheEvent) {
  string directives;
  std::vector<string> events;
  for (std::size_t code = 0; code < 28; ++code) {
    directives += "!detect name=N type=" + std::to_string(code) + "\n";
    events.push_back(push(xml("/named", "N", string("vseDetectionType") + constants[code])));
  }
  find(handle(), directives);
  EXPECT_EQ(pushed(), events);
  ASSERT_THAT(logged(), SizeIs(28));
  for (std::size_t code = 0; code < 28; ++code) {
    Fields fields;
    fields.type = words[code];
    EXPECT_EQ(logged()[code], record(fields));
  }
  for (const unsigned none : {28U, 29U, 1000U, 0xffffffffU}) {
    string word = "before";
    get_string_detection_type(none, word);
    EXPECT_EQ(word, "before") << none;
  }
}

TEST_F(DetectionEvents, EveryAccuracyAndScanResultHasItsWord) {
  const char* const accuracies[] = {"None", "Exact", "Heuristic", "Modified", "Possibly"};
  const char* const results[] = {
      "Nothing found",         "Not scanned",   "Damaged",        "Encrypted", "Unsupported type",
      "Maximum archive depth", "Found",         "Disinfected",    "Deleted",   "Unknown result",
      "Disinfection failed",   "Delete failed", "Unknown result", "Error"};
  const auto expect_words = [](void (*get)(unsigned, string&), const auto& all,
                               const char* unknown) {
    for (const unsigned code :
         {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U, 11U, 12U, 13U, 14U, 0xffffffffU}) {
      string word = "before";
      get(code, word);
      EXPECT_EQ(word, code < std::size(all) ? all[code] : unknown) << code;
    }
  };
  expect_words(&get_string_detection_accuracy, accuracies, "Unknown");
  expect_words(&get_string_scan_result, results, "Unknown result");
}

TEST(XmlEscapes, ReplaceFiveCharactersAndLeaveEveryOtherByte) {
  const std::pair<char, string> escapes[] = {
      {'"', "&quot;"}, {'\'', "&apos;"}, {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}};
  for (int byte = 1; byte < 256; ++byte) {
    const auto c = static_cast<char>(byte);
    const auto* escape = std::find_if(std::begin(escapes), std::end(escapes),
                                      [c](const auto& each) { return each.first == c; });
    const string text = escape == std::end(escapes) ? string(1, c) : escape->second;
    EXPECT_EQ(escape_for_xml(string("a") + c + c), "a" + text + text) << byte;
    EXPECT_EQ(escape_for_xml_len(string(1, c).c_str()), text.size() + 1) << byte;
  }
  EXPECT_EQ(escape_for_xml("&amp;"), "&amp;amp;");
}

// In the log

TEST_F(DetectionEvents, EveryDetectionOfAScanIsLoggedInFullWithWhatWasReadInItsOrder) {
  void* scanning = handle();
  new_calls();
  find(scanning,
       "!detect name=One type=27 accuracy=2 result=6 archive=in.exe\n"
       "!detect name=N type=1 accuracy=1 result=8\n");
  Fields second;
  second.result = "Deleted";
  EXPECT_THAT(logged(),
              ElementsAre(record({"/named", "in.exe", "One", "Packer", "Heuristic", "Found"}),
                          record(second)));
  std::vector<string> reads;
  for (const string& call : new_calls()) {
    if (call.starts_with("vseGet")) {
      reads.push_back(call);
    }
  }
  // The type is read a second time for the event, where it has another name.
  const std::pair<int, int> details[] = {{21, 10240}, {20, 10240}, {15, 4}, {17, 10240},
                                         {16, 4},     {5, 4},      {15, 4}};
  ASSERT_THAT(reads, SizeIs(14));
  for (std::size_t i = 0; i < 7; ++i) {
    EXPECT_EQ(reads[i], "vseGet handle=1 property=" + std::to_string(details[i].first) +
                            " index=0 size=" + std::to_string(details[i].second) +
                            " reserved=0 result=0");
  }
}

TEST_F(DetectionEvents, OtherEventsAreIgnoredAndEventDataIsNotRead) {
  void* scanning = handle();
  new_calls();
  for (const unsigned event : {0U, 15U, 17U, 0xffffffffU}) {
    EXPECT_EQ(myEvents(scanning, event, nullptr), 0) << event;
  }
  EXPECT_THAT(new_calls(), IsEmpty());
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_EQ(myEvents(scanning, 16, reinterpret_cast<void*>(1)), 0);
}

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
    find(scanning, "!detect name=N archive=in.exe\n");
    const string session = std::to_string(session_id(scanning));
    Fields fields;
    fields.archive = "in.exe";
    fields.*read.field = "";
    const string error = error_record(session, read.error,
                                      string("vseEvIdDetect but failed to get ") + read.message);
    EXPECT_EQ(count_record(logged(), error), read.times);
    EXPECT_EQ(count_record(logged(), record(fields, session)), 1);
    EXPECT_THAT(logged(), SizeIs(read.times + 1));
    EXPECT_EQ(logged().front(), error) << "before the record";
  }
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

// In the event

TEST_F(DetectionEvents, IsPushedAtAnyLogLevelOnTheScanningThread) {
  log_up_to(0);
  detect("");
  EXPECT_THAT(pushed(), ElementsAre(push(virus("/named"))));
  EXPECT_THAT(directory_.read("pushed"),
              testing::HasSubstr("thread=" + std::to_string(gettid()) + " "));
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_THAT(syslog_calls(), IsEmpty());
}

struct Push {
  const char* script;
  const char* what;
  const char* path;
  string text;
};

TEST_F(DetectionEvents, TextsAreReadEscapedAndPutTogetherInTheEvent) {
  const char type[] = "vseDetectionTypeVirus";
  for (const Push& each :
       {Push{"value 15 28\n", "", "/named", xml("/named", "N", "")},
        {"value 15 -1\n", "", "/named", xml("/named", "N", "")},
        {"fail vseGet:15\n", "", "/named", xml("/named", "N", "")},
        {"fail vseGet\n", "", "/named", xml("", "", "")},
        {"", "archive=/in/side.exe", "/a.zip", virus("/a.zip/in/side.exe")},
        {"", "", "/a&b/<c>/\"d'", virus("/a&amp;b/&lt;c&gt;/&quot;d&apos;")},
        {"", "name=A<B archive=&c", "/named", xml("/named&amp;c", "A&lt;B", type)},
        {"", "", "/a\nb\x01\xff", virus("/a\nb\x01\xff")},
        {"", "name=%n%s", "/%s%n", xml("/%s%n", "%n%s", type)}}) {
    script(each.script);
    detect(each.what, each.path);
    EXPECT_EQ(pushed().back(), push(each.text));
  }
  EXPECT_THAT(pushed(), SizeIs(9));
}

TEST_F(DetectionEvents, TextOfTheEventIsCutAt1023Bytes) {
  const string fits(1023 - virus("").size(), 'x');
  detect("", fits);
  detect("", fits + "/longer");
  detect("", string(5000, '&'));
  EXPECT_THAT(pushed(),
              ElementsAre(push(virus(fits)), push(virus(fits + "/longer").substr(0, 1023)),
                          push(virus(escape_for_xml(string(300, '&'))).substr(0, 1023))));
}

TEST_F(DetectionEvents, LibraryThatThrowsChangesNoVerdictAndEndsNothing) {
  setenv("PELO_TEST_EVENT_THROW", "1", 1);
  EXPECT_EQ(detect(""), 1);
  EXPECT_THAT(pushed(), SizeIs(1));
  EXPECT_THAT(logged(), SizeIs(1));
}

TEST_F(DetectionEvents, OfManyThreadsAreAllPushedAndTheLibraryIsUnloaded) {
  const string file = directory_.put("file", "!detect name=N\n");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&file] {
      void* own = handle();
      for (int i = 0; i < 25; ++i) {
        EXPECT_EQ(scanner().scan_file(own, file.c_str(), 2, ConfParser::REPORT, 0), 1);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(pushed(), SizeIs(100));
  EXPECT_THAT(pushed(), Each(push(virus(file))));
  EXPECT_THAT(logged(), SizeIs(100));
  EXPECT_EQ(dlopen(library_name, RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

TEST_F(DetectionEvents, MissingEventLibraryIsNoticedInTheSystemLogAndTheVerdictStands) {
  library = "no-such-library.so.0";
  EXPECT_EQ(detect(""), 1);
  expect_notice("Unable to load library: libquillbox");
}

TEST_F(DetectionEvents, LibraryWithoutTheFunctionIsNoticedInTheSystemLogAndUnloaded) {
  library = PELO_USELESS_EVENT_LIBRARY;
  EXPECT_EQ(detect(""), 1);
  expect_notice("Unable to find function: event_push");
  EXPECT_EQ(dlopen(library_name, RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

// The loader

/// Whether anybody in this process holds the library.
bool loaded() {
  void* handle = dlopen(library_name, RTLD_LAZY | RTLD_NOLOAD);
  return handle != nullptr && dlclose(handle) == 0;
}

TEST(UnixLoader, LoadsFindsAndUnloadsAgainAndAgainAndNothingTwice) {
  using Function = void (*)();
  {
    CUnixLoader loader;
    for (int round = 0; round < 2; ++round) {
      ASSERT_TRUE(loader.loadLibrary(library_name));
      EXPECT_TRUE(loaded());
      EXPECT_NE(loader.getProcAddress<Function>("event_push"), nullptr);
      EXPECT_EQ(loader.getProcAddress<Function>("no_such_function"), nullptr);
      EXPECT_EQ(loader.unloadLibrary(), 0);
      EXPECT_FALSE(loaded());
    }
    ASSERT_TRUE(loader.loadLibrary(library_name));
    {
      CUnixLoader other;
      ASSERT_TRUE(other.loadLibrary(library_name));
      ASSERT_EQ(other.unloadLibrary(), 0);
    }
    EXPECT_TRUE(loaded()) << "nothing is unloaded twice";
  }
  EXPECT_FALSE(loaded()) << "it unloads when it dies";
  CUnixLoader failed;
  EXPECT_FALSE(failed.loadLibrary("libno-such-library.so.0"));
}

}  // namespace
