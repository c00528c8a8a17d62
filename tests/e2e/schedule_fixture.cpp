#include "schedule_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <stdexcept>

namespace e2e {
namespace {

constexpr const char* repeat_words[] = {"NO", "DAILY", "WEEKLY", "MONTHLY", "QUARTERLY"};
constexpr const char* action_words[] = {"REPORT", "DISINFECT", "DELETE"};

template <size_t size>
std::string number_of(const std::string& word, const char* const (&words)[size]) {
  for (size_t number = 0; number < size; ++number) {
    if (word == words[number]) {
      return std::to_string(number);
    }
  }
  throw std::invalid_argument(word);
}

/// A POSIX time zone whose clock is so many seconds behind UTC.
std::string zone_behind_utc(time_t seconds) {
  const time_t distance = seconds < 0 ? -seconds : seconds;
  char text[32];
  std::snprintf(text, sizeof(text), "TST%s%02d:%02d:%02d", seconds < 0 ? "-" : "",
                static_cast<int>(distance / 3600), static_cast<int>(distance / 60 % 60),
                static_cast<int>(distance % 60));
  return text;
}

}  // namespace

std::string Job::block() const {
  char start[32];
  std::snprintf(start, sizeof(start), "%02d:%02d", hour, minute);
  return std::string("scan\nstart ") + start + "\nday " + day_words[day] + "\nrepeat " + repeat +
         "\nfolder " + folder + "\naction " + action + "\nrecursive " + (recursive ? "yes" : "no") +
         "\n";
}

std::string Job::key() const {
  return std::to_string(hour) + ":" + std::to_string(minute) + "|" + std::to_string(day) + "|" +
         number_of(repeat, repeat_words) + "|" + folder + "|" + number_of(action, action_words) +
         "|" + (recursive ? "true" : "false");
}

void ScheduleTest::start_at_noon(Launch how, int second) {
  behind_utc_ = time(nullptr) % 86400 - (12 * 3600 + second);
  how.environment["TZ"] = time_zone();
  start(how);
  if (how.environment.count("LD_LIBRARY_PATH") == 0) {
    ASSERT_TRUE(eventually([&] { return !engine_calls("vseInit").empty(); }));
  }
}

std::string ScheduleTest::time_zone() const {
  return zone_behind_utc(behind_utc_);
}

std::tm ScheduleTest::local_time(time_t at) const {
  const time_t local = at - behind_utc_;
  std::tm parts{};
  gmtime_r(&local, &parts);
  return parts;
}

Job ScheduleTest::due_job(const std::string& folder, const std::string& repeat) {
  constexpr int latest_second = 30;  // second of a minute
  if (!due_) {
    EXPECT_TRUE(eventually([&] { return local_time().tm_sec <= latest_second; }, 2 * patience));
    due_ = local_time();
  }
  Job job;
  job.hour = due_->tm_hour;
  job.minute = due_->tm_min;
  job.day = due_->tm_wday;
  job.folder = folder;
  job.repeat = repeat;
  return job;
}

void ScheduleTest::write_commands(const std::string& text) {
  due_.reset();
  const std::string draft = work("conf/draft");
  world().put(draft, text);
  modified_ += 10;
  const timespec times[] = {{modified_, 0}, {modified_, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, draft.c_str(), times, 0), 0);
  ASSERT_EQ(rename(draft.c_str(), commands_file().c_str()), 0);
}

void ScheduleTest::write_jobs(const std::vector<Job>& jobs) {
  std::string text;
  for (const Job& job : jobs) {
    text += job.block();
  }
  write_commands(text);
}

void ScheduleTest::run_pass() {
  const size_t begun = count_of(log(), "scanner_func(): commands file is: ");
  ASSERT_TRUE(eventually([&] {
    daemon().signal(SIGUSR2);
    return eventually([&] { return count_of(log(), "scanner_func(): done\n") > begun; },
                      request_again);
  }));
}

void ScheduleTest::run_jobs(const std::vector<Job>& jobs) {
  ASSERT_NO_FATAL_FAILURE(write_jobs(jobs));
  ASSERT_NO_FATAL_FAILURE(run_pass());
}

std::string ScheduleTest::start_record(const std::string& folder, int recursion) {
  return "\nScan started: Session ID: -1\nPath: \"" + folder +
         "\"\nRecursion: " + std::to_string(recursion) + "\n";
}

std::string ScheduleTest::stop_record(const std::string& folder, bool detections, int handle) {
  return "\nScan completed: Session ID: " + std::to_string(0x1000 + handle) + "\nPath: \"" +
         folder + "\"\nDetections: \"" + (detections ? "yes" : "no") + "\"\n";
}

std::vector<std::string> ScheduleTest::scanned() const {
  std::vector<std::string> paths;
  for (const std::string& call : engine_calls("vseExec", {"operation=9 "})) {
    const size_t begin = call.find("path=\"") + 6;
    paths.push_back(call.substr(begin, call.find('"', begin) - begin));
  }
  return paths;
}

}  // namespace e2e
