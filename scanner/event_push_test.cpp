// What a detection pushes through the event library, with a library that writes it down.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "detection_events.h"
#include "engine_test.h"
#include "recorded_syslog.h"

namespace {

using std::string;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class EventPush : public EngineTest {
 protected:
  EventPush() {
    setenv("PELO_TEST_EVENT_RECORD", directory_.path("pushed").c_str(), 1);
    config().Loglevel = 1;
  }

  /// Scans a file with these directives; the reports name it `name`.
  void find(const string& directives, const string& name = "/named") {
    const string file = directory_.put("file", directives);
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    scanner().scan_file(handle(), fd, name.c_str(), 2, ConfParser::REPORT, 0);
    close(fd);
  }

  /// The calls of event_push without their threads, the texts with their \xNN undone.
  std::vector<string> pushed() const {
    std::vector<string> calls;
    std::istringstream record(directory_.read("pushed"));
    for (string line; std::getline(record, line);) {
      const std::size_t thread = line.find(" thread=");
      line.erase(thread, line.find(' ', thread + 1) - thread);
      calls.push_back(unescaped(line));
    }
    return calls;
  }

  static string unescaped(const string& line) {
    string text;
    for (std::size_t at = 0; at < line.size(); ++at) {
      if (line.compare(at, 2, "\\x") == 0) {
        text += static_cast<char>(std::stoi(line.substr(at + 2, 2), nullptr, 16));
        at += 3;
      } else {
        text += line[at];
      }
    }
    return text;
  }

  static string xml(const string& object, const string& name, const string& type) {
    return "<xs:add-s resource-type=\"AntiVirus\"><AntiVirus object-name=\"" + object +
           "\" detection-name=\"" + name + "\" detection-type=\"" + type + "\"/></xs:add-s>";
  }

  static string push(const string& text) {
    return "event_push source=\"scanner\" destination=\"quillboxd\" length=" +
           std::to_string(text.size()) + " xml=\"" + text + "\" first=0 second=0";
  }
};

const char* const type_constants[] = {
    "vseDetectionTypeNone",         "vseDetectionTypeVirus",
    "vseDetectionTypeAdware",       "vseDetectionTypeApplication",
    "vseDetectionTypeBackdoor",     "vseDetectionTypeBomb",
    "vseDetectionTypeBootVirus",    "vseDetectionTypeDenial",
    "vseDetectionTypeDialer",       "vseDetectionTypeDownloader",
    "vseDetectionTypeExploit",      "vseDetectionTypeGarbage",
    "vseDetectionTypeJoke",         "vseDetectionTypeMacro",
    "vseDetectionTypeMassMailer",   "vseDetectionTypeMisDisinfection",
    "vseDetectionTypeNetWorm",      "vseDetectionTypeP2PWorm",
    "vseDetectionTypeProxy",        "vseDetectionTypePasswordStealer",
    "vseDetectionTypeRemote",       "vseDetectionTypeRisk",
    "vseDetectionTypeSpyware",      "vseDetectionTypeTool",
    "vseDetectionTypeTrojan",       "vseDetectionTypeHiddenProcess",
    "vseDetectionTypeInjectedCode", "vseDetectionTypePacker"};

TEST_F(EventPush, DetectionIsPushedFromTheScannerToTheManagementDaemon) {
  find("!detect name=Test.Name type=27\n");
  EXPECT_THAT(pushed(), ElementsAre(push(xml("/named", "Test.Name", "vseDetectionTypePacker"))));
}

TEST_F(EventPush, DetectionIsPushedAtAnyLogLevel) {
  config().Loglevel = 0;
  find("!detect name=Test.Name type=27\n");
  EXPECT_THAT(pushed(), SizeIs(1));
}

TEST_F(EventPush, EveryTypeHasItsConstant) {
  ASSERT_EQ(std::size(type_constants), 28U);
  config().IgnoreAdwareDetections = false;
  config().IgnoreApplicationDetections = false;
  string directives;
  std::vector<string> expected;
  for (int code = 0; code < 28; ++code) {
    directives += "!detect name=N type=" + std::to_string(code) + "\n";
    expected.push_back(push(xml("/named", "N", type_constants[code])));
  }
  find(directives);
  EXPECT_EQ(pushed(), expected);
}

TEST_F(EventPush, TypeOutOfRangeIsPushedEmpty) {
  for (const char* code : {"28", "-1"}) {
    script(string("value 15 ") + code + "\n");
    find("!detect name=N\n");
    EXPECT_EQ(pushed().back(), push(xml("/named", "N", ""))) << code;
  }
}

TEST_F(EventPush, TypeThatCannotBeReadIsPushedEmpty) {
  script("fail vseGet:15\n");
  find("!detect name=N\n");
  EXPECT_THAT(pushed(), ElementsAre(push(xml("/named", "N", ""))));
}

TEST_F(EventPush, DetectionWhoseReadsAllFailIsPushedWithEmptyTexts) {
  script("fail vseGet\n");
  find("!detect name=N\n");
  EXPECT_THAT(pushed(), ElementsAre(push(xml("", "", ""))));
}

TEST_F(EventPush, ArchiveNameFollowsThePathDirectly) {
  find("!detect name=N archive=/in/side.exe\n", "/a.zip");
  EXPECT_THAT(pushed(), ElementsAre(push(xml("/a.zip/in/side.exe", "N", "vseDetectionTypeVirus"))));
}

TEST_F(EventPush, PathIsEscaped) {
  find("!detect name=N\n", "/a&b/<c>/\"d'");
  EXPECT_THAT(
      pushed(),
      ElementsAre(push(xml("/a&amp;b/&lt;c&gt;/&quot;d&apos;", "N", "vseDetectionTypeVirus"))));
}

TEST_F(EventPush, ArchiveAndDetectionNameAreEscaped) {
  find("!detect name=A<B archive=&c\n");
  EXPECT_THAT(pushed(), ElementsAre(push(xml("/named&amp;c", "A&lt;B", "vseDetectionTypeVirus"))));
}

TEST_F(EventPush, NewlinesAndHighBytesStayInTheAttribute) {
  find("!detect name=N\n", "/a\nb\x01\xff");
  EXPECT_THAT(pushed(), ElementsAre(push(xml("/a\nb\x01\xff", "N", "vseDetectionTypeVirus"))));
}

TEST_F(EventPush, PercentSignsInNamesAreNoFormat) {
  find("!detect name=%n%s\n", "/%s%n");
  EXPECT_THAT(pushed(), ElementsAre(push(xml("/%s%n", "%n%s", "vseDetectionTypeVirus"))));
}

TEST_F(EventPush, TextOf1023BytesIsPushedWhole) {
  const string around = xml("", "N", "vseDetectionTypeVirus");
  const string path(1023 - around.size(), 'x');
  find("!detect name=N\n", path);
  EXPECT_THAT(pushed(), ElementsAre(push(xml(path, "N", "vseDetectionTypeVirus"))));
}

TEST_F(EventPush, LongerTextIsCutAt1023Bytes) {
  const string path(5000, '&');
  string escaped_path;
  for (std::size_t i = 0; i < path.size(); ++i) {
    escaped_path += "&amp;";
  }
  find("!detect name=N\n", path);
  EXPECT_THAT(pushed(),
              ElementsAre(push(xml(escaped_path, "N", "vseDetectionTypeVirus").substr(0, 1023))));
}

TEST_F(EventPush, LibraryIsUnloadedAfterEveryDetection) {
  find("!detect name=N\n!detect name=N\n");
  EXPECT_THAT(pushed(), SizeIs(2));
  EXPECT_EQ(dlopen("libquillbox.so.0", RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

TEST_F(EventPush, NothingGoesToTheSystemLog) {
  find("!detect name=N\n");
  EXPECT_THAT(pushed(), SizeIs(1));
  EXPECT_THAT(syslog_calls(), IsEmpty());
}

TEST_F(EventPush, RunsOnTheScanningThread) {
  find("!detect name=N\n");
  EXPECT_THAT(directory_.read("pushed"), HasSubstr("thread=" + std::to_string(gettid()) + " "));
}

TEST_F(EventPush, DetectionsOfManyThreadsAreAllPushed) {
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
  EXPECT_THAT(pushed(), Each(push(xml(file, "N", "vseDetectionTypeVirus"))));
  EXPECT_THAT(logged(), SizeIs(100));
}

TEST_F(EventPush, LibraryWithoutTheFunctionIsNoticedInTheSystemLog) {
  // Loaded already, it is what the name means from now on.
  void* useless = dlopen(PELO_USELESS_EVENT_LIBRARY, RTLD_LAZY);
  ASSERT_NE(useless, nullptr) << dlerror();
  find("!detect name=N\n");
  EXPECT_THAT(syslog_calls(), ElementsAre("openlog pelowatchd 0 " + std::to_string(LOG_USER),
                                          "syslog " + std::to_string(LOG_NOTICE) +
                                              " Unable to find function: event_push",
                                          "closelog"));
  EXPECT_THAT(pushed(), IsEmpty());
  EXPECT_THAT(logged(), ElementsAre(HasSubstr("infection detected in: ")));
  dlclose(useless);
  EXPECT_EQ(dlopen("libquillbox.so.0", RTLD_LAZY | RTLD_NOLOAD), nullptr) << "still loaded";
}

}  // namespace
