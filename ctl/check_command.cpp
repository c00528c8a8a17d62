#include "check_command.h"

#include <fmt/format.h>

#include <cstdlib>
#include <ctime>
#include <ostream>
#include <utility>

#include "check_output.h"
#include "exit_status.h"
#include "file_lines.h"
#include "logger.h"
#include "printing.h"

namespace {

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

ExitStatus cannot_read(const std::string& file, const std::string& why, std::ostream& errors) {
  errors << fmt::format("pelowatchctl: cannot read {}: {}\n", printable(cut(file)), why);
  return exit_usage;
}

LoadTime load_time(const CheckOptions& options) {
  if (options.loaded_at) {
    return {*options.loaded_at, false};
  }
  return {ConfParser::time_T(std::time(nullptr)), true};
}

// In the background, where the daemon reads it, its working directory is "/".
std::string default_commands_file(const GlobalConfig& settings) {
  std::string file = settings.getCommandsFileName();
  return file.starts_with('/') ? file : "/" + file;
}

ExitStatus write(const CheckResult& result, bool json, std::ostream& out) {
  if (json) {
    write_json(result, out);
  } else {
    write_for_people(result, out);
  }
  return all_findings(result).empty() ? exit_ok : exit_failed;
}

}  // namespace

std::optional<ConfParser::time_T> time_of_day(std::string_view text) {
  if (text.size() != 5 || text[2] != ':' || !is_digit(text[0]) || !is_digit(text[1]) ||
      !is_digit(text[3]) || !is_digit(text[4])) {
    return std::nullopt;
  }
  const int hour = (text[0] - '0') * 10 + text[1] - '0';
  const int minute = (text[3] - '0') * 10 + text[4] - '0';
  if (hour > 23 || minute > 59) {
    return std::nullopt;
  }
  return ConfParser::time_T(hour, minute);
}

ExitStatus run_check(const CheckOptions& options, std::ostream& out, std::ostream& errors) {
  Logger::keep_closed();
  const FileContent config = read_settings_file(options.config_file);
  if (!config.text) {
    return cannot_read(options.config_file, config.why, errors);
  }
  CheckResult result;
  result.config_file = options.config_file;
  result.loaded = load_time(options);
  result.config = check_config(options.config_file, *config.text, options.mounts);
  result.commands_file =
      options.commands_file.value_or(default_commands_file(result.config.settings));
  const FileContent commands = read_settings_file(result.commands_file);
  result.has_commands_file = commands.text.has_value();
  if (commands.text) {
    result.commands = check_commands(
        result.commands_file, *commands.text, result.loaded,
        {result.config.exclusions, result.config.settings.MaxRecursion, options.config_file});
  } else if (options.commands_file || !commands.missing) {
    return cannot_read(result.commands_file, commands.why, errors);
  }
  return write(result, options.json, out);
}
