#include "ctl_fixture.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace e2e {
namespace {

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

bool become_nobody() {
  return setgroups(0, nullptr) == 0 && setresgid(nobody_id, nobody_id, nobody_id) == 0 &&
         setresuid(nobody_id, nobody_id, nobody_id) == 0;
}

void set_environment(const Tool& tool) {
  setenv("TERM", "xterm", 1);
  unsetenv("NO_COLOR");
  for (const auto& [name, value] : tool.environment) {
    setenv(name.c_str(), value.c_str(), 1);
  }
}

}  // namespace

Terminal::Terminal() : outer_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)), inner_(-1) {
  if (outer_ < 0 || grantpt(outer_) != 0 || unlockpt(outer_) != 0) {
    fail("pseudo-terminal");
  }
  inner_ = open(ptsname(outer_), O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios settings{};
  if (inner_ < 0 || tcgetattr(inner_, &settings) != 0) {
    fail("pseudo-terminal");
  }
  cfmakeraw(&settings);
  tcsetattr(inner_, TCSANOW, &settings);
  fcntl(outer_, F_SETFL, O_NONBLOCK);
}

Terminal::~Terminal() {
  close(inner_);
  close(outer_);
}

const std::string& Terminal::shown() {
  char buffer[4096];
  for (ssize_t got = 0; (got = read(outer_, buffer, sizeof(buffer))) > 0;) {
    shown_.append(buffer, static_cast<size_t>(got));
  }
  return shown_;
}

void CtlTest::prepare() {
  ScheduleTest::prepare();
  set("Loglevel", "1");
}

/// In the new process: everything between fork and exec.
int CtlTest::run_pelowatchctl(const Tool& tool, int output, int errors) {
  if (tool.beside_the_marks && unshare(CLONE_NEWNS) != 0) {
    return 126;
  }
  // Of these mounts, and with the rights to the folders above it.
  const int program = open(PELO_CTL, O_PATH | O_CLOEXEC);
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
  dup2(output, 1);
  dup2(errors, 2);
  set_environment(tool);
  if (chdir(tool.folder.c_str()) != 0 || (tool.as_nobody && !become_nobody())) {
    return 126;
  }
  if (tool.descriptors != 0) {
    const rlimit limit{tool.descriptors, tool.descriptors};
    setrlimit(RLIMIT_NOFILE, &limit);
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);  // it has none but its streams
  }
  // By descriptor, since the folders above it may be closed to others than root.
  Words words = {"pelowatchctl"};
  words.insert(words.end(), tool.arguments.begin(), tool.arguments.end());
  fexecve(program, arguments_of(words).data(), environ);
  return 127;
}

Process CtlTest::start_tool(const Tool& tool) {
  constexpr int open_flags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
  const int file = world().open_unseen(work("ctl.out"), open_flags);
  const int errors = world().open_unseen(work("ctl.err"), open_flags);
  const int output = tool.output < 0 ? file : tool.output;
  Process process([&] { return run_pelowatchctl(tool, output, errors); });
  for (const int descriptor : {file, errors}) {
    close(descriptor);
  }
  return process;
}

Outcome CtlTest::run_tool(const Tool& tool) {
  Process process = start_tool(tool);
  Outcome outcome{process.wait(), out(), err()};
  EXPECT_TRUE(outcome.exit.has_value()) << "pelowatchctl does not end:\n"
                                        << waits_of(process.pid());
  for (const char* report : {"Sanitizer", "runtime error:", "terminate called"}) {
    EXPECT_EQ(outcome.err.find(report), std::string::npos) << outcome.err;
  }
  return outcome;
}

Outcome CtlTest::ctl(const Words& arguments) {
  return run_tool({.arguments = arguments});
}

Outcome CtlTest::ctl_aside(const Words& arguments) {
  return run_tool({.arguments = arguments, .beside_the_marks = true});
}

std::string CtlTest::printed(const Words& arguments) {
  const Outcome outcome = ctl(arguments);
  EXPECT_EQ(outcome.exit, exit_ok) << testing::PrintToString(arguments);
  EXPECT_EQ(outcome.err, "") << testing::PrintToString(arguments);
  return outcome.out;
}

void CtlTest::expect_refusal(const Words& arguments, const Exit& exit, const std::string& words) {
  const Outcome outcome = ctl(arguments);
  EXPECT_EQ(outcome.exit, exit) << testing::PrintToString(arguments);
  EXPECT_EQ(outcome.out, "") << testing::PrintToString(arguments);
  EXPECT_EQ(outcome.err, "pelowatchctl: " + words + "\n") << testing::PrintToString(arguments);
}

std::optional<std::string> CtlTest::status_row(const std::string& title) {
  return row(ctl({"status"}).out, title);
}

Json CtlTest::status() {
  const Outcome outcome = ctl_aside({"status", "--json"});
  EXPECT_EQ(outcome.exit, exit_ok);
  EXPECT_EQ(outcome.err, "");
  return parsed(outcome.out);
}

void CtlTest::put_pid_file(const std::string& content) {
  World::make_folder("/run/pelo");
  world().put(pid_file, content);
}

Process CtlTest::bystander(uid_t user, const std::string& name) {
  const Shared<std::atomic<bool>> ready;
  Process process([&] {
    prctl(PR_SET_NAME, name.c_str());
    if (user != 0 && !become_nobody()) {
      return 126;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a change of user takes it away
    *ready = true;
    for (;;) {
      pause();
    }
  });
  EXPECT_TRUE(eventually([&] { return ready->load(); }));
  return process;
}

std::optional<std::string> row(const std::string& table, const std::string& title) {
  for (const std::string& line : lines_of(table)) {
    if (line.rfind(title + " ", 0) == 0) {
      return line.substr(std::min(line.size(), line.find_first_not_of(' ', title.size())));
    }
  }
  return std::nullopt;
}

void expect_harmless(const std::string& text) {
  EXPECT_NO_THROW((void)Json(text).dump()) << "no UTF-8: " << testing::PrintToString(text);
  for (size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const bool control = (byte < 0x20 && byte != '\n') || byte == 0x7f ||
                         (byte < 0xa0 && at > 0 && text[at - 1] == '\xc2');
    ASSERT_FALSE(control) << "byte " << int{byte} << " at " << at
                          << " of: " << testing::PrintToString(text.substr(0, 200));
  }
}

Json parsed(const std::string& text) {
  Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) {
    ADD_FAILURE() << "no JSON: " << testing::PrintToString(text.substr(0, 200));
    return nullptr;
  }
  return json;
}

}  // namespace e2e
