// What any process can write into the status area does pelowatchctl no harm, nor its terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr size_t text_offsets[] = {StatusArea::jobs_offset, StatusArea::inclusions_offset,
                                   StatusArea::exclusions_offset, StatusArea::mounts_offset};

class CtlHostileArea : public CtlTest {
 protected:
  /// @return whether a look shows what was written, in the end: the daemon may have come between,
  ///         since it writes its mounts every few seconds and its jobs when it reads them
  template <typename Fill, typename Look>
  static bool undisturbed(Fill fill, Look look) {
    return eventually([&] {
      fill();
      return look();
    });
  }

  /// Every look at the area ends in time, with a status that it has, and writes nothing harmful.
  void expect_harmless_looks() {
    const Words commands[] = {{"status"}, {"status", "--json"}, {"jobs"},   {"jobs", "--json"},
                              {"mounts"}, {"mounts", "--json"}, {"metrics"}};
    for (const Words& command : commands) {
      const Outcome outcome = ctl(command);
      EXPECT_THAT(outcome.exit, AnyOf(exit_ok, exit_not_running))
          << testing::PrintToString(command);
      expect_harmless(outcome.out);
      expect_harmless(outcome.err);
      if (command.size() == 2 && !outcome.out.empty()) {
        (void)parsed(outcome.out);
      }
    }
  }

  /// Every command knows that the daemon runs, and says once why its area is not shown.
  void expect_running_without_area(const std::string& why) {
    const std::string table = printed({"status"});
    EXPECT_EQ(row(table, "process"), std::to_string(daemon().pid()));
    EXPECT_EQ(row(table, "mounts"), std::nullopt);
    EXPECT_EQ(status()["problems"], Json(Words{why}));
    for (const char* command : {"mounts", "jobs", "selftest"}) {
      expect_refusal({command}, exit_failed, daemon_text() + " runs, but " + why);
    }
    EXPECT_THAT(printed({"metrics"}), HasSubstr("\npelowatchd_up 1\n"));
  }
};

TEST_F(CtlHostileArea, AllBitsSet) {
  leave_area(0);
  StatusArea::map()->scribble(0, StatusArea::total_size, 0xff);
  EXPECT_EQ(ctl({"status"}).exit, exit_not_running);
  expect_harmless_looks();
  start();
  Json json;
  // Of the problems one is the owner, three are lists that are full.
  EXPECT_TRUE(undisturbed([] { StatusArea::map()->scribble(0, StatusArea::total_size, 0xff); },
                          [&] { return (json = status())["problems"].size() == 4; }))
      << json;
  EXPECT_EQ(json["pid"], daemon().pid()) << "the pid file tells";
  EXPECT_EQ(json["trusted"], Json::array());
  EXPECT_EQ(json["mounts"].size(), 1U);
  EXPECT_THAT(status_row("included").value_or(""), StartsWith("\\xff\\xff"));
  expect_harmless_looks();
}

TEST_F(CtlHostileArea, TextsWithoutTheirEnds) {
  start();
  auto area = StatusArea::map();
  const auto fill = [&] {
    int byte = 'A';
    for (const size_t text : text_offsets) {
      area->scribble(text, StatusArea::text_size, byte++);
    }
  };
  const auto whole = [](char byte) { return std::string(StatusArea::text_size, byte); };
  Json json;
  EXPECT_TRUE(undisturbed(fill, [&] {
    json = status();
    return json["mounts"] == Json(Words{whole('D')}) && json["jobs"].size() == 1;
  })) << json;
  ASSERT_EQ(json["jobs"].size(), 1U);
  EXPECT_EQ(json["jobs"][0]["job"], whole('A'));
  EXPECT_EQ(json["inclusions"], Json(Words{whole('B')}));
  EXPECT_EQ(json["exclusions"], Json(Words{whole('C')}));
  EXPECT_TRUE(undisturbed(fill, [&] { return ctl({"mounts"}).out == whole('D') + "\n"; })) << out();
  expect_harmless_looks();
}

TEST_F(CtlHostileArea, ShortOneAndWhatIsNoFileInItsPlace) {
  const char* const path = StatusArea::path;
  leave_area(0, off_t{1} << 40);  // a long one is read as far as it goes
  EXPECT_EQ(ctl({"status"}).out, "pelowatchd is not running\n");
  unlink(path);
  const std::pair<std::function<void()>, const char*> no_areas[] = {
      {[] { leave_area(1, StatusArea::total_size - 1); }, "Invalid argument"},
      {[&] { EXPECT_EQ(symlink("/etc/passwd", path), 0); }, "Too many levels of symbolic links"},
      {[&] { EXPECT_EQ(mknod(path, S_IFSOCK | 0666, 0), 0); }, "No such device or address"}};
  for (const auto& [make, why] : no_areas) {
    make();
    const Outcome table = ctl({"status"});
    EXPECT_EQ(table.exit, exit_not_running);
    EXPECT_EQ(row(table.out, "problem"), std::string("the status area cannot be read: ") + why);
    expect_harmless_looks();
    ASSERT_EQ(remove(path), 0);
  }
}

TEST_F(CtlHostileArea, RunningDaemonWhoseAreaWasCutOffOrRemoved) {
  start();
  ASSERT_EQ(truncate(StatusArea::path, 100), 0);
  expect_running_without_area("the status area cannot be read: Invalid argument");
  ASSERT_EQ(unlink(StatusArea::path), 0);
  expect_running_without_area("there is no status area");
}

TEST_F(CtlHostileArea, OwnerThatIsAStrangerOrHasDied) {
  Process stranger = bystander(0, "str\x1b[ger");
  const std::string problem =
      "the status area belongs to process " + std::to_string(stranger.pid()) + " (str\\x1b[ger)";
  const pid_t dead = dead_pid();
  leave_area(dead);
  EXPECT_EQ(status_row("problem"), "the status area is left from process " + std::to_string(dead));
  StatusArea::map()->set_owner(stranger.pid());
  const Outcome table = ctl({"status"});
  EXPECT_EQ(table.exit, exit_not_running);
  EXPECT_EQ(row(table.out, "problem"), problem);
  expect_harmless_looks();
  unlink(StatusArea::path);
  start();
  StatusArea::map()->set_owner(stranger.pid());
  const Json json = status();
  EXPECT_EQ(json["pid"], daemon().pid());
  EXPECT_EQ(json["problems"], Json(Words{problem}));
  StatusArea::map()->set_owner(daemon().pid());
  EXPECT_EQ(status()["problems"], Json::array());
  EXPECT_TRUE(stranger.running());
}

}  // namespace
}  // namespace e2e
