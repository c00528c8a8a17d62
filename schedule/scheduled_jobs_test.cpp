// The executor's jobs: which run in a pass and in which order, what it remembers of them, and what
// it publishes.
#include <gmock/gmock.h>

#include <list>
#include <string>
#include <thread>
#include <vector>

#include "commandparser.h"
#include "executor_fixture.h"
#include "fed_filter.h"
#include "filter_service.h"
#include "wait.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char file_updated[] = "update command file is updated\n";
constexpr char perform_started[] = "perform  has started\n";
constexpr char no_area[] = "syncCommandsList failed to acces the shared memory\n";
constexpr char too_big[] = "syncCommandsList jobs list is too big\n";

string count_text(int jobs) {
  return "perform commands count is " + std::to_string(jobs) + "\n";
}
string job_text(const string& key) {
  return "perform command:" + key + "\n";
}
string erase_text(const string& key) {
  return "update erase history for cmd:" + key + "\n";
}

class Jobs : public ExecutorTest {
 protected:
  static void load(const std::list<Command>& commands) { executor().update(commands); }

  /// Loads the commands at midnight of the 6th, then makes it 2:30.
  static void load_early(const std::list<Command>& commands) {
    it_is(6, 0, 0);
    load(commands);
    it_is(6, 2, 30);
  }

  /// One pass. @return the folders whose scans have started in it, in order
  std::vector<string> pass() {
    const std::size_t before = logged().size();
    executor().perform();
    const std::vector<string> all = logged();
    std::vector<string> scanned;
    for (std::size_t i = before; i < all.size(); ++i) {
      const std::size_t path = all[i].find("\nPath: \"");
      if (all[i].rfind("Scan started: ", 0) == 0) {
        scanned.push_back(all[i].substr(path + 8, all[i].find('"', path + 8) - path - 8));
      }
    }
    return scanned;
  }

  /// How many jobs the next pass sees.
  long sees(int jobs) {
    const long before = logged_times(count_text(jobs));
    executor().perform();
    return logged_times(count_text(jobs)) - before;
  }

  const Command weekly_ = command_for(share_, ConfParser::WEEKLY);
  const Command once_ = command_for(share_, ConfParser::NO);
};

// Records

TEST_F(Jobs, APassNamesEachJobDueOrNotAndOnlyTheMissingAreaIsAnError) {
  Command tuesday = weekly_;
  tuesday.day = ConfParser::TUE;
  load_early({tuesday, weekly_});
  executor().perform();
  std::vector<string> expected = {file_updated,
                                  no_area,
                                  perform_started,
                                  count_text(2),
                                  job_text(weekly_.ToString()),
                                  "exec  has started\n",
                                  start_record(share_),
                                  stop_record(share_, false),
                                  job_text(tuesday.ToString()),
                                  no_area};
  EXPECT_EQ(logged(), expected);
  log_up_to(1);
  load({});
  executor().perform();
  expected.insert(expected.end(), {no_area, no_area});
  EXPECT_EQ(logged(), expected);
}

// Order and number

TEST_F(Jobs, RunInTheOrderOfTheirTextsAndIdenticalOnesAreOne) {
  Command ten = command_for("/ten");
  ten.start = ConfParser::time_T(10, 0);
  Command nine = command_for("/nine");
  nine.start = ConfParser::time_T(9, 0);
  Command deleting = nine;
  deleting.action = ConfParser::DELETE;
  load_early({nine, command_for("/two"), ten, deleting, ten, nine});
  it_is(6, 12, 0);
  EXPECT_THAT(pass(), ElementsAre("/ten", "/two", "/nine", "/nine"));
  load({command_for("/third")});
  EXPECT_EQ(sees(1), 1) << "a load replaces them all";
}

// Once and again

TEST_F(Jobs, OneShotJobsRunOnceEachTimeTheyAreLoaded) {
  const Command other = command_for("/other", ConfParser::NO);
  load_early({once_, weekly_, other});
  it_is(6, 2, 29);
  EXPECT_THAT(pass(), IsEmpty()) << "what is not due stays";
  it_is(6, 2, 30);
  EXPECT_THAT(pass(), ElementsAre("/other", share_, share_));
  EXPECT_EQ(sees(1), 1);
  load({once_});
  EXPECT_THAT(pass(), ElementsAre(share_));
  EXPECT_EQ(sees(0), 1);
  load({});
  EXPECT_EQ(logged_times(erase_text(once_.ToString())), 0) << "they leave no history";
}

TEST_F(Jobs, WithoutAnEngineAOneShotJobIsGoneAndARepeatingOneIsTriedAgain) {
  script("fail vseInit 1\nfail vseInit 2\n");
  const string missing = "/does/not/exist";
  load_early({once_, command_for(missing)});
  EXPECT_THAT(pass(), ElementsAre(share_, missing));
  EXPECT_EQ(logged_times(no_engine), 2);
  EXPECT_THAT(pass(), ElementsAre(missing));
  EXPECT_EQ(logged_times(stop_record(missing, false)), 1);
  EXPECT_THAT(pass(), IsEmpty());
  it_is(13, 2, 30);
  EXPECT_THAT(pass(), ElementsAre(missing)) << "a week later";
  EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(Jobs, AllDecisionsOfAPassUseItsBeginning) {
  (void)put("file", "!wait " + gate() + "\n");
  load_early({weekly_, command_for("/zz")});
  it_is(6, 23, 59);
  std::thread other([this] {
    EXPECT_TRUE(eventually([this] { return scan_has_begun(in_share("file")); }));
    it_is(7, 0, 1);
    open_gate();
  });
  EXPECT_THAT(pass(), ElementsAre(share_, "/zz")) << "although it is Tuesday by now";
  other.join();
  it_is(13, 2, 30);
  EXPECT_THAT(pass(), ElementsAre(share_, "/zz")) << "they ran on a Monday";
}

TEST_F(Jobs, AreDueByTheLocalTimeOfThePass) {
  setenv("TZ", "<+14>-14", 1);
  tzset();
  it_is(6, 10, 0);  // in Greenwich; here it is midnight
  Command tuesday = command_for("/tuesday");
  tuesday.day = ConfParser::TUE;
  load({command_for("/monday"), tuesday});
  it_is(6, 12, 30);
  EXPECT_THAT(pass(), ElementsAre("/tuesday"));
}

TEST_F(Jobs, APassTakesTheDepthFromTheSettings) {
  (void)put("0");
  (void)put("a/1");
  (void)put("a/b/2");
  config().MaxRecursion = 1;
  load_early({recursive_for(share_)});
  (void)pass();
  EXPECT_THAT(scanned(), ElementsAre(in_share("0"), in_share("a/1")));
}

// Loading

TEST_F(Jobs, OneThatStaysKeepsItsHistoryAndOneThatLeavesLosesIt) {
  load_early({weekly_});
  (void)pass();
  load({command_for("/new"), weekly_});
  EXPECT_THAT(pass(), ElementsAre("/new"));
  EXPECT_EQ(logged_times(erase_text(weekly_.ToString())), 0);
  load({});
  EXPECT_EQ(logged_times(erase_text(weekly_.ToString())), 1);
  load({weekly_});
  EXPECT_THAT(pass(), ElementsAre(share_));
}

// Publishing

class PublishedJobs : public Jobs {
 protected:
  PublishedJobs() {
    fill_area('x');
    service().get_descr() = filter_.hand_over();
  }
  ~PublishedJobs() override { (void)service().unreg_filter(); }

  static fsfilter& service() { return *fsfilter::get(); }
  fsfilter_stat_struct& statistics() { return *fsfilter_stat(service().get_descr()); }

  /// As another process may leave it.
  void fill_area(char byte) {
    fsfilter_stat_struct& area = filter_.statistics();
    std::fill(std::begin(area.jobs), std::end(area.jobs), byte);
  }
  string area() {
    const fsfilter_stat_struct& all = statistics();
    return {std::begin(all.jobs), std::end(all.jobs)};
  }
  static string filled(string text) {
    text.resize(FSFILTER_TEXT_SIZE, '\0');
    return text;
  }

  /// A job whose line in the area has this length, its end included.
  static Command job_of(std::size_t length) {
    Command command = command_for("");
    command.folder = string(length - command.ToString().size() - 1, 'f');
    return command;
  }

  FedFilter filter_;
};

TEST_F(PublishedJobs, StandInTheirOrderOneALineAndTheRestIsNul) {
  Command ten = command_for("/data");
  ten.start = ConfParser::time_T(10, 5);
  load({weekly_, ten});
  EXPECT_EQ(area(), filled("10:5|1|2|/data|0|false\n2:30|1|2|" + share_ + "|0|false\n"));
  load({command_for("/d")});
  EXPECT_EQ(area(), filled("2:30|1|2|/d|0|false\n")) << "nothing is left of a longer text";
  load({});
  EXPECT_EQ(area(), filled(""));
  EXPECT_EQ(logged_times(no_area), 0);
}

TEST_F(PublishedJobs, AreWrittenAgainByEachPassWithoutThoseThatAreGone) {
  load_early({weekly_, once_});
  EXPECT_EQ(area(), filled(once_.ToString() + "\n" + weekly_.ToString() + "\n"));
  statistics().jobs[0] = '?';
  (void)pass();
  EXPECT_EQ(area(), filled(weekly_.ToString() + "\n"));
}

TEST_F(PublishedJobs, ATextAsLongAsTheAreaFillsItWithoutAnEnd) {
  const auto whole =
      reinterpret_cast<char*>(&statistics()) - offsetof(fsfilter_shared_area, statistics);
  char* const behind = whole + offsetof(fsfilter_shared_area, inclusions);
  *behind = 'i';
  statistics().denied = 0x0123456789abcdef;
  const Command job = job_of(FSFILTER_TEXT_SIZE);
  ASSERT_EQ(job.ToString().size(), 10239U);
  load({job});
  EXPECT_TRUE(area() == job.ToString() + "\n");
  EXPECT_EQ(*behind, 'i');
  EXPECT_EQ(statistics().denied, 0x0123456789abcdefU);
  EXPECT_EQ(logged_times(too_big), 0);
}

TEST_F(PublishedJobs, ATextOneByteLongerIsRefusedAndTheOldOneStaysButTheJobsRun) {
  load({weekly_});
  const Command job = job_of(FSFILTER_TEXT_SIZE + 1);
  ASSERT_EQ(job.ToString().size(), 10240U);
  const Command half = job_of(5240);
  for (const std::list<Command>& jobs : {std::list<Command>{job}, {half, job_of(5001)}}) {
    load_early(jobs);
    EXPECT_EQ(area(), filled(weekly_.ToString() + "\n"));
  }
  EXPECT_EQ(logged_times(too_big), 2);
  EXPECT_EQ(pass().size(), 2U);
  load({half, job_of(5000)});
  EXPECT_EQ(area().find('\0'), string::npos) << "they are measured together";
}

}  // namespace
