#include "record_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
constexpr const char* ignored = "no such key, so the line is ignored";

// "MaxThreads=8", "MaxThreads= 8", "MaxThreads =8": what should have been written.
std::string without_sign(std::string_view key, std::string value) {
  ConfParser::trim(value, ConfParser::whitespace);
  return quote(fmt::format("{} {}", key, value));
}

}  // namespace

std::size_t line_of(const ConfParser& settings, const char* key, std::size_t otherwise) {
  const ConfParser::Value* value = settings.peek(key);
  return value == nullptr ? otherwise : value->line;
}

void report_unknown(const ConfParser::Values::value_type& setting,
                    const std::vector<std::string_view>& known, FileReport& report) {
  const auto& [key, value] = setting;
  const std::size_t sign = key.find('=');
  const std::string_view name = std::string_view(key).substr(0, sign);
  const auto is = [&](std::string_view other) { return same_word(name, other); };
  const auto nearest = std::find_if(known.begin(), known.end(), is);
  const bool exact = nearest != known.end() && *nearest == name;
  if (key.starts_with(byte_order_mark)) {
    report.add(
        value.line, key,
        fmt::format("{}: a byte order mark stands before it; save the file without one", ignored));
  } else if (sign != std::string::npos && exact && name != secret_key) {
    report.add(value.line, key,
               fmt::format("{}; there is no \"=\": write {}", ignored,
                           without_sign(name, key.substr(sign + 1) + " " + value.text)));
  } else if (sign != std::string::npos) {
    // The text after the "=" may be the value of the secret key.
    report.add(value.line, name.empty() ? "=" : name,
               fmt::format("{}; there is no \"=\" between key and value", ignored));
  } else if (!exact) {
    report.add(value.line, key,
               nearest == known.end()
                   ? ignored
                   : fmt::format("{}; write \"{}\": capitals count", ignored, *nearest));
  }
}

void report_reading(const ConfParser::Values::value_type& setting, const Reading& reading,
                    FileReport& report) {
  const auto& [key, value] = setting;
  if (!value.text.starts_with('=')) {
    if (!reading.complaint.empty()) {
      report.add(value.line, key,
                 reading.complaint + (reading.instead.empty() ? "" : "; write " + reading.instead));
    }
  } else if (key == secret_key) {
    report.add(value.line, key,
               "the value begins with \"=\"; there is no \"=\" between key and value");
  } else {
    const std::string& complaint = reading.complaint;
    report.add(value.line, key,
               fmt::format("{}; there is no \"=\": write {}",
                           complaint.empty() ? "the value is " + quote(value.text) : complaint,
                           without_sign(key, value.text.substr(1))));
  }
}

void report_cut_text(const ConfParser::Values::value_type& setting, const FileLines& lines,
                     FileReport& report) {
  const auto& [key, value] = setting;
  if (!value.text.empty() && lines.comment_touches(value.line)) {
    report.add(
        value.line, key,
        "\"#\" begins a comment wherever it stands, " +
            (key == secret_key ? "and cuts the value" : "so the value is " + quote(value.text)));
  }
}
