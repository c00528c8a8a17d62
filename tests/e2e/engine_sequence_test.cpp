// Every call that the engine gets, from first to last: none is left out and none is added.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <iterator>
#include <sstream>

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
  int threads;
  std::string script;
  std::vector<Step> steps;
};

constexpr auto kOpen = Step::What::open;
constexpr auto kUpdate = Step::What::update;
constexpr auto kPass = Step::What::pass;

const Case kCases[] = {
    {"StartAlone", 2, "", {}},
    {"ScanOfAFileAndNoneOfACachedOne", 1, "", {{kOpen, "a", scan(1, "a")}, {kOpen, "a", {}}}},
    // A worker that sleeps renews after the next event that it takes.
    {"Update",
     1,
     "",
     {{kOpen, "a", scan(1, "a")},
      {kUpdate, "", update(2)},
      {kOpen, "a", scan(1, "a") + release(1) + make(3)},
      {kOpen, "b", scan(3, "b")}}},
    {"UpdateOfTwoWorkers", 2, "", {{kUpdate, "", update(3)}}},
    {"TwoUpdatesInARowAreRenewedOnce",
     1,
     "",
     {{kUpdate, "", update(2)},
      {kUpdate, "", update(3)},
      {kOpen, "a", scan(1, "a") + release(1) + make(4)},
      {kOpen, "b", scan(4, "b")}}},
    {"UpdateThatFailed",
     1,
     "fail vseExec:14\n",
     {{kUpdate, "", update(2, " failed")}, {kOpen, "a", scan(1, "a")}, {kOpen, "b", scan(1, "b")}}},
    {"FolderScan",
     1,
     "",
     {{kOpen, "a", scan(1, "a")}, {kPass, "", make(2) + scan(2, "inner", 5) + release(2)}}},
};

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
    const std::string handle = " " + field(line, "handle");
    const std::string result = field(line, "result") == "-1" ? " failed" : "";
    if (call.ends_with("-begin")) {
      return "";
    }
    if (call == "vseSet") {
      return "set" + handle + " " + field(line, "property") + " " + field(line, "value") + result;
    }
    if (call == "vseExec") {
      const std::string objects = field(line, "operation") == "14"
                                      ? field(line, "first") + " " + field(line, "second")
                                      : field(line, "path");
      return "exec" + handle + " " + field(line, "operation") + " " + objects + result;
    }
    if (call == "vseInit" || call == "vseRelease") {
      return (call == "vseInit" ? "init" : "release") + handle + result;
    }
    return call + result;
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
      case kOpen:
        EXPECT_EQ(open_status(watched(step.file)), 0);
        break;
      case kUpdate:
        daemon().signal(SIGHUP);
        EXPECT_TRUE(eventually([&] { return updates() > before; }));
        break;
      case kPass:
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

INSTANTIATE_TEST_SUITE_P(Table, EngineSequence, testing::ValuesIn(kCases),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace e2e
