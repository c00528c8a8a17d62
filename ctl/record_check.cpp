#include "record_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t most_findings = 1000;

void report_equals_sign(const FileLine& line, const Reading& reading, Report& report) {
  if (line.key == secret_key) {
    report.add(line, "the value begins with \"=\"; there is no \"=\" between key and value");
    return;
  }
  std::string value = line.value.substr(1);
  ConfParser::trim(value, ConfParser::whitespace);
  report.add(line, fmt::format("{}; there is no \"=\": write {}",
                               reading.complaint.empty() ? "the value is " + quoted(line.value)
                                                         : reading.complaint,
                               quoted(line.key + " " + value)));
}

// What stands behind a word that is like no key may be what should stand behind the secret one.
bool may_be_secret(std::string_view nearest) {
  return nearest.empty() || nearest == secret_key;
}

}  // namespace

LinesByKey::LinesByKey(const std::vector<FileLine>& lines, const KeyNames& known) {
  for (const std::string_view key : known) {
    lines_[key];
  }
  for (const FileLine& line : lines) {
    if (const auto found = lines_.find(line.key); found != lines_.end()) {
      found->second.push_back(&line);
    }
  }
}

const std::vector<const FileLine*>& LinesByKey::of(std::string_view key) const {
  static const std::vector<const FileLine*> none;
  const auto found = lines_.find(key);
  return found == lines_.end() ? none : found->second;
}

const FileLine* LinesByKey::first(std::string_view key) const {
  const std::vector<const FileLine*>& lines = of(key);
  return lines.empty() ? nullptr : lines.front();
}

void Report::add(std::size_t line, std::string_view key, std::string text) {
  if (findings_.size() < most_findings) {
    findings_.push_back({file_, line, cut(key), std::move(text)});
  } else {
    ++more_;
  }
}

Findings Report::take() {
  if (more_ > 0) {
    findings_.push_back({file_, 0, "", fmt::format("{} more findings are not shown", more_)});
  }
  std::stable_sort(findings_.begin(), findings_.end(),
                   [](const Finding& one, const Finding& other) { return one.line < other.line; });
  return std::move(findings_);
}

void report_unknown(const FileLine& line, const KeyNames& known, Report& report) {
  if (std::find(known.begin(), known.end(), line.key) != known.end()) {
    return;
  }
  const std::string_view before_sign = std::string_view(line.key).substr(0, line.key.find('='));
  if (before_sign.size() < line.key.size() && may_be_secret(nearest_key(before_sign, known))) {
    report.add(line.number, before_sign.empty() ? "=" : before_sign,
               "no such key, so the line is ignored; there is no \"=\" between key and value");
  } else {
    report.add(line, about_unknown_key(line, known));
  }
}

void report_repeated(const std::vector<const FileLine*>& lines, Report& report) {
  for (std::size_t later = 1; later < lines.size(); ++later) {
    report.add(*lines[later], fmt::format("ignored: only the first value counts, of line {}",
                                          lines.front()->number));
  }
}

void report_cut_text(const FileLine& line, Report& report) {
  if (line.touched && !line.value.empty()) {
    report.add(line, "\"#\" begins a comment wherever it stands, " +
                         (line.key == secret_key ? "and cuts the value"
                                                 : "so the value is " + quoted(line.value)));
  }
}

void report_reading(const FileLine& line, const Reading& reading, Report& report) {
  if (line.value.starts_with('=')) {
    report_equals_sign(line, reading, report);
  } else if (!reading.complaint.empty()) {
    report.add(line,
               reading.complaint + (reading.instead.empty() ? "" : "; write " + reading.instead));
  }
}
