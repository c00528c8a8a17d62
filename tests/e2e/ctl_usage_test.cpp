// pelowatchctl's command line: help for everything, and one line for what it does not understand.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kCommands[] = {"status", "jobs", "mounts", "metrics", "scan",
                                     "update", "stop", "check",  "selftest"};

class CtlUsage : public CtlTest {
 protected:
  void expect_usage_error(const Words& arguments, const std::string& command, const char* word) {
    const std::string line = testing::PrintToString(arguments);
    const Outcome outcome = ctl(arguments);
    EXPECT_EQ(outcome.exit, kUsage) << line;
    EXPECT_EQ(outcome.out.substr(0, 100), "") << line;
    EXPECT_EQ(count_of(outcome.err, "\n"), 1U) << line << outcome.err;
    EXPECT_THAT(outcome.err, StartsWith("pelowatchctl: ")) << line;
    EXPECT_THAT(outcome.err, HasSubstr(word)) << line;
    const std::string space = command.empty() ? "" : " ";
    EXPECT_THAT(outcome.err, EndsWith("try \"pelowatchctl " + command + space + "--help\"\n"))
        << line;
    expect_harmless(outcome.err);
  }
};

TEST_F(CtlUsage, HelpForAllAndForEveryCommand) {
  EXPECT_EQ(printed({"--version"}), "pelowatchctl 3.0\n");
  for (const char* option : {"--help", "-h"}) {
    const std::string help = printed({option});
    for (const char* command : kCommands) {
      EXPECT_THAT(help, HasSubstr(std::string("\n  ") + command + " "));
    }
    EXPECT_THAT(help, HasSubstr("Exit status: "));
  }
  std::map<std::string, Words> options = {{"status", {"--json", "--watch", "--interval"}},
                                          {"jobs", {"--json"}},
                                          {"mounts", {"--json"}},
                                          {"metrics", {"--output"}},
                                          {"stop", {"--timeout"}},
                                          {"selftest", {"--folder", "--timeout"}}};
  for (const char* command : kCommands) {
    const std::string help = printed({command, "--help"});
    EXPECT_THAT(help, HasSubstr("\nUsage: pelowatchctl " + std::string(command) + " [OPTIONS]\n"));
    EXPECT_THAT(help, Not(HasSubstr("\x1b")));
    for (const std::string& option : options[command]) {
      EXPECT_THAT(help, HasSubstr(option)) << command;
    }
  }
}

TEST_F(CtlUsage, WhatIsNotUnderstood) {
  expect_usage_error({}, "", ": A subcommand is required;");
  expect_usage_error({"unknown"}, "", "unknown");
  expect_usage_error({"statu"}, "", "statu");
  expect_usage_error({""}, "", "no command or option \"\"");
  expect_usage_error({"--unknown"}, "", "--unknown");
  expect_usage_error({"-x"}, "", "-x");
  expect_usage_error({"ev\x1b[31mil\n\xff"}, "", "ev\\x1b[31mil");
  expect_usage_error({"status", "--unknown"}, "status", "--unknown");
  expect_usage_error({"jobs", "more"}, "jobs", "more");
  expect_usage_error({"stop", "now\x1b[31m\n\n"}, "stop", "now\\x1b[31m");
  expect_usage_error({"scan", "--json"}, "scan", "--json");
}

TEST_F(CtlUsage, ValuesThatAreMissingOrWrong) {
  expect_usage_error({"metrics", "--output"}, "metrics", "--output");
  expect_usage_error({"selftest", "--folder"}, "selftest", "--folder");
  expect_usage_error({"stop", "--timeout"}, "stop", "--timeout");
  expect_usage_error({"status", "--interval", "1"}, "status", "--watch");
  for (const char* number :
       {"much", "", "0", "-1", "1e9", "nan", "inf", "0x", "0x1p3", "1s", "1 2"}) {
    expect_usage_error({"stop", "--timeout", number}, "stop", "--timeout");
    expect_usage_error({"selftest", "--timeout", number}, "selftest", "--timeout");
    expect_usage_error({"status", "--watch", "--interval", number}, "status", "--interval");
  }
}

TEST_F(CtlUsage, RefusedLinesDoNothing) {
  start();
  expect_usage_error({"stop", "--timeout", "much"}, "stop", "--timeout");
  expect_usage_error({"stop", "jobs", "--unknown"}, "stop", "not expected: --unknown jobs");
  EXPECT_TRUE(daemon().running());
  (void)printed({"stop", "--help"});
  EXPECT_TRUE(daemon().running());
  EXPECT_EQ(errors(), "") << "it was asked to end";
}

}  // namespace
}  // namespace e2e
