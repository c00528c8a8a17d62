#include "check_output.h"

#include <fmt/format.h>

#include <ostream>

#include "json_text.h"
#include "printing.h"
#include "record_check.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* not_shown = "(set, not shown)";
constexpr int mebibyte_shift = 20;

// The value of a field as a word or number.
Json json_value(int value) {
  return value;
}
Json json_value(bool value) {
  return value;
}
Json json_value(std::uint64_t bytes) {
  return bytes >> mebibyte_shift;
}
Json json_value(const std::string& value) {
  return value;
}
Json json_value(ConfParser::detect_action_t value) {
  return ConfParser::word(value);
}
Json json_value(ConfParser::definition_type_t value) {
  return ConfParser::word(value);
}

std::string text_value(int value) {
  return std::to_string(value);
}
std::string text_value(bool value) {
  return value ? "yes" : "no";
}
std::string text_value(std::uint64_t bytes) {
  return fmt::format("{} MiB", bytes >> mebibyte_shift);
}
std::string text_value(const std::string& value) {
  return value.empty() ? "(empty)" : printable(cut(value));
}
std::string text_value(ConfParser::detect_action_t value) {
  return ConfParser::word(value);
}
std::string text_value(ConfParser::definition_type_t value) {
  return ConfParser::word(value);
}

bool hides(const SettingOrigin& origin, const std::string& value) {
  return origin.key->name == secret_key && !value.empty();
}
template <typename T>
bool hides(const SettingOrigin&, const T&) {
  return false;
}

std::string origin_text(const std::string& file, std::size_t line) {
  return fmt::format("{}:{}", printable(cut(file)), line);
}

void write_row(std::string_view key, const std::string& value, const std::string& origin,
               std::ostream& out) {
  out << fmt::format("  {:<30}  {:<24}  {}\n", key, value, origin);
}

void write_list(const CheckResult& result, const SettingOrigin& origin, std::ostream& out) {
  if (origin.lines.empty()) {
    write_row(origin.key->name, "(none)", "default", out);
  }
  for (const FileLine& line : origin.lines) {
    write_row(origin.key->name, text_value(line.value),
              origin_text(result.config_file, line.number), out);
  }
}

void write_setting(const CheckResult& result, const SettingOrigin& origin, std::ostream& out) {
  const auto write = [&](auto field) {
    if constexpr (is_list(decltype(field){})) {
      write_list(result, origin, out);
    } else {
      const auto& value = result.config.settings.*field;
      write_row(origin.key->name, hides(origin, value) ? not_shown : text_value(value),
                origin.lines.empty() ? "default"
                                     : origin_text(result.config_file, origin.lines.front().number),
                out);
    }
  };
  std::visit(write, origin.key->field);
}

void write_finding(const Finding& finding, std::ostream& out) {
  out << printable(finding.file);
  if (finding.line != 0) {
    out << ':' << finding.line;
  }
  out << ": ";
  if (!finding.key.empty()) {
    out << printable(finding.key) << ": ";
  }
  out << printable(finding.text) << '\n';
}

void write_jobs(const CheckResult& result, std::ostream& out) {
  const std::string file = printable(cut(result.commands_file));
  if (result.commands.jobs.empty()) {
    out << fmt::format("No scheduled scans: {} {}\n", file,
                       result.has_commands_file ? "holds none" : "does not exist");
    return;
  }
  out << "Scheduled scans\n";
  for (const CheckedJob& job : result.commands.jobs) {
    out << fmt::format("  {}  {}\n", printable(in_words(job.command)),
                       origin_text(result.commands_file, job.line));
  }
}

Json json_finding(const Finding& finding) {
  return {{"file", finding.file},
          {"line", finding.line},
          {"key", finding.key},
          {"message", finding.text}};
}

Json json_lines(const SettingOrigin& origin) {
  Json lines = Json::array();
  for (const FileLine& line : origin.lines) {
    lines.push_back(line.number);
  }
  return lines;
}

Json json_list(const SettingOrigin& origin) {
  Json values = Json::array();
  for (const FileLine& line : origin.lines) {
    values.push_back(line.value);
  }
  return values;
}

Json json_setting(const CheckResult& result, const SettingOrigin& origin) {
  const auto value = [&](auto field) -> Json {
    if constexpr (is_list(decltype(field){})) {
      return json_list(origin);
    } else {
      const auto& held = result.config.settings.*field;
      return hides(origin, held) ? Json(not_shown) : json_value(held);
    }
  };
  Json setting{{"value", std::visit(value, origin.key->field)},
               {"default", origin.lines.empty()},
               {"lines", json_lines(origin)}};
  if (std::holds_alternative<std::uint64_t GlobalConfig::*>(origin.key->field)) {
    setting["unit"] = "MiB";
  }
  return setting;
}

Json json_job(const CheckResult& result, const CheckedJob& job) {
  const Command& command = job.command;
  return {{"file", result.commands_file},
          {"line", job.line},
          {"folder", command.folder},
          {"start", clock_text(command.start)},
          {"day", ConfParser::word(command.day)},
          {"repeat", ConfParser::word(command.repeat)},
          {"action", ConfParser::word(command.action)},
          {"recursive", command.recursive},
          {"words", in_words(command)}};
}

}  // namespace

Findings all_findings(const CheckResult& result) {
  Findings all = result.config.findings;
  all.insert(all.end(), result.commands.findings.begin(), result.commands.findings.end());
  return all;
}

void write_for_people(const CheckResult& result, std::ostream& out) {
  const Findings findings = all_findings(result);
  for (const Finding& finding : findings) {
    write_finding(finding, out);
  }
  out << (findings.empty() ? "" : "\n") << "Settings\n";
  for (const SettingOrigin& origin : result.config.origins) {
    write_setting(result, origin, out);
  }
  out << '\n';
  write_jobs(result, out);
  out << '\n'
      << (findings.empty()
              ? "nothing found"
              : fmt::format("{} finding{}", findings.size(), findings.size() == 1 ? "" : "s"))
      << '\n';
}

void write_json(const CheckResult& result, std::ostream& out) {
  Json findings = Json::array();
  for (const Finding& finding : all_findings(result)) {
    findings.push_back(json_finding(finding));
  }
  Json settings = Json::object();
  for (const SettingOrigin& origin : result.config.origins) {
    settings[origin.key->name] = json_setting(result, origin);
  }
  Json jobs = Json::array();
  for (const CheckedJob& job : result.commands.jobs) {
    jobs.push_back(json_job(result, job));
  }
  const Json whole{{"config_file", result.config_file},
                   {"commands_file", result.commands_file},
                   {"findings", std::move(findings)},
                   {"settings", std::move(settings)},
                   {"jobs", std::move(jobs)}};
  out << json_text(whole, 2);
}
