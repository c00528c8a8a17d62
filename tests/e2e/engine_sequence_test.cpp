// Every call that the engine gets, from first to last: none is left out and none is added.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include "schedule_fixture.h"

namespace e2e {
namespace {

using Calls = std::vector<std::string>;

/// The calls of one handle's making and of one scan, in short: "init 1 2" is handle 1 with flags 2,
/// "set 1 40 12" its property 40, "exec 1 9 name" a scan of a file of that name.
Calls make(int handle) {
  const std::string number = std::to_string(handle);
  return {"init " + number, "set " + number + " 40 12", "set " + number + " 9 242"};
}

Calls scan(int handle, const std::string& name, int depth = 2) {
  const std::string number = std::to_string(handle);
  return {"set " + number + " 4 0", "set " + number + " 30 " + std::to_string(depth),
          "set " + number + " 7 0", "exec " + number + " 9 " + name};
}

Calls update(int handle, const std::string& result = "") {
  const std::string number = std::to_string(handle);
  return {"init " + number, "exec " + number + " 14 antivir.def aivsecon.def" + result,
          "release " + number};
}

Calls release(int handle) {
  return {"release " + std::to_string(handle)};
}

Calls operator+(Calls left, const Calls& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// What is done to a daemon, step by step, and what the engine is called for. After each step the
/// calls up to there are all there are.
struct Step {
  enum class What { open, update, pass } what;
  std::string file;  // open
  Calls calls;
};

struct Case {
  std::string name;
  std::vector<Step> steps;
  std::string script = "";
  int threads = 1;
};

Step open_of(const std::string& file, const Calls& calls = {}) {
  return {Step::What::open, file, calls};
}
Step update_of(const Calls& calls) {
  return {Step::What::update, "", calls};
}
Step pass_of(const Calls& calls) {
  return {Step::What::pass, "", calls};
}

// A worker that sleeps renews its handle after the next event that it takes.
const Case sequence_cases[] = {
    {"ScanOfAFileAndNoneOfACachedOne", {open_of("a", scan(1, "a")), open_of("a")}},
    {"Update",
     {open_of("a", scan(1, "a")), update_of(update(2)),
      open_of("a", scan(1, "a") + release(1) + make(3)), open_of("b", scan(3, "b"))}},
    {"UpdateOfTwoWorkers", {update_of(update(3))}, "", 2},
    {"TwoUpdatesInARowAreRenewedOnce",
     {update_of(update(2)), update_of(update(3)), open_of("a", scan(1, "a") + release(1) + make(4)),
      open_of("b", scan(4, "b"))}},
    {"UpdateThatFailed",
     {open_of("a", scan(1, "a")), update_of(update(2, " failed")), open_of("a"),
      open_of("b", scan(1, "b"))},
     "fail vseExec:14\n"},
    // Without a handle files are allowed, until the next update.
    {"RenewalThatFailed",
     {update_of(update(2)), open_of("a", scan(1, "a") + release(1) + Calls{"init failed"}),
      open_of("b"), update_of(update(3)), open_of("a", make(4)), open_of("b", scan(4, "b"))},
     "fail vseInit 3\n"},
    {"FolderScan",
     {open_of("a", scan(1, "a")), pass_of(make(2) + scan(2, "inner", 5) + release(2))}}};

// labels: essential
class EngineSequence : public ScheduleTest, public testing::WithParamInterface<Case> {
 protected:
  /// The value of a field of a record's line, without quotes and folders.
  static std::string field(const std::string& line, const std::string& name) {
    const std::string key = " " + name + "=";
    const size_t at = line.find(key);
    if (at == std::string::npos) {
      return "";
    }
    const size_t begin = at + key.size();
    std::string value = line.substr(begin, line.find(' ', begin) - begin);
    std::erase(value, '"');
    return value.substr(value.rfind('/') + 1);
  }

  /// A line of the engine's record in short; empty for the beginning of a call.
  static std::string in_short(const std::string& line) {
    const std::string call = line.substr(0, line.find(' '));
    if (call.ends_with("-begin")) {
      return "";
    }
    std::string text = call;
    for (const auto& [name, short_name] : {std::pair{"vseInit", "init"},
                                           {"vseRelease", "release"},
                                           {"vseSet", "set"},
                                           {"vseExec", "exec"}}) {
      text = call == name ? short_name : text;
    }
    for (const char* name :
         {"handle", "property", "value", "operation", "path", "first", "second"}) {
      const std::string value = field(line, name);
      const bool told = !value.empty() && !(call == "vseInit" && name == std::string("value"));
      text += told ? " " + value : "";
    }
    return text + (field(line, "result") == "-1" ? " failed" : "");
  }

  Calls calls() const {
    Calls all;
    for (const std::string& line : lines_of(engine_record())) {
      if (const std::string call = in_short(line); !call.empty()) {
        all.push_back(call);
      }
    }
    return all;
  }

  void expect_calls(const Calls& expected) {
    EXPECT_TRUE(eventually([&] { return calls().size() >= expected.size(); }));
    // What is done for the last step, and would be done too much, is done before an event of its
    // own is answered: one that is never scanned.
    EXPECT_EQ(open_status(work("probe")), 0);
    EXPECT_THAT(calls(), testing::ElementsAreArray(expected));
  }

  void take(const Step& step) {
    const std::string updated = "service_thread av database updated.\n";
    const std::string refused = "service_thread error updating av database\n";
    const auto updates = [&] { return count_of(log(), updated) + count_of(log(), refused); };
    const size_t before = updates();
    switch (step.what) {
      case Step::What::open:
        EXPECT_EQ(open_status(watched(step.file)), 0);
        break;
      case Step::What::update:
        daemon().signal(SIGHUP);
        EXPECT_TRUE(eventually([&] { return updates() > before; }));
        break;
      case Step::What::pass:
        run_jobs({due_job(work("folder"))});
        break;
    }
  }
};

TEST_P(EngineSequence, IsThatOfTheTableAndNoMore) {
  const Case& row = GetParam();
  (void)put_clean("a");
  (void)put_clean("b");
  World::make_folder(work("folder"));
  world().put(work("folder/inner"), "clean\n");
  stage_definitions();
  script(row.script);
  set_threads(row.threads);
  set("Loglevel", "3");
  start_at_noon();
  Calls expected = {"vseGlobalInit"};
  for (int worker = 1; worker <= row.threads; ++worker) {
    expected = expected + make(worker);
  }
  expect_calls(expected);
  for (const Step& step : row.steps) {
    take(step);
    expected = expected + step.calls;
    expect_calls(expected);
  }
  stop();
  EXPECT_THAT(calls(), testing::ElementsAreArray(expected + Calls{"vseGlobalRelease"}));
}

INSTANTIATE_TEST_SUITE_P(Table, EngineSequence, testing::ValuesIn(sequence_cases),
                         [](const auto& test) { return test.param.name; });

/// What the settings give for the engine's arguments.
struct Arguments {
  std::string name;
  std::vector<std::pair<std::string, std::string>> settings;
  std::vector<std::string> options;  // behind the configuration file's
  std::string key, flags, mask, action, depth, limit;
};

const Arguments argument_cases[] = {{"Defaults", {}, {}, "null", "2", "12", "0", "2", "0"},
                                    {"Settings",
                                     {{"DefaultAction", "DELETE"},
                                      {"MaxArchiveDepth", "7"},
                                      {"ScheduledMaxArchiveDepth", "55"},
                                      {"DecompressLimit", "99"},
                                      {"DefinitionType", "V2S"},
                                      {"IgnoreArchiveBombDetections", "yes"},
                                      {"IgnoreJokeDetections", "yes"},
                                      {"IgnoreRemoteTemplateDetections", "yes"},
                                      {"IgnoreSpywareDetections", "yes"},
                                      {"IgnoreToolDetections", "yes"},
                                      {"CloudAccessKey", "of the file"},
                                      {"EnableCloudScanning", "yes"}},
                                     {"-k", "of the line"},
                                     "\"of the line\"",
                                     "18",
                                     "13635628",
                                     "2",
                                     "7",
                                     "99"}};

class EngineArguments : public E2eTest, public testing::WithParamInterface<Arguments> {};

TEST_P(EngineArguments, AreThoseOfTheSettings) {
  const Arguments& row = GetParam();
  const std::string clean = put_clean("file");
  const std::string bad = put_infected("bad");
  for (const auto& [key, value] : row.settings) {
    set(key, value);
  }
  set_threads(1);
  Launch how{.arguments = {"-n", "-c", work("pelowatchd.conf")}};
  how.arguments.insert(how.arguments.end(), row.options.begin(), row.options.end());
  start(how);
  EXPECT_EQ(open_status(clean), 0);
  EXPECT_EQ(open_status(bad), EPERM);
  stop();
  Calls all;
  for (std::string line : lines_of(engine_record())) {
    if (line.find("-begin ") != std::string::npos || line.starts_with("vseGet ")) {
      continue;
    }
    for (const char* number : {" thread=", " fd="}) {
      if (const size_t at = line.find(number); at != std::string::npos) {
        line.erase(at, line.find(' ', at + 1) - at);
      }
    }
    all.push_back(line);
  }
  const auto set = [](const std::string& property, const std::string& value) {
    return "vseSet handle=1 property=" + property + " value=" + value + " reserved=0 result=0";
  };
  // The properties are set before every scan.
  const Calls scan = {set("4 index=0 size=4", row.action), set("30 index=0 size=4", row.depth),
                      set("7 index=6 size=4", row.limit)};
  const std::string path = "vseExec handle=1 operation=9 path=\"";
  EXPECT_THAT(all, testing::ElementsAreArray(
                       Calls{"vseGlobalInit key=" + row.key + " result=0",
                             "vseInit reserved=0 flags=" + row.flags + " database=\"" + work("db") +
                                 "\" callback=set context=null handle=1 value=4097 result=0",
                             set("40 index=0 size=8", row.mask), set("9 index=0 size=4", "242")} +
                       scan + Calls{path + clean + "\" result=0"} + scan +
                       Calls{path + bad + "\" result=1", "vseGlobalRelease result=0"}));
}

INSTANTIATE_TEST_SUITE_P(Of, EngineArguments, testing::ValuesIn(argument_cases),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace e2e
