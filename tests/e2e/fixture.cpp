#include "fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "in_quotes.h"
#include "isolation.h"

namespace e2e {
namespace {

void limit_descriptors(rlim_t soft, rlim_t hard) {
  rlimit values{};
  getrlimit(RLIMIT_NOFILE, &values);
  values.rlim_max = hard == 0 ? values.rlim_max : hard;
  values.rlim_cur = soft == 0 ? std::min(values.rlim_cur, values.rlim_max) : soft;
  setrlimit(RLIMIT_NOFILE, &values);
}

void set_environment(const std::map<std::string, std::string>& additions) {
  for (const auto& [name, value] : additions) {
    setenv(name.c_str(), value.c_str(), 1);
  }
}

/// A report's symbolizer opens files, for which it may have to wait for the thread that reports.
void keep_sanitizers_from_opening_files() {
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
    const char* before = std::getenv(name);
    const std::string options = before == nullptr ? "symbolize=0" : before;
    setenv(name, options.c_str(), 1);
  }
}

}  // namespace

size_t count_of(std::string_view text, std::string_view part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string_view::npos; at += part.size()) {
    ++count;
  }
  return count;
}

void E2eTest::SetUp() {
  if (!missing_privilege().empty()) {
    if (std::getenv("CI") != nullptr) {
      FAIL() << "end-to-end tests cannot run here: " << missing_privilege();
    }
    // The rest of the test is the daemon, which would end at once here.
    GTEST_SKIP() << "end-to-end tests cannot run here: " << missing_privilege();
  }
  world_.emplace();
  set("LogPath", work("log"));
  set("DatabaseDirectory", work("db"));
  set("StagingDirectory", work("staging"));
  set("ConfPath", work("conf"));
  set("IncludeDirectory", watched());
  world_->put(work("probe"), "");
  world_->put(work("engine.record"), "");
  prepare();
}

void E2eTest::TearDown() {
  if (!world_) {
    return;
  }
  if (daemon_ && clean_end_) {
    if (daemon_->running()) {
      EXPECT_TRUE(eventually([&] { return held_descriptors() == 0; }))
          << held_descriptors() << " events' descriptors are still open";
      stop();
    } else {
      EXPECT_EQ(daemon_->wait(), Exit{});
      expect_nothing_left();
    }
  }
  daemon_.reset();
  expect_faultless_records();
  if (HasFailure()) {
    show_records();
  }
  world_.reset();
}

std::string E2eTest::put(const std::string& name, const std::string& content) const {
  world_->put(watched(name), content);
  return watched(name);
}

std::string E2eTest::put_infected(const std::string& name, const std::string& details) const {
  return put(name, "!detect name=Test.Infected " + details + "\n");
}

std::vector<std::string> E2eTest::names(const std::string& name, int count) const {
  std::vector<std::string> files;
  for (int i = 0; i < count; ++i) {
    files.push_back(watched(name + std::to_string(i)));
  }
  return files;
}

std::vector<std::string> E2eTest::put_files(const std::string& name, int count,
                                            const std::string& content) const {
  std::vector<std::string> files = names(name, count);
  for (const std::string& file : files) {
    world_->put(file, content);
  }
  return files;
}

Process E2eTest::open_waiting(const std::string& file) {
  Process opener = start_open(file);
  EXPECT_TRUE(eventually([&] { return scans_begun(file) == 1; }));
  return opener;
}

std::vector<Process> E2eTest::stick_workers(int count) {
  std::vector<Process> openers;
  for (const std::string& file : put_files("stuck", count, waiting())) {
    openers.push_back(open_waiting(file));
  }
  return openers;
}

std::string E2eTest::touch(const std::string& path) const {
  world_->put(path, "");
  return path;
}

void E2eTest::set(const std::string& key, const std::string& value) {
  drop(key);
  add(key, value);
}

void E2eTest::add(const std::string& key, const std::string& value) {
  settings_.emplace_back(key, value);
}

void E2eTest::drop(const std::string& key) {
  std::erase_if(settings_, [&](const auto& setting) { return setting.first == key; });
}

void E2eTest::script(const std::string& lines) const {
  world_->put(work("engine.script"), lines);
}

void E2eTest::write_configuration() const {
  std::string text;
  for (const auto& [key, value] : settings_) {
    text += key + " " + value + "\n";
  }
  world_->put(work("pelowatchd.conf"), text);
}

std::vector<std::string> E2eTest::command(const Launch& launch) const {
  std::vector<std::string> words = launch.wrapper;
  words.emplace_back(PELO_DAEMON);
  if (launch.arguments.empty()) {
    words.insert(words.end(), {"-n", "-c", work("pelowatchd.conf")});
  } else {
    words.insert(words.end(), launch.arguments.begin(), launch.arguments.end());
  }
  return words;
}

/// In the new process: everything between fork and exec.
void E2eTest::run_daemon(const Launch& launch, int standard_output, int standard_error) const {
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
  dup2(standard_output, 1);
  dup2(standard_error, 2);
  limit_descriptors(launch.soft_descriptors, launch.hard_descriptors);
  const std::string libraries = PELO_LIBRARIES;
  set_environment({{"LD_LIBRARY_PATH", libraries + "/scripted:" + libraries + "/event"},
                   {"PELO_TEST_ENGINE_RECORD", work("engine.record")},
                   {"PELO_TEST_ENGINE_SCRIPT", work("engine.script")},
                   {"PELO_TEST_EVENT_RECORD", work("event.record")}});
  keep_sanitizers_from_opening_files();
  set_environment(launch.environment);
  execute(command(launch));
}

Process E2eTest::spawn(const Launch& launch) {
  write_configuration();
  constexpr int open_flags = O_WRONLY | O_CREAT | O_APPEND;
  const bool own = launch.output < 0;
  const int standard_output = own ? world_->open_unseen(work("stdout"), open_flags) : launch.output;
  const int standard_error = own ? world_->open_unseen(work("stderr"), open_flags) : launch.output;
  Process process([&]() -> int { run_daemon(launch, standard_output, standard_error); });
  if (own) {
    close(standard_output);
    close(standard_error);
  }
  return process;
}

void E2eTest::launch(const Launch& launch) {
  daemon_.reset();
  daemon_ = spawn(launch);
  clean_end_ = true;
}

void E2eTest::start(const Launch& how) {
  launch(how);
  wait_until_ready();
}

void E2eTest::wait_until_ready() {
  // The watched mount is the last one of the table. An open on a marked mount outside the included
  // folders then returns as soon as the loop runs.
  ASSERT_TRUE(eventually([&] { return is_registered(watched()) || !daemon_->running(); }));
  ASSERT_TRUE(daemon_->running()) << "the daemon ended: " << *daemon_->wait();
  ASSERT_EQ(open_status(work("probe")), 0);
}

pid_t E2eTest::daemon_pid() const {
  const auto area = StatusArea::map();
  return area ? area->owner() : -1;
}

void E2eTest::stop(Duration bound) {
  daemon_->signal(SIGTERM);
  const auto exit = daemon_->wait(bound);
  EXPECT_TRUE(exit.has_value()) << "still running after " << bound.count() << " ms:\n"
                                << waits_of(daemon_->pid());
  if (exit) {
    EXPECT_EQ(*exit, Exit{});
    expect_nothing_left();
  }
  daemon_->kill_and_reap();
  clean_end_ = false;
}

void E2eTest::kill_daemon() {
  daemon_->kill_and_reap();
  clean_end_ = false;
}

void E2eTest::stage_definitions() const {
  world_->put(work("staging/antivir.def"), "definitions");
  world_->put(work("staging/aivsecon.def"), "definitions");
}

std::vector<std::string> E2eTest::engine_calls(const std::string& call,
                                               const std::vector<std::string>& texts) const {
  std::vector<std::string> found;
  for (const std::string& line : lines_of(engine_record())) {
    const bool meant = line.compare(0, call.size() + 1, call + " ") == 0 &&
                       std::all_of(texts.begin(), texts.end(), [&](const std::string& text) {
                         return line.find(text) != std::string::npos;
                       });
    if (meant) {
      found.push_back(line);
    }
  }
  return found;
}

void E2eTest::wait_for_begin(const std::string& call, size_t count) const {
  ASSERT_TRUE(eventually([&] { return engine_calls(call + "-begin").size() >= count; }))
      << engine_record();
}

void E2eTest::wait_for_handles(size_t count) const {
  // The last call for a new handle sets this property.
  ASSERT_TRUE(eventually([&] { return engine_calls("vseSet", {"property=9 "}).size() == count; }));
}

void E2eTest::expect_logged(const std::string& text) const {
  EXPECT_TRUE(eventually([&] { return logged(text); })) << text << "\n" << log();
}

void E2eTest::expect_registered(const std::string& mount, Duration bound) {
  EXPECT_TRUE(eventually([&] { return is_registered(mount); }, bound)) << mount;
}

void E2eTest::expect_forgotten(const std::string& mount, Duration bound) {
  EXPECT_TRUE(eventually([&] { return !is_registered(mount); }, bound)) << mount;
}

size_t E2eTest::scans(const std::string& path) const {
  return engine_calls("vseExec", {"operation=9 path=" + in_quotes(path) + " "}).size();
}

size_t E2eTest::scans_begun(const std::string& path) const {
  return engine_calls("vseExec-begin", {"operation=9 path=" + in_quotes(path) + " "}).size();
}

std::vector<std::string> E2eTest::events() const {
  return lines_of(world_->read(work("event.record")));
}

std::string E2eTest::daemon_status(const std::string& name) const {
  return status_value("/proc/" + std::to_string(daemon_pid()), name);
}

std::vector<std::string> E2eTest::descriptors() const {
  return link_targets_in("/proc/" + std::to_string(daemon_pid()) + "/fd");
}

size_t E2eTest::held_descriptors() const {
  const auto targets = descriptors();
  return static_cast<size_t>(std::count_if(targets.begin(), targets.end(), [&](const auto& target) {
    return target.compare(0, watched().size(), watched()) == 0;
  }));
}

void E2eTest::expect_nothing_left() const {
  EXPECT_FALSE(World::exists(StatusArea::path)) << "the status area is still there";
  EXPECT_FALSE(World::exists(pid_file)) << "the pid file is still there";
}

void E2eTest::leave_area(pid_t owner, off_t size) {
  const int fd = open(StatusArea::path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  ASSERT_EQ(ftruncate(fd, size), 0);
  close(fd);
  if (auto area = StatusArea::map()) {
    area->set_owner(owner);
  }
}

pid_t E2eTest::dead_pid() {
  Process process([] { return 0; });
  process.wait();
  return process.pid();
}

void E2eTest::expect_faultless_records() const {
  for (const char* fault : {"VIOLATION", "script-error", "directive-error"}) {
    EXPECT_EQ(engine_record().find(fault), std::string::npos) << engine_record();
  }
  for (const char* report : {"Sanitizer", "runtime error:", "terminate called"}) {
    EXPECT_EQ(errors().find(report), std::string::npos) << errors();
  }
}

void E2eTest::show_records() const {
  constexpr size_t most_shown = 4000;
  for (const auto& [name, text] : {std::pair{"stdout", output()}, std::pair{"stderr", errors()},
                                   std::pair{"log", log()}, std::pair{"engine", engine_record()}}) {
    const size_t begin = text.size() > most_shown ? text.size() - most_shown : 0;
    std::fprintf(stderr, "---- end of %s:\n%s\n", name, text.substr(begin).c_str());
  }
}

}  // namespace e2e
