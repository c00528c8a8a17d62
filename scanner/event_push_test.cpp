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
#include "recorded_syslog.h"
#include "scripted_engine_fixture.h"

namespace {

using std::string;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

string prepared;  // what vsePrepare was called with

class EventPush : public EngineTest {
 protected:
  EventPush() {
    setenv("PELO_TEST_EVENT_RECORD", directory_.path("pushed").c_str(), 1);
    log_up_to(1);
  }

  /// Scans a file with these directives, with a handle of its own.
  int find(const string& directives, const string& name = "/named") {
    return EngineTest::find(handle(), directives, name);
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

TEST_F(EventPush, DetectionIsPushedAtAnyLogLevelOnTheScanningThread) {
  log_up_to(0);
  find("!detect name=Test.Name type=27\n");
  EXPECT_THAT(pushed(), ElementsAre(push(xml("/named", "Test.Name", "vseDetectionTypePacker"))));
  EXPECT_THAT(directory_.read("pushed"), HasSubstr("thread=" + std::to_string(gettid()) + " "));
  EXPECT_THAT(syslog_calls(), IsEmpty());
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

struct Push {
  const char* script;
  const char* directives;
  const char* path;
  const char* object;
  const char* name;
  const char* type;
};

TEST_F(EventPush, TextsAreReadEscapedAndPutTogether) {
  constexpr char virus[] = "vseDetectionTypeVirus";
  for (const Push& each :
       {Push{"value 15 28\n", "name=N", "/named", "/named", "N", ""},
        {"value 15 -1\n", "name=N", "/named", "/named", "N", ""},
        {"fail vseGet:15\n", "name=N", "/named", "/named", "N", ""},
        {"fail vseGet\n", "name=N", "/named", "", "", ""},
        {"", "name=N archive=/in/side.exe", "/a.zip", "/a.zip/in/side.exe", "N", virus},
        {"", "name=N", "/a&b/<c>/\"d'", "/a&amp;b/&lt;c&gt;/&quot;d&apos;", "N", virus},
        {"", "name=A<B archive=&c", "/named", "/named&amp;c", "A&lt;B", virus},
        {"", "name=N", "/a\nb\x01\xff", "/a\nb\x01\xff", "N", virus},
        {"", "name=%n%s", "/%s%n", "/%s%n", "%n%s", virus}}) {
    script(each.script);
    find(string("!detect ") + each.directives + "\n", each.path);
    EXPECT_EQ(pushed().back(), push(xml(each.object, each.name, each.type)));
  }
  EXPECT_THAT(pushed(), SizeIs(9));
}

TEST_F(EventPush, TextIsCutAt1023Bytes) {
  const string around = xml("", "N", "vseDetectionTypeVirus");
  const string fits(1023 - around.size(), 'x');
  find("!detect name=N\n", fits);
  find("!detect name=N\n", fits + "/longer");
  find("!detect name=N\n", string(5000, '&'));
  string escaped_path;
  while (escaped_path.size() < 1023) {
    escaped_path += "&amp;";
  }
  const auto cut = [](const string& path) {
    return push(xml(path, "N", "vseDetectionTypeVirus").substr(0, 1023));
  };
  EXPECT_THAT(pushed(), ElementsAre(push(xml(fits, "N", "vseDetectionTypeVirus")),
                                    cut(fits + "/longer"), cut(escaped_path)));
}

TEST_F(EventPush, LibraryThatThrowsChangesNoVerdictAndEndsNothing) {
  setenv("PELO_TEST_EVENT_THROW", "1", 1);
  EXPECT_EQ(find("!detect name=N\n"), 1);
  EXPECT_THAT(pushed(), SizeIs(1));
  EXPECT_THAT(logged(), SizeIs(1));
}

// This program offers vsePrepare, as an engine may.
TEST_F(EventPush, EngineThatPreparesDefinitionsIsAskedTo) {
  config().DefinitionType = ConfParser::V2;
  scanner().prepare_definitions();
  EXPECT_EQ(prepared, "14 /db");
  EXPECT_THAT(calls(), ElementsAre(global_init()));
}

TEST_F(EventPush, LibraryIsUnloadedAfterEveryDetection) {
  find("!detect name=N\n!detect name=N\n");
  EXPECT_THAT(pushed(), SizeIs(2));
  EXPECT_EQ(dlopen("libquillbox.so.0", RTLD_LAZY | RTLD_NOLOAD), nullptr);
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

int vsePrepare(unsigned int flags, const char* database_directory) {
  prepared += std::to_string(flags) + " " + database_directory;
  return VSE_OK;
}
