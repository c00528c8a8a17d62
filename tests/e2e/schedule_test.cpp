// When scheduled scans run: passes, loads of the commands file, the jobs list and the history.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <random>

#include "emulated.h"
#include "schedule_fixture.h"

namespace e2e {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Schedule : public ScheduleTest {
 protected:
  void prepare() override {
    ScheduleTest::prepare();
    World::make_folder(share());
    put_clean("share/file");
  }
  std::string share() const { return watched("share"); }
};

// labels: essential one-processor
TEST_F(Schedule, ScanIsRecordedWordForWord) {
  set("MaxRecursion", "7");
  put_infected("share/bad");
  World::make_folder(watched("other"));
  start_at_noon();
  run_jobs({due_job(share()), due_job(watched("other"), "DAILY")});
  const std::string text = log();
  const std::string session = "Session ID: 4098\nPath: \"";
  EXPECT_EQ(count_of(text, start_record(share(), 7)), 1U) << text;
  EXPECT_EQ(count_of(text, "\nFile scan: " + session + watched("share/file") + "\"\n"), 1U) << text;
  EXPECT_EQ(count_of(text, "\ninfection detected in: " + session + watched("share/bad") +
                               "\"\nArchive name: \"\"\nDetection name: \"Test.Infected\"\n"),
            1U)
      << text;
  EXPECT_EQ(count_of(text, stop_record(share(), true)), 1U) << text;
  EXPECT_EQ(count_of(text, start_record(watched("other"), 7)), 1U) << text;
  EXPECT_EQ(count_of(text, stop_record(watched("other"), false, 3)), 1U) << text;
  EXPECT_LT(text.find("Scan started: "), text.find("File scan: "));
  EXPECT_LT(text.find("File scan: "), text.find("Scan completed: "));
  EXPECT_EQ(events().size(), 1U);
  EXPECT_EQ(engine_calls("vseRelease", {"handle=2 ", "result=0"}).size(), 1U);
  EXPECT_EQ(engine_calls("vseRelease", {"handle=3 ", "result=0"}).size(), 1U);
}

// labels: essential
TEST_F(Schedule, RepeatingJobsRunOnceADayAndOnlyOnTheirsFromTheirMinuteOn) {
  start_at_noon();
  Job passed = due_job(share());
  passed.hour -= 1;
  Job later = due_job(share());
  later.hour += 1;
  Job tomorrow = due_job(share(), "DAILY");
  tomorrow.day = (tomorrow.day + 1) % 7;
  run_jobs({passed, later, tomorrow, due_job(share(), "DAILY"), due_job(share(), "WEEKLY"),
            due_job(share(), "MONTHLY"), due_job(share(), "QUARTERLY")});
  EXPECT_EQ(scans_completed(), 4U);
  run_pass();
  run_pass();
  EXPECT_EQ(scans_started(), 4U);
  EXPECT_EQ(jobs().size(), 7U);
}

// labels: long
TEST_F(Schedule, JobWaitsForItsMinute) {
  constexpr int kTries = 3;
  start_at_noon({}, 25);
  Job job;
  size_t started = 0;
  bool in_time = false;  // the pass that loads the job is over before its minute begins
  for (int tries = 0; tries < kTries && !in_time; ++tries) {
    started = scans_started();
    job = due_job(share());
    job.minute += 1;
    ASSERT_NO_FATAL_FAILURE(run_jobs({job}));
    in_time = local_time().tm_min < job.minute;
  }
  ASSERT_TRUE(in_time) << "a pass takes more than half a minute";
  EXPECT_EQ(scans_started(), started);
  ASSERT_TRUE(eventually([&] { return local_time().tm_min >= job.minute; }, 2 * kPatience));
  run_pass();
  EXPECT_EQ(scans_completed(), started + 1);
}

TEST_F(Schedule, MissingCommandsFileIsToldInEachPassAndLeavesTheJobs) {
  const std::string told =
      "\nCheckForUpdate CheckForUpdate:stat error: No such file or directory\n";
  start_at_noon();
  run_pass();
  EXPECT_GE(count_of(log(), told), 1U);
  EXPECT_THAT(jobs(), IsEmpty());
  const Job job = due_job(share(), "DAILY");
  run_jobs({job});
  const size_t before = count_of(log(), told);
  ASSERT_EQ(unlink(commands_file().c_str()), 0);
  run_pass();
  EXPECT_GT(count_of(log(), told), before);
  EXPECT_THAT(jobs(), ElementsAre(job.key()));
  EXPECT_EQ(scans_started(), 1U) << "and their history";
  World::make_folder(commands_file());
  run_pass();
  EXPECT_THAT(jobs(), IsEmpty()) << "a folder in its place clears them";
}

std::string random_bytes(size_t size) {
  std::mt19937 generator(20240229);
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(generator());
  }
  return bytes;
}

std::string with_line_ends(const std::string& text, const std::string& end) {
  std::string result;
  for (const std::string& line : lines_of(text)) {
    result += line + end;
  }
  return result;
}

constexpr size_t kHuge = PELO_EMULATED ? 200'000 : PELO_SLOW ? 1'000'000 : 10'000'000;  // bytes

TEST_F(Schedule, HugeCommandsFilesDoNoHarm) {
  const std::string other = put_clean("other");
  start_at_noon();
  Job far;
  far.folder = "/" + std::string(kHuge, 'y');
  const std::pair<const char*, std::string> files[] = {
      {"line", std::string(kHuge, 'x') + "\n"},
      {"comments", with_line_ends(std::string(kHuge / 2, '\n'), "#")},
      {"binary", random_bytes(kHuge) + "\n"},
      {"name", far.block()},
  };
  for (const auto& [name, content] : files) {
    World::make_folder(watched(name));
    const std::string file = put_clean(std::string(name) + "/file");
    const std::string folder = watched(name);
    const auto load = [&, &bytes = content] {
      write_commands(bytes + due_job(folder).block());
      daemon().signal(SIGUSR2);
      EXPECT_EQ(open_status(other), 0) << file;
      // What stands in the log may go when the log is full, so the engine's record is asked.
      return eventually([&] { return scans(file) >= 1; }, kPatience / 3);
    };
    // Written anew each time: the job is not due if its minute ends while the file is parsed.
    ASSERT_TRUE(eventually(load, 4 * kPatience)) << file;
    EXPECT_EQ(open_status(other), 0) << file;
  }
}

}  // namespace
}  // namespace e2e
