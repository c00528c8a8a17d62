// The executor's jobs: which run in a pass and in which order, what it remembers of them, and what
// it publishes.
#include <gmock/gmock.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "commandparser.h"
#include "executor_test.h"
#include "fed_filter.h"
#include "filter_service.h"
#include "wait.h"

namespace {

using std::string;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char updated[] = "update command file is updated\n";
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
    std::vector<string> started;
    for (std::size_t i = before; i < all.size(); ++i) {
      const std::size_t path = all[i].find("\nPath: \"");
      if (all[i].rfind("Scan started: ", 0) == 0) {
        started.push_back(all[i].substr(path + 8, all[i].find('"', path + 8) - path - 8));
      }
    }
    return started;
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

TEST_F(Jobs, ALoadAndAPassWithoutJobsAreLogged) {
  load({});
  executor().perform();
  EXPECT_THAT(logged(), ElementsAre(updated, no_area, perform_started, count_text(0), no_area));
}

TEST_F(Jobs, APassNamesEachJobDueOrNot) {
  Command tuesday = weekly_;
  tuesday.day = ConfParser::TUE;
  load_early({tuesday, weekly_});
  executor().perform();
  EXPECT_THAT(logged(),
              ElementsAre(updated, no_area, perform_started, count_text(2),
                          job_text(weekly_.ToString()), "exec  has started\n", start_record(share_),
                          stop_record(share_, false), job_text(tuesday.ToString()), no_area));
}

TEST_F(Jobs, OnlyTheMissingAreaIsAnError) {
  config().Loglevel = 1;
  load_early({command_for(share_, ConfParser::DAILY)});
  executor().perform();
  load({});
  EXPECT_THAT(logged(), ElementsAre(no_area, start_record(share_), stop_record(share_, false),
                                    no_area, no_area));
}

// Order and number

TEST_F(Jobs, RunInTheOrderOfTheirTexts) {
  Command ten = command_for("/ten");
  ten.start = ConfParser::time_T(10, 0);
  Command two = command_for("/two");
  Command nine = command_for("/nine");
  nine.start = ConfParser::time_T(9, 0);
  load_early({nine, two, ten});
  it_is(6, 12, 0);
  EXPECT_THAT(pass(), ElementsAre("/ten", "/two", "/nine"));
}

TEST_F(Jobs, IdenticalCommandsAreOneJob) {
  load_early({weekly_, weekly_, weekly_});
  EXPECT_EQ(sees(1), 1);
  EXPECT_EQ(logged_times(start_record(share_)), 1);
}

TEST_F(Jobs, CommandsThatDifferInOneFieldAreTwo) {
  Command deleting = weekly_;
  deleting.action = ConfParser::DELETE;
  load_early({weekly_, deleting});
  EXPECT_THAT(pass(), ElementsAre(share_, share_));
}

TEST_F(Jobs, ALoadReplacesThemAll) {
  load_early({weekly_, command_for("/other")});
  load({command_for("/third")});
  EXPECT_EQ(sees(1), 1);
}

// Once and again

TEST_F(Jobs, AOneShotJobRunsOnceAndIsGone) {
  load_early({once_, weekly_});
  EXPECT_THAT(pass(), ElementsAre(share_, share_));
  EXPECT_EQ(sees(1), 1);
  EXPECT_EQ(logged_times(start_record(share_)), 2);
}

TEST_F(Jobs, SeveralOneShotJobsAllRunInOnePass) {
  load_early({command_for("/a", ConfParser::NO), command_for("/b", ConfParser::NO),
              command_for("/c", ConfParser::NO)});
  EXPECT_THAT(pass(), ElementsAre("/a", "/b", "/c"));
  EXPECT_EQ(sees(0), 1);
}

TEST_F(Jobs, AOneShotJobThatIsNotDueStays) {
  load_early({once_});
  it_is(6, 2, 29);
  EXPECT_THAT(pass(), IsEmpty());
  it_is(6, 2, 30);
  EXPECT_THAT(pass(), ElementsAre(share_));
}

TEST_F(Jobs, AOneShotJobComesBackWithTheNextLoad) {
  load_early({once_});
  (void)pass();
  load({once_});
  EXPECT_THAT(pass(), ElementsAre(share_));
}

TEST_F(Jobs, AOneShotJobLeavesNoHistory) {
  load_early({once_});
  (void)pass();
  load({});
  EXPECT_EQ(logged_times(erase_text(once_.ToString())), 0);
}

TEST_F(Jobs, AOneShotJobIsGoneAlsoWhenItsScanCouldNotStart) {
  script("fail vseInit\n");
  load_early({once_});
  EXPECT_THAT(pass(), ElementsAre(share_));
  EXPECT_EQ(logged_times(no_engine), 1);
  EXPECT_EQ(sees(0), 1);
}

TEST_F(Jobs, ARepeatingJobRunsOnceInItsPeriod) {
  load_early({weekly_});
  EXPECT_THAT(pass(), ElementsAre(share_));
  EXPECT_THAT(pass(), IsEmpty());
  it_is(6, 23, 59);
  EXPECT_THAT(pass(), IsEmpty());
  it_is(13, 2, 29);
  EXPECT_THAT(pass(), IsEmpty());
  it_is(13, 2, 30);
  EXPECT_THAT(pass(), ElementsAre(share_));
}

TEST_F(Jobs, ADailyJobRunsOnItsWeekdayOnly) {
  load_early({command_for(share_, ConfParser::DAILY)});
  std::vector<int> days;
  for (int day = 6; day < 21; ++day) {
    it_is(day, 12, 0);
    if (!pass().empty()) {
      days.push_back(day);
    }
    EXPECT_THAT(pass(), IsEmpty());
  }
  EXPECT_THAT(days, ElementsAre(6, 13, 20));
}

TEST_F(Jobs, ARepeatingJobWithoutAnEngineIsTriedAgainInTheNextPass) {
  script("fail vseInit 1\n");
  load_early({weekly_});
  EXPECT_THAT(pass(), ElementsAre(share_));
  EXPECT_THAT(pass(), ElementsAre(share_));
  EXPECT_EQ(logged_times(stop_record(share_, false)), 1);
  EXPECT_THAT(pass(), IsEmpty());
}

TEST_F(Jobs, AScanOfAFolderThatDoesNotExistCountsAsARun) {
  load_early({command_for("/does/not/exist")});
  EXPECT_THAT(pass(), ElementsAre("/does/not/exist"));
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
  config().MaxRecursion = 0;
  it_is(13, 2, 30);
  (void)pass();
  EXPECT_EQ(scanned().size(), 3U);
}

TEST_F(Jobs, WhetherOneIsDueCanBeAsked) {
  load_early({weekly_});
  executor().perform();
  EXPECT_FALSE(executor().isTimeToRun(weekly_)) << "it has run";
  EXPECT_TRUE(executor().isTimeToRun(command_for("/other")));
  Command later = weekly_;
  later.start = ConfParser::time_T(2, 31);
  EXPECT_FALSE(executor().isTimeToRun(later));
}

// Loading

TEST_F(Jobs, AJobThatStartsEarlierInTheDayThanTheLoadNeverRuns) {
  it_is(6, 14, 0);
  load({weekly_});
  for (int day = 6; day < 29; ++day) {
    it_is(day, 23, 59);
    EXPECT_THAT(pass(), IsEmpty());
  }
}

TEST_F(Jobs, AJobThatStartsInTheMinuteOfTheLoadRuns) {
  it_is(6, 2, 30);
  load({weekly_});
  EXPECT_THAT(pass(), ElementsAre(share_));
}

TEST_F(Jobs, ALaterLoadEarlyInTheDayLetsAJobRunAgain) {
  it_is(6, 2, 31);
  load({weekly_});
  EXPECT_THAT(pass(), IsEmpty());
  it_is(13, 2, 30);
  load({weekly_});
  EXPECT_THAT(pass(), ElementsAre(share_));
}

TEST_F(Jobs, AJobThatStaysKeepsItsHistory) {
  load_early({weekly_});
  (void)pass();
  load({command_for("/new"), weekly_});
  EXPECT_THAT(pass(), ElementsAre("/new"));
  EXPECT_EQ(logged_times(erase_text(weekly_.ToString())), 0);
}

TEST_F(Jobs, AnyFieldThatChangesMakesItANewJob) {
  std::vector<Command> changed(4, weekly_);
  changed[0].repeat = ConfParser::MONTHLY;
  changed[1].folder += "/";
  changed[2].action = ConfParser::DISINFECT;
  changed[3].recursive = true;
  Command before = weekly_;
  load_early({before});
  (void)pass();
  for (const Command& after : changed) {
    load({after});
    EXPECT_EQ(logged_times(erase_text(before.ToString())), 1) << before.ToString();
    EXPECT_THAT(pass(), ElementsAre(after.folder)) << after.ToString();
    before = after;
  }
}

TEST_F(Jobs, AJobThatLeftTheFileHasNoHistoryWhenItComesBack) {
  load_early({weekly_});
  (void)pass();
  load({});
  EXPECT_THAT(logged(), Contains(erase_text(weekly_.ToString())));
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
  EXPECT_EQ(logged_times(no_area), 0);
}

TEST_F(PublishedJobs, NoneLeavesNothing) {
  load({});
  EXPECT_EQ(area(), filled(""));
}

TEST_F(PublishedJobs, AShorterTextLeavesNothingOfALongerOne) {
  load({weekly_, command_for("/data/that/is/long")});
  load({command_for("/d")});
  EXPECT_EQ(area(), filled("2:30|1|2|/d|0|false\n"));
}

TEST_F(PublishedJobs, AOneShotJobIsGoneAfterThePassThatRanIt) {
  load_early({weekly_, once_});
  EXPECT_EQ(area(), filled(once_.ToString() + "\n" + weekly_.ToString() + "\n"));
  (void)pass();
  EXPECT_EQ(area(), filled(weekly_.ToString() + "\n"));
}

TEST_F(PublishedJobs, EachPassWritesThemAgain) {
  load({weekly_});
  statistics().jobs[0] = '?';
  executor().perform();
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

TEST_F(PublishedJobs, ATextOneByteLongerIsRefusedAndTheOldOneStays) {
  load({weekly_});
  const Command job = job_of(FSFILTER_TEXT_SIZE + 1);
  ASSERT_EQ(job.ToString().size(), 10240U);
  load({job});
  EXPECT_EQ(area(), filled(weekly_.ToString() + "\n"));
  EXPECT_EQ(logged_times(too_big), 1);
}

TEST_F(PublishedJobs, ManyJobsAreMeasuredTogether) {
  const Command first = job_of(5240);
  const Command second = job_of(5000);
  load({first, second});
  EXPECT_TRUE(area() == first.ToString() + "\n" + second.ToString() + "\n");
  load({first, job_of(5001)});
  EXPECT_EQ(logged_times(too_big), 1);
}

TEST_F(PublishedJobs, JobsThatAreTooManyToPublishRunAllTheSame) {
  const Command job = job_of(FSFILTER_TEXT_SIZE + 1);
  load_early({job, weekly_});
  executor().perform();
  EXPECT_EQ(logged_times(start_record(share_)), 1);
  EXPECT_EQ(logged_times(too_big), 2);
}

TEST_F(PublishedJobs, WithoutAFilterAnyMoreTheAreaIsMissed) {
  load({weekly_});
  (void)service().unreg_filter();
  executor().perform();
  EXPECT_EQ(logged_times(no_area), 1);
}

TEST_F(PublishedJobs, ATooLongTextIsRefusedBeforeTheAreaIsMissed) {
  (void)service().unreg_filter();
  load({job_of(FSFILTER_TEXT_SIZE + 1)});
  EXPECT_EQ(logged_times(too_big), 1);
  EXPECT_EQ(logged_times(no_area), 0);
}

}  // namespace
