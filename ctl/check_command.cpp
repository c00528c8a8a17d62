#include "check_command.h"

#include <fmt/format.h>

#include <cstring>
#include <ctime>
#include <ostream>
#include <utility>

#include "check_output.h"
#include "exit_status.h"
#include "printing.h"
#include "settings_file.h"

namespace {

ExitStatus cannot_read(const std::string& file, const std::string& why, std::ostream& errors) {
  errors << fmt::format("pelowatchctl: cannot read {}: {}\n", printable(cut(file)), why);
  return exit_usage;
}

LoadTime load_time(const CheckOptions& options) {
  return options.loaded_at ? LoadTime{*options.loaded_at, false}
                           : LoadTime{ConfParser::time_T(std::time(nullptr)), true};
}

}  // namespace

std::optional<ConfParser::time_T> time_of_day(const std::string& text) {
  std::tm time{};
  const char* const end = strptime(text.c_str(), "%H:%M", &time);
  if (text.size() != std::strlen("HH:MM") || text.find(' ') != std::string::npos ||
      end != text.c_str() + text.size()) {
    return std::nullopt;
  }
  return ConfParser::time_T(time.tm_hour, time.tm_min);
}

ExitStatus run_check(const CheckOptions& options, std::ostream& out, std::ostream& errors) {
  const FileContent config = read_settings_file(options.config_file);
  if (!config.text) {
    return cannot_read(options.config_file, config.why, errors);
  }
  CheckResult result;
  result.config_file = options.config_file;
  result.config = check_config(options.config_file, *config.text, options.mounts);
  result.commands_file =
      options.commands_file.value_or(seen_by_daemon(result.config.settings.getCommandsFileName()));
  const FileContent commands = read_settings_file(result.commands_file);
  result.has_commands_file = commands.text.has_value();
  if (commands.text) {
    result.commands = check_commands(
        result.commands_file, *commands.text, load_time(options),
        {result.config.exclusions, result.config.settings.MaxRecursion, options.config_file});
  } else if (options.commands_file || !commands.missing) {
    return cannot_read(result.commands_file, commands.why, errors);
  }
  write_result(result, options.json, out);
  return result.clean() ? exit_ok : exit_failed;
}
