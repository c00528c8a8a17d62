#include "check_output.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <list>
#include <type_traits>

#include "json_text.h"
#include "printing.h"
#include "record_check.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* not_shown = "(set, not shown)";

// The value of a field as a word or number.
template <typename T>
Json json_value(const T& value) {
  if constexpr (std::is_same_v<T, std::uint64_t>) {
    return value >> 20;
  } else if constexpr (std::is_enum_v<T>) {
    return ConfParser::word(value);
  } else {
    return value;
  }
}

// The value of a key and the lines that it is from: of a list all, of others the first if it
// converts.
template <typename T>
Json json_setting(const GlobalConfig& settings, const char* key, const T& held) {
  constexpr bool is_list = std::is_same_v<T, std::list<std::string>>;
  Json lines = Json::array();
  Json value = is_list ? Json::array() : json_value(held);
  const auto [first, last] = settings.parser().values().equal_range(key);
  if constexpr (is_list) {
    for (auto setting = first; setting != last; ++setting) {
      value.push_back(setting->second.text);
      lines.push_back(setting->second.line);
    }
  } else if (first != last && reading_of(first->second.text, held).applied) {
    lines.push_back(first->second.line);
  }
  if (key == secret_key && value != "") {
    value = not_shown;
  }
  const bool is_default = lines.empty();
  Json setting{{"value", std::move(value)}, {"default", is_default}, {"lines", std::move(lines)}};
  if constexpr (std::is_same_v<T, std::uint64_t>) {
    setting["unit"] = "MiB";
  }
  return setting;
}

Json json_settings(const GlobalConfig& settings) {
  Json all = Json::object();
  for (const GlobalConfig::Key& key : GlobalConfig::keys()) {
    all[key.name] = std::visit(
        [&](auto field) { return json_setting(settings, key.name, settings.*field); }, key.field);
  }
  return all;
}

Json json_jobs(const CheckResult& result) {
  Json jobs = Json::array();
  for (const auto& [command, line] : result.commands.jobs) {
    Json job{{"file", result.commands_file}, {"line", line}};
    add_command(job, command);
    job["words"] = in_words(command);
    jobs.push_back(std::move(job));
  }
  return jobs;
}

Json json_findings(const CheckResult& result) {
  Json all = Json::array();
  for (const Findings* findings : {&result.config.findings, &result.commands.findings}) {
    for (const Finding& finding : *findings) {
      all.push_back({{"file", finding.file},
                     {"line", finding.line},
                     {"key", finding.key},
                     {"message", finding.text}});
    }
  }
  return all;
}

// For people: the same things as text.

std::string text_of(const Json& json) {
  return json.get<std::string>();
}

std::string place(const Json& file, const Json& line) {
  return fmt::format("{}:{}", printable(cut(text_of(file))), line.get<std::size_t>());
}

std::string value_text(const Json& value) {
  if (value.is_boolean()) {
    return value.get<bool>() ? "yes" : "no";
  }
  if (!value.is_string()) {
    return value.dump();
  }
  return value == "" ? "(empty)" : printable(cut(text_of(value)));
}

void write_row(const std::string& key, const std::string& value, const std::string& origin,
               std::ostream& out) {
  fmt::print(out, "  {:<30}  {:<24}  {}\n", key, value, origin);
}

void write_setting(const std::string& key, const Json& setting, const Json& file,
                   std::ostream& out) {
  const Json& value = setting["value"];
  const Json& lines = setting["lines"];
  const std::string unit = setting.contains("unit") ? " " + text_of(setting["unit"]) : "";
  if (lines.empty()) {
    write_row(key, value.is_array() ? "(none)" : value_text(value) + unit, "default", out);
  }
  for (std::size_t at = 0; at < lines.size(); ++at) {
    write_row(key, value_text(value.is_array() ? value[at] : value) + unit, place(file, lines[at]),
              out);
  }
}

void write_finding(const Json& finding, std::ostream& out) {
  const std::string key = printable(text_of(finding["key"]));
  fmt::print(out, "{}{}: {}{}{}\n", printable(text_of(finding["file"])),
             finding["line"] == 0 ? "" : ":" + finding["line"].dump(), key, key.empty() ? "" : ": ",
             printable(text_of(finding["message"])));
}

void write_jobs(const Json& whole, bool has_file, std::ostream& out) {
  if (whole["jobs"].empty()) {
    fmt::print(out, "No scheduled scans: {} {}\n", printable(cut(text_of(whole["commands_file"]))),
               has_file ? "holds none" : "does not exist");
    return;
  }
  out << "Scheduled scans\n";
  for (const Json& job : whole["jobs"]) {
    fmt::print(out, "  {}  {}\n", printable(text_of(job["words"])),
               place(job["file"], job["line"]));
  }
}

void write_text(const Json& whole, bool has_commands_file, std::ostream& out) {
  const Json& findings = whole["findings"];
  for (const Json& finding : findings) {
    write_finding(finding, out);
  }
  out << (findings.empty() ? "" : "\n") << "Settings\n";
  for (const auto& [key, setting] : whole["settings"].items()) {
    write_setting(key, setting, whole["config_file"], out);
  }
  out << '\n';
  write_jobs(whole, has_commands_file, out);
  out << '\n' << (findings.empty() ? "nothing found" : counted(findings.size(), "finding")) << '\n';
}

}  // namespace

void write_result(const CheckResult& result, bool json, std::ostream& out) {
  const Json whole = {{"config_file", result.config_file},
                      {"commands_file", result.commands_file},
                      {"findings", json_findings(result)},
                      {"settings", json_settings(result.config.settings)},
                      {"jobs", json_jobs(result)}};
  if (json) {
    out << json_text(whole, 2);
  } else {
    write_text(whole, result.has_commands_file, out);
  }
}
