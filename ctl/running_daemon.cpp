#include "running_daemon.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string_view>
#include <vector>

#include "command_options.h"
#include "fsfilter.h"
#include "printing.h"
#include "settings_file.h"

namespace {

constexpr std::string_view deleted_mark = " (deleted)";  // the kernel's

// The configuration files on the daemon's command line, in order, read as the daemon reads them.
std::vector<std::string> configuration_files(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) {
    arguments.push_back(const_cast<char*>(word.c_str()));  // getopt moves them, nothing more
  }
  arguments.push_back(nullptr);
  std::vector<std::string> files;
  optind = 0;
  opterr = 0;
  for (int found = 0; (found = getopt_long(static_cast<int>(words.size()), arguments.data(),
                                           short_options, long_options, nullptr)) != -1;) {
    if (found == 'c') {
      files.emplace_back(optarg);
    }
  }
  return files;
}

// Relative names are tried from the directory in which the process is, which is that of its start
// unless it has detached.
std::string seen_from(pid_t pid, const std::string& file) {
  return file.starts_with('/') ? file : "/proc/" + std::to_string(pid) + "/cwd/" + file;
}

// The commands file of a daemon with this configuration. What is no regular file is passed over: a
// pipe that the daemon was given would be waited on for ever.
std::string commands_file_of(pid_t pid) {
  GlobalConfig config;
  for (const std::string& file : configuration_files(command_line_of(pid))) {
    std::istringstream content(read_settings_file(seen_from(pid, file)).text.value_or(""));
    ConfParser parser;
    parser.parse(content);
    if (const ConfParser::Value* folder = parser.peek("ConfPath");
        folder != nullptr && !folder->text.empty()) {
      config.ConfPath = folder->text;
    }
  }
  return seen_from(pid, config.getCommandsFileName());
}

// A log that rotation has renamed also counts, since the daemon does not follow the rotation.
bool names_a_log(const std::string& file) {
  return file.substr(file.find_last_of('/') + 1).starts_with(log_file_name);
}

// The owner that the status area names; 0 without an area.
pid_t owner_of_the_area() {
  const auto area = std::make_unique<fsfilter_status_struct>();
  return fsfilter_read_status(area.get()) == 0 ? area->owner_pid : 0;
}

// The pid file names no running daemon. One may run all the same: it makes no new pid file while an
// old one exists.
NoDaemon not_by_the_file(const std::string& why) {
  const pid_t owner = owner_of_the_area();
  if (!is_pelowatchd(owner)) {
    return {false, why};
  }
  return {true,
          fmt::format("process {} is a pelowatchd, but nothing was sent to it: {}", owner, why)};
}

NoDaemon not_opened(pid_t pid, int error) {
  if (error == ESRCH) {
    return not_by_the_file(fmt::format(
        "{} is left from process {}, which has ended; the next pelowatchd does not replace it",
        pid_file, pid));
  }
  return {true, fmt::format("process {}, which {} names, cannot be reached: {}", pid, pid_file,
                            std::strerror(error))};
}

}  // namespace

pid_t pid_in_file() {
  std::istringstream file(read_settings_file(pid_file).text.value_or(""));
  pid_t pid = 0;
  return file >> pid ? pid : 0;
}

std::variant<ProcessHandle, NoDaemon> find_daemon() {
  const pid_t pid = pid_in_file();
  if (pid <= 0) {
    return not_by_the_file("there is no pid in " + pid_file);
  }
  // Opened before it is checked, so that the file that is checked is the one that is read.
  std::optional<ProcessHandle> process = ProcessHandle::open(pid);
  if (!process) {
    return not_opened(pid, errno);
  }
  if (!is_pelowatchd(pid)) {
    const std::optional<ProcessFacts> facts = facts_of(pid);
    return NoDaemon{
        true, fmt::format("{} names process {} ({}), which is no pelowatchd; nothing was sent",
                          pid_file, pid, printable(facts ? facts->name : "?"))};
  }
  return std::move(*process);
}

std::variant<LogFile, NoLog> log_file_of(pid_t pid) {
  const std::optional<std::vector<std::string>> files = open_files_of(pid);
  if (!files) {
    return NoLog{true, "the log file cannot be seen: ask as root"};
  }
  const auto log = std::find_if(files->begin(), files->end(), names_a_log);
  if (log == files->end()) {
    return NoLog{false,
                 "no log file is open, so nothing is logged: look at LogPath, and restart "
                 "pelowatchd"};
  }
  if (log->ends_with(deleted_mark)) {
    return NoLog{false,
                 fmt::format("the log file {} was removed, so what is logged is lost: restart "
                             "pelowatchd",
                             printable(log->substr(0, log->size() - deleted_mark.size())))};
  }
  struct stat status {};
  if (stat(log->c_str(), &status) != 0) {
    return NoLog{false, fmt::format("the log file {} cannot be seen: {}", printable(*log),
                                    std::strerror(errno))};
  }
  return LogFile{*log, static_cast<std::uint64_t>(status.st_size)};
}

std::uint64_t dropped_texts_of(pid_t pid) {
  std::uint64_t count = 0;
  for (const std::string& name : thread_names_of(pid)) {
    char digits[11];
    char more = 0;
    if (std::sscanf(name.c_str(), "log -%10[0-9]%c", digits, &more) == 1) {
      count = std::stoull(digits);
    }
  }
  return count;
}

ConfParser::time_T commands_loaded(pid_t pid, std::time_t started) {
  // Not the modification time, which may be any: a copy can keep that of the original.
  struct stat commands {};
  (void)stat(commands_file_of(pid).c_str(), &commands);
  return ConfParser::time_T(std::max<std::time_t>(started + first_pass_delay, commands.st_ctime));
}
