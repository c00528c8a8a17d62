// pelowatchctl selftest with the engine that the daemon finds by itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class CtlSelftestClamAv : public CtlTest {
 protected:
  void prepare() override {
    CtlTest::prepare();
    set("DatabaseDirectory", PELO_LIBRARIES "/../share/definitions");
    World::make_folder(watched("in"));
    set("IncludeDirectory", watched("in"));
  }

  void start_as_installed() {
    start({.environment = {{"LD_LIBRARY_PATH", PELO_LIBRARIES "/event"}}});
  }

  /// All four things hold.
  void expect_protection(const Words& arguments, const std::string& folder) {
    Words words = {"selftest"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::string text = printed(words);
    expect_harmless(text);
    const Words lines = lines_of(text);
    ASSERT_EQ(lines.size(), 5U) << text;
    EXPECT_THAT(lines[0], AllOf(StartsWith("  ok      " + folder + "/.pelowatchctl-selftest-"),
                                HasSubstr(" was refused: Operation not permitted")));
    EXPECT_EQ(lines[1], "  ok      the detection is logged in " + work("log/pelowatchd.log"));
    EXPECT_THAT(lines[2], StartsWith("  ok      denied events went from "));
    EXPECT_EQ(lines[3], "  ok      the test file is removed");
    EXPECT_EQ(lines[4], "pelowatchd protects this folder");
    EXPECT_THAT(names_in(watched("in")), IsEmpty());
  }
};

TEST_F(CtlSelftestClamAv, ProtectsAgainAndAgain) {
  const std::string odd = watched("in/a \"b\" \x1b[31m\xff");
  World::make_folder(watched("out"));
  start_as_installed();
  expect_protection({}, watched("in"));
  expect_protection({}, watched("in"));
  std::filesystem::create_directory_symlink(watched("in"), watched("link"));
  expect_protection({"--folder", watched("link")}, watched("in"));
  EXPECT_TRUE(eventually([] { return StatusArea::map()->denied() >= 3; }));
  World::make_folder(odd);
  EXPECT_EQ(ctl({"selftest", "--folder", odd}).exit, exit_ok) << out();
  expect_harmless(out());
  EXPECT_THAT(out(), HasSubstr(watched("in/a \"b\" \\x1b[31m\\xff/.pelowatchctl-")));
  EXPECT_THAT(names_in(odd), IsEmpty());
  // A folder that is not watched is not protected.
  EXPECT_EQ(ctl({"selftest", "--folder", watched("out")}).exit, exit_failed);
  EXPECT_THAT(out(), AllOf(HasSubstr(" could be opened: it was NOT refused\n"),
                           HasSubstr("  ok      the test file is removed\n"),
                           HasSubstr("pelowatchd does NOT protect this folder\n")));
  EXPECT_THAT(names_in(watched("out")), IsEmpty());
}

TEST_F(CtlSelftestClamAv, ProtectsWhereTheDaemonRemovesTheFileItselfAndLogsLater) {
  set("DefaultAction", "DELETE");
  set("AsyncLogging", "yes");
  start_as_installed();
  expect_protection({}, watched("in"));
}

TEST_F(CtlSelftestClamAv, TerminationWhileTheLogIsReadEndsItAtOnce) {
  set("Loglevel", "0");  // so that the record is waited for in vain
  start_as_installed();
  Process process = start_tool({.arguments = {"selftest"}});
  ASSERT_TRUE(eventually([&] { return StatusArea::map()->denied() > 0; }));
  process.signal(SIGTERM);
  EXPECT_EQ(process.wait(Duration(9500)), (Exit{0, SIGTERM})) << "it waits for ten seconds";
  EXPECT_EQ(out(), "");
  EXPECT_THAT(names_in(watched("in")), IsEmpty());
}

TEST_F(CtlSelftestClamAv, WithoutPrivilegeTheLogCannotBeSeen) {
  World::make_folder(watched("in/open"));
  std::filesystem::permissions(watched("in/open"), std::filesystem::perms::all);
  start_as_installed();
  const Outcome outcome =
      run_tool({.arguments = {"selftest", "--folder", watched("in/open")}, .as_nobody = true});
  EXPECT_EQ(outcome.exit, exit_failed);
  EXPECT_THAT(outcome.out, HasSubstr(" was refused: Operation not permitted\n"));
  EXPECT_THAT(outcome.out, HasSubstr("  FAILED  the log file cannot be seen: ask as root\n"));
  EXPECT_THAT(outcome.out,
              HasSubstr("pelowatchd protects this folder, but something above FAILED\n"));
  EXPECT_THAT(names_in(watched("in/open")), IsEmpty());
}

}  // namespace
}  // namespace e2e
