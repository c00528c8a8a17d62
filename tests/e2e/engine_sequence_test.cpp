// Every call that the engine gets, from first to last: none is left out and none is added.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

#include "isolation.h"
#include "schedule_fixture.h"

namespace e2e {
namespace {

using Calls = std::vector<std::string>;

Calls operator+(Calls left, const Calls& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

std::string call(const std::string& name, int handle, const std::string& rest = "result=0") {
  return name + " handle=" + std::to_string(handle) + " " + rest;
}

std::string set_call(int handle, const std::string& property, const std::string& value) {
  return call("vseSet", handle,
              "property=" + property + " value=" + value + " reserved=0 result=0");
}

std::string init(const std::string& result, const std::string& flags = "2") {
  return "vseInit reserved=0 flags=" + flags + " database=\"work/db\" callback=set context=null " +
         result;
}

std::string init(int handle, const std::string& flags = "2") {
  return init("handle=" + std::to_string(handle) + " value=" + std::to_string(0x1000 + handle) +
                  " result=0",
              flags);
}

Calls make(int handle, const std::string& flags = "2", const std::string& mask = "12") {
  return {init(handle, flags), set_call(handle, "40 index=0 size=8", mask),
          set_call(handle, "9 index=0 size=4", "242")};
}

/// What is set before every scan.
struct Limits {
  std::string action = "0";
  std::string depth = "2";
  std::string size = "0";
};

Calls scan(int handle, const std::string& path, const Limits& limits = {},
           const std::string& result = "0") {
  return {set_call(handle, "4 index=0 size=4", limits.action),
          set_call(handle, "30 index=0 size=4", limits.depth),
          set_call(handle, "7 index=6 size=4", limits.size),
          call("vseExec", handle, "operation=9 path=\"watched/" + path + "\" result=" + result)};
}

Calls update(int handle, const std::string& result = "0") {
  return {init(handle),
          call("vseExec", handle,
               "operation=14 first=\"work/staging/antivir.def\" "
               "second=\"work/staging/aivsecon.def\" result=" +
                   result),
          call("vseRelease", handle)};
}

Calls release(int handle) {
  return {call("vseRelease", handle)};
}

/// The engine's record without the beginnings of calls, what is read of a detection, and what is
/// another one in each run.
Calls calls_in(const std::string& record) {
  Calls all;
  for (std::string line : lines_of(record)) {
    if (line.find("-begin ") != std::string::npos || line.starts_with("vseGet ")) {
      continue;
    }
    for (const std::string& number : {std::string(" thread="), std::string(" fd=")}) {
      if (const size_t at = line.find(number); at != std::string::npos) {
        line.erase(at, line.find(' ', at + 1) - at);
      }
    }
    const std::string folder = base_folder() + "/";
    for (size_t at = 0; (at = line.find(folder)) != std::string::npos;) {
      line.erase(at, folder.size());
    }
    all.push_back(line);
  }
  return all;
}

/// What is done to a daemon, step by step, and what the engine is called for. After each step the
/// calls up to there are all there are.
struct Step {
  std::string what;  // "update", "pass", or the watched file that is opened; "bad" is infected
  Calls calls = {};
};

struct Case {
  std::string name;
  std::vector<Step> steps;
  std::string script = "";
  int threads = 1;
  std::vector<std::pair<std::string, std::string>> settings = {};
  std::vector<std::string> options = {};  // behind the configuration file's
  std::string key = "null";               // and what settings and options give for the engine
  std::string flags = "2";
  std::string mask = "12";
};

const Limits set_limits = {"2", "7", "99"};

// A worker that sleeps renews its handle after the next event that it takes.
const Case sequence_cases[] = {
    {"ScanOfAFileAndNoneOfACachedOne", {{"a", scan(1, "a")}, {"a"}}},
    {"Update",
     {{"a", scan(1, "a")},
      {"update", update(2)},
      {"a", scan(1, "a") + release(1) + make(3)},
      {"b", scan(3, "b")}}},
    {"UpdateOfTwoWorkers", {{"update", update(3)}}, "", 2},
    {"TwoUpdatesInARowAreRenewedOnce",
     {{"update", update(2)},
      {"update", update(3)},
      {"a", scan(1, "a") + release(1) + make(4)},
      {"b", scan(4, "b")}}},
    {"UpdateThatFailed",
     {{"a", scan(1, "a")}, {"update", update(2, "-1")}, {"a"}, {"b", scan(1, "b")}},
     "fail vseExec:14\n"},
    // Without a handle files are allowed, until the next update.
    {"RenewalThatFailed",
     {{"update", update(2)},
      {"a", scan(1, "a") + release(1) + Calls{init("result=-1")}},
      {"b"},
      {"update", update(3)},
      {"a", make(4)},
      {"b", scan(4, "b")}},
     "fail vseInit 3\n"},
    {"FolderScan",
     {{"a", scan(1, "a")},
      {"pass", make(2) + scan(2, "folder/inner", {.depth = "5"}) + release(2)}}},
    {.name = "Settings",
     .steps = {{"a", scan(1, "a", set_limits)}, {"bad", scan(1, "bad", set_limits, "1")}},
     .settings = {{"DefaultAction", "DELETE"},
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
     .options = {"-k", "of the line"},
     .key = "\"of the line\"",
     .flags = "18",
     .mask = "13635628"}};

// labels: alone essential
class EngineSequence : public ScheduleTest, public testing::WithParamInterface<Case> {
 protected:
  Calls calls() const { return calls_in(engine_record()); }

  void expect_calls(const Calls& expected) {
    EXPECT_TRUE(eventually([&] { return calls().size() >= expected.size(); }));
    // What is done for the last step, and would be done too much, is done before an event of its
    // own is answered: one that is never scanned.
    EXPECT_EQ(open_status(work("probe")), 0);
    EXPECT_THAT(calls(), testing::ElementsAreArray(expected));
  }

  void take(const std::string& what) {
    if (what == "pass") {
      run_jobs({due_job(watched("folder"))});
    } else if (what == "update") {
      const auto updates = [&] {
        return count_of(log(), "service_thread av database updated.\n") +
               count_of(log(), "service_thread error updating av database\n");
      };
      const size_t before = updates();
      daemon().signal(SIGHUP);
      EXPECT_TRUE(eventually([&] { return updates() > before; }));
    } else {
      EXPECT_EQ(open_status(watched(what)), what == "bad" ? EPERM : 0);
    }
  }
};

TEST_P(EngineSequence, IsThatOfTheTableAndNoMore) {
  const Case& row = GetParam();
  (void)put_clean("a");
  (void)put_clean("b");
  (void)put_infected("bad");
  World::make_folder(watched("folder"));
  (void)put_clean("folder/inner");
  stage_definitions();
  script(row.script);
  set_threads(row.threads);
  set("Loglevel", "3");
  for (const auto& [key, value] : row.settings) {
    set(key, value);
  }
  Launch how{.arguments = {"-n", "-c", work("pelowatchd.conf")}};
  how.arguments.insert(how.arguments.end(), row.options.begin(), row.options.end());
  start_at_noon(how);
  Calls expected = {"vseGlobalInit key=" + row.key + " result=0"};
  for (int worker = 1; worker <= row.threads; ++worker) {
    expected = expected + make(worker, row.flags, row.mask);
  }
  expect_calls(expected);
  for (const Step& step : row.steps) {
    take(step.what);
    expected = expected + step.calls;
    expect_calls(expected);
  }
  stop();
  EXPECT_THAT(calls(), testing::ElementsAreArray(expected + Calls{"vseGlobalRelease result=0"}));
}

INSTANTIATE_TEST_SUITE_P(Table, EngineSequence, testing::ValuesIn(sequence_cases),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace e2e
