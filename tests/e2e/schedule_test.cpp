// When scheduled scans run: passes, loads of the commands file, the jobs list and the history.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
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
  void SetUp() override {
    ScheduleTest::SetUp();
    if (!IsSkipped() && !HasFatalFailure()) {
      World::make_folder(watched("share"));
      put_clean("share/file");
    }
  }
  std::string share() const { return watched("share"); }
};

TEST_F(Schedule, SignalRunsAPassAtOnce) {
  start_at_noon();
  run_jobs({due_job(share())});
  EXPECT_EQ(scans_completed(), 1U);
  // The next pass would come a minute after that one, which is longer than run_pass() waits.
  run_jobs({due_job(share(), "DAILY")});
  EXPECT_EQ(scans_completed(), 2U);
}

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

TEST_F(Schedule, TraceTellsEachStep) {
  set("Loglevel", "3");
  start_at_noon();
  const Job job = due_job(share());
  run_jobs({job});
  const std::string text = log_of_first_load();
  for (const std::string& line :
       {std::string("scanner_func scanner_func(): commands file is: ") + commands_file(),
        std::string("scanner_func scanner_func(): commands file has been updated updated. "
                    "Reloading..."),
        "add_command CommandParser::add_command(): adding command from config:" + job.key(),
        std::string("update command file is updated"), std::string("perform  has started"),
        std::string("perform commands count is 1"), "perform command:" + job.key(),
        std::string("exec  has started"), std::string("scanFile has started"),
        std::string("scanFile has finished"), std::string("scanner_func scanner_func(): done")}) {
    EXPECT_EQ(count_of(text, "\n" + line + "\n"), 1U) << line << "\n" << text;
  }
}

TEST_F(Schedule, JobsStandInTheStatusAreaAndOneShotJobsLeaveIt) {
  start_at_noon();
  const Job once = due_job(share());
  const Job daily = due_job(share(), "DAILY");
  Job tomorrow = due_job(share());
  tomorrow.day = (tomorrow.day + 1) % 7;
  tomorrow.action = "DELETE";
  tomorrow.recursive = true;
  world().put(watched("share/file"), "!wait " + work("go") + "\n");
  write_jobs({tomorrow, once, daily});
  ASSERT_TRUE(request_pass_until([&] { return scans_started() == 1; }));
  std::vector<std::string> keys = {once.key(), daily.key(), tomorrow.key()};
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(jobs(), keys) << "published at the load, before anything runs";
  touch(work("go"));
  run_pass();
  std::erase(keys, once.key());
  EXPECT_EQ(jobs(), keys);
  EXPECT_EQ(scans_completed(), 2U);
}

TEST_F(Schedule, JobsRunInTheOrderOfTheirTexts) {
  std::vector<Job> list;
  start_at_noon();
  for (const char* name : {"a", "b", "c"}) {
    World::make_folder(watched(name));
    list.insert(list.begin(), due_job(watched(name)));
  }
  run_jobs(list);
  const std::string text = log();
  ASSERT_EQ(scans_completed(), 3U);
  EXPECT_LT(text.find(stop_record(watched("a"), false)), text.find(start_record(watched("b"))));
  EXPECT_LT(text.find(stop_record(watched("b"), false, 3)), text.find(start_record(watched("c"))));
}

TEST_F(Schedule, RepeatingJobsRunOnceADay) {
  start_at_noon();
  run_jobs({due_job(share(), "DAILY"), due_job(share(), "WEEKLY"), due_job(share(), "MONTHLY"),
            due_job(share(), "QUARTERLY")});
  EXPECT_EQ(scans_completed(), 4U);
  run_pass();
  run_pass();
  EXPECT_EQ(scans_started(), 4U);
  EXPECT_EQ(jobs().size(), 4U);
}

TEST_F(Schedule, TouchedFileIsLoadedAgainAndTheHistoryKept) {
  start_at_noon();
  size_t loads = 0;
  for (const time_t modified : {time_t{2'000'000'000}, time_t{500'000'000}}) {
    run_jobs({due_job(share(), "DAILY"), due_job(share())});
    const size_t completed = scans_completed();
    run_pass();
    EXPECT_EQ(scans_completed(), completed) << "nothing is due any more";
    EXPECT_EQ(count_of(log(), "Reloading...\n"), ++loads);
    touch_commands(modified);
    run_pass();
    EXPECT_EQ(scans_completed(), completed + 1)
        << "the one-shot job came back, the other ran today";
    EXPECT_EQ(count_of(log(), "Reloading...\n"), ++loads);
  }
}

TEST_F(Schedule, ChangedJobIsDueAgain) {
  set("Loglevel", "3");
  start_at_noon();
  Job job = due_job(share(), "DAILY");
  run_jobs({job});
  const std::string erased = "\nupdate erase history for cmd:" + job.key() + "\n";
  EXPECT_EQ(count_of(log(), erased), 0U);
  job = due_job(share(), "DAILY");
  job.recursive = true;
  run_jobs({job});
  EXPECT_EQ(scans_completed(), 2U);
  EXPECT_EQ(count_of(log(), erased), 1U);
  EXPECT_THAT(jobs(), ElementsAre(job.key()));
}

TEST_F(Schedule, JobWithoutItsDayOrItsMinuteDoesNotRun) {
  start_at_noon();
  Job passed = due_job(share());
  passed.hour -= 1;
  Job later = due_job(share());
  later.hour += 1;
  Job tomorrow = due_job(share(), "DAILY");
  tomorrow.day = (tomorrow.day + 1) % 7;
  const Job due = due_job(share(), "WEEKLY");
  run_jobs({passed, later, tomorrow, due});
  run_pass();
  EXPECT_EQ(scans_started(), 1U);
  EXPECT_EQ(jobs().size(), 4U);
}

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

TEST_F(Schedule, JobsTextOf10240BytesIsPublishedAndOneByteMoreIsNot) {
  start_at_noon();
  std::vector<Job> list;
  size_t size = 0;
  for (char name = 'a'; name <= 'j'; ++name) {
    Job job;
    job.day = (local_time().tm_wday + 1) % 7;
    job.folder = "/" + std::string(1000, name);
    size += job.key().size() + 1;
    list.push_back(job);
  }
  ASSERT_LT(size, StatusArea::kTextSize);
  list.back().folder += std::string(StatusArea::kTextSize - size, 'j');
  std::vector<std::string> keys;
  for (const Job& job : list) {
    keys.push_back(job.key());
  }
  run_jobs(list);
  EXPECT_EQ(jobs(), keys);
  EXPECT_FALSE(logged("jobs list is too big"));
  list.back().folder += 'j';
  run_jobs(list);
  EXPECT_EQ(jobs(), keys) << "the old text stays";
  EXPECT_TRUE(logged("\nsyncCommandsList jobs list is too big\n"));
  EXPECT_TRUE(is_registered(watched())) << "and so does what stands beside it";
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
}

TEST_F(Schedule, FolderInPlaceOfTheCommandsFileClearsTheJobs) {
  start_at_noon();
  run_jobs({due_job(share(), "DAILY")});
  EXPECT_EQ(jobs().size(), 1U);
  ASSERT_EQ(unlink(commands_file().c_str()), 0);
  World::make_folder(commands_file());
  run_pass();
  EXPECT_THAT(jobs(), IsEmpty());
}

TEST_F(Schedule, WithoutAnEngineHandleARepeatingJobIsTriedAgainAndAOneShotJobIsGone) {
  script("fail vseInit 3+\n");  // after the one that loads the definitions and the worker's
  start_at_noon();
  const Job daily = due_job(share(), "DAILY");
  run_jobs({due_job(share()), daily});
  const std::string text = log_of_first_load();
  EXPECT_EQ(count_of(text, "\ninitialize Unable to initialize scan engine\n"), 2U) << text;
  EXPECT_EQ(count_of(text, "\nScan started: "), 2U) << text;
  EXPECT_EQ(scans_completed(), 0U);
  EXPECT_THAT(jobs(), ElementsAre(daily.key()));
  script("");
  run_pass();
  EXPECT_EQ(scans_completed(), 1U);
  EXPECT_EQ(scans(watched("share/file")), 1U);
}

struct Oddity {
  const char* name;
  std::string content;
  size_t scans;
};

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

/// Contents around the text of one job, which is due.
std::vector<Oddity> oddities(const std::string& job) {
  return {
      {"empty", "", 0},
      {"one word", "scan", 0},
      {"no final newline", job.substr(0, job.find_last_of('\n')), 1},
      {"CR LF", with_line_ends(job, "\r\n"), 1},
      {"CR LF and no final newline", with_line_ends(job, "\r\n") + "#", 1},
      {"NUL bytes", std::string(5000, '\0') + "\n" + job, 1},
      {"binary", random_bytes(100'000) + "\n" + job, 1},
      {"a comment behind the separator", job + "scan # weekly\nfolder /other\n", 1},
      {"one job twice", job + job, 1},
  };
}

constexpr size_t kHuge = PELO_EMULATED ? 200'000 : PELO_SLOW ? 1'000'000 : 10'000'000;  // bytes

TEST_F(Schedule, OddCommandsFilesGiveWhatTheyHold) {
  set("Maxlog", "512");
  start_at_noon();
  size_t completed = 0;
  const size_t count = oddities("").size();
  for (size_t i = 0; i < count; ++i) {
    const Oddity oddity = oddities(due_job(share()).block())[i];
    ASSERT_NO_FATAL_FAILURE(write_commands(oddity.content));
    ASSERT_NO_FATAL_FAILURE(run_pass()) << oddity.name;
    completed += oddity.scans;
    EXPECT_EQ(scans_completed(), completed) << oddity.name;
    EXPECT_THAT(jobs(), IsEmpty()) << oddity.name;
    EXPECT_EQ(open_status(watched("share/file")), 0) << oddity.name;
  }
}

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

TEST_F(Schedule, CommandsFileOfOneHugeLineIsOneJobThatNeverRuns) {
  start_at_noon();
  write_commands(std::string(kHuge, 'x'));
  ASSERT_TRUE(eventually([&] {
    daemon().signal(SIGUSR2);
    return eventually([] { return !jobs().empty(); }, std::chrono::seconds(3));
  }));
  EXPECT_THAT(jobs(), ElementsAre("0:0|0|0||0|false"));
  EXPECT_EQ(open_status(watched("share/file")), 0);
  EXPECT_EQ(scans_started(), 0U);
}

}  // namespace
}  // namespace e2e
