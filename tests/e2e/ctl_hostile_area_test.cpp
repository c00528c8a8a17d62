// What any process can write into the status area does pelowatchctl no harm, nor its terminal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "ctl_fixture.h"

namespace e2e {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr size_t kTexts[] = {StatusArea::kJobsOffset, StatusArea::kInclusionsOffset,
                             StatusArea::kExclusionsOffset, StatusArea::kMountsOffset};

class CtlHostileArea : public CtlTest {
 protected:
  void TearDown() override {
    if (!IsSkipped()) {
      // What a test put in its place.
      rmdir(StatusArea::kPath);
      unlink(StatusArea::kPath);
    }
    CtlTest::TearDown();
  }

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
      EXPECT_THAT(outcome.exit, AnyOf(kOk, kNotRunning)) << testing::PrintToString(command);
      expect_harmless(outcome.out);
      expect_harmless(outcome.err);
      if (command.size() == 2 && !outcome.out.empty()) {
        (void)parsed(outcome.out);
      }
    }
  }

  /// The area cannot be read, which is said, and no harm otherwise.
  void expect_unreadable(const std::string& why) {
    const Outcome table = ctl({"status"});
    EXPECT_EQ(table.exit, kNotRunning);
    EXPECT_EQ(row(table.out, "problem"), "the status area cannot be read: " + why);
    expect_harmless_looks();
  }

  /// Every command knows that the daemon runs, and says once why its area is not shown.
  void expect_running_without_area(const std::string& why) {
    const Outcome table = ctl({"status"});
    EXPECT_EQ(table.exit, kOk);
    EXPECT_EQ(row(table.out, "process"), std::to_string(daemon().pid()));
    EXPECT_EQ(row(table.out, "mounts"), std::nullopt);
    EXPECT_EQ(status()["problems"], Json(Words{why}));
    for (const char* command : {"mounts", "jobs", "selftest"}) {
      const Outcome outcome = ctl({command});
      EXPECT_EQ(outcome.exit, kFailed) << command;
      EXPECT_EQ(outcome.out, "") << command;
      EXPECT_EQ(outcome.err, "pelowatchctl: pelowatchd (process " + std::to_string(daemon().pid()) +
                                 ") runs, but " + why + "\n")
          << command;
    }
    EXPECT_EQ(ctl({"metrics"}).exit, kOk);
    EXPECT_THAT(out(), HasSubstr("\npelowatchd_up 1\n"));
  }
};

/// The body of a process that never stops writing into the area.
int scribble_for_ever() {
  auto area = StatusArea::map();
  std::minstd_rand random(1);
  for (;;) {
    const size_t size = random() % 4096 + 1;
    area->scribble(random() % (StatusArea::kSize - size), size, static_cast<int>(random() % 256));
  }
}

TEST_F(CtlHostileArea, AllBitsSet) {
  leave_area(0);
  StatusArea::map()->scribble(0, StatusArea::kSize, 0xff);
  EXPECT_EQ(ctl({"status"}).exit, kNotRunning);
  expect_harmless_looks();
  start();
  StatusArea::map()->scribble(0, StatusArea::kSize, 0xff);
  const Json json = status();
  EXPECT_EQ(json["pid"], daemon().pid()) << "the pid file tells";
  EXPECT_EQ(json["trusted"], Json::array());
  EXPECT_EQ(json["problems"].size(), 4U)
      << "the owner, and three lists that are full" << json["problems"];
  EXPECT_EQ(json["mounts"].size(), 1U);
  const std::string table = ctl({"status"}).out;
  EXPECT_THAT(row(table, "included").value_or(""), StartsWith("\\xff\\xff"));
  expect_harmless_looks();
}

// labels: essential
TEST_F(CtlHostileArea, CountersBeyondAllEvents) {
  start();
  StatusArea::map()->scribble(StatusArea::kAnsweredOffset, 16, 0xfe);
  constexpr const char* kHuge = "18,374,403,900,871,474,";
  const std::string table = ctl({"status"}).out;
  EXPECT_THAT(row(table, "answered").value_or(""), StartsWith(kHuge));
  EXPECT_THAT(row(table, "denied").value_or(""), StartsWith(kHuge));
  EXPECT_EQ(status()["denied"], 0xfefefefefefefefe);
  EXPECT_THAT(ctl({"metrics"}).out,
              HasSubstr("\npelowatchd_denied_events_total 18374403900871474942\n"));
}

TEST_F(CtlHostileArea, TextsWithoutTheirEndsAndWithEveryByte) {
  start();
  auto area = StatusArea::map();
  const auto fill = [&] {
    int byte = 'A';
    for (const size_t text : kTexts) {
      area->scribble(text, StatusArea::kTextSize, byte++);
    }
  };
  const auto whole = [](char byte) { return std::string(StatusArea::kTextSize, byte); };
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
  const auto put_every_byte = [&] {
    for (const size_t text : kTexts) {
      for (int byte = 1; byte < 256; ++byte) {
        area->scribble(text + static_cast<size_t>(byte) - 1, 1, byte);
      }
    }
  };
  EXPECT_TRUE(undisturbed(put_every_byte, [&] {
    return ctl({"mounts"}).out.find("\\x1b") != std::string::npos;
  })) << out();
  expect_harmless_looks();
}

TEST_F(CtlHostileArea, ShortOneAndWhatIsNoFileInItsPlace) {
  for (const off_t size : {off_t{0}, off_t{100}, static_cast<off_t>(StatusArea::kSize) - 1}) {
    leave_area(1);
    ASSERT_EQ(truncate(StatusArea::kPath, size), 0);
    expect_unreadable("Invalid argument");
    unlink(StatusArea::kPath);
  }
  leave_area(0);
  ASSERT_EQ(truncate(StatusArea::kPath, off_t{1} << 40),
            0);  // a long one is read as far as it goes
  EXPECT_EQ(ctl({"status"}).out, "pelowatchd is not running\n");
  unlink(StatusArea::kPath);
  ASSERT_EQ(mkdir(StatusArea::kPath, 0777), 0);
  expect_unreadable("Invalid argument");
  rmdir(StatusArea::kPath);
  ASSERT_EQ(mkfifo(StatusArea::kPath, 0666), 0);  // to which nobody writes
  expect_unreadable("Invalid argument");
  unlink(StatusArea::kPath);
  ASSERT_EQ(symlink("/etc/passwd", StatusArea::kPath), 0);
  expect_unreadable("Too many levels of symbolic links");
  unlink(StatusArea::kPath);
  ASSERT_EQ(mknod(StatusArea::kPath, S_IFSOCK | 0666, 0), 0);
  expect_unreadable("No such device or address");
}

TEST_F(CtlHostileArea, RunningDaemonWhoseAreaWasCutOffOrRemoved) {
  start();
  ASSERT_EQ(truncate(StatusArea::kPath, 100), 0);
  expect_running_without_area("the status area cannot be read: Invalid argument");
  ASSERT_EQ(unlink(StatusArea::kPath), 0);
  expect_running_without_area("there is no status area");
}

TEST_F(CtlHostileArea, WrittenWhileItIsRead) {
  start();
  Process writer(scribble_for_ever);
  for (int round = 0; round < 8; ++round) {
    expect_harmless_looks();
    EXPECT_EQ(ctl({"status"}).exit, kOk);
    EXPECT_EQ(row(out(), "process"), std::to_string(daemon().pid()));
  }
  EXPECT_TRUE(writer.running());
}

TEST_F(CtlHostileArea, OwnerThatIsAStrangerOrHasDied) {
  Process stranger = bystander(0, "str\x1b[ger");
  const std::string problem =
      "the status area belongs to process " + std::to_string(stranger.pid()) + " (str\\x1b[ger)";
  const pid_t dead = dead_pid();
  leave_area(dead);
  EXPECT_EQ(row(ctl({"status"}).out, "problem"),
            "the status area is left from process " + std::to_string(dead));
  StatusArea::map()->set_owner(stranger.pid());
  const Outcome table = ctl({"status"});
  EXPECT_EQ(table.exit, kNotRunning);
  EXPECT_EQ(row(table.out, "problem"), problem);
  expect_harmless_looks();
  unlink(StatusArea::kPath);
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
