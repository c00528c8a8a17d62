#include "job_blocks.h"

#include <fmt/format.h>

#include <utility>

#include "commandparser.h"
#include "letters.h"

namespace {

constexpr std::string_view separator = CommandParser::separator;

class BlockCutter {
 public:
  explicit BlockCutter(Report& report) : report_(report) {}

  void take(FileLine line) {
    if (line.key != separator) {
      add_setting(std::move(line));
    } else if (!line.bare) {
      report_no_separator(line);
    } else {
      separate(line.number);
    }
  }

  std::vector<JobBlock> finish() {
    close();
    return std::move(blocks_);
  }

 private:
  void add_setting(FileLine line) {
    if (looks_like_separator(line)) {
      report_.add(line,
                  "separates no jobs: what stands below belongs to the same job as what "
                  "stands above; write \"scan\" in small letters");
    }
    if (current_.line == 0) {
      current_.line = line.number;
    }
    current_.settings.push_back(std::move(line));
  }

  void report_no_separator(const FileLine& line) {
    report_.add(line,
                fmt::format("separates no jobs, because {} follows: what stands below belongs to "
                            "the same job as what stands above; write \"scan\" alone on its line",
                            line.value.empty() ? "a comment" : quoted(line.value)));
  }

  // The first one closes nothing: what stands before it belongs to the job that it opens.
  void separate(std::size_t number) {
    if (seen_) {
      close();
    } else if (!current_.settings.empty()) {
      report_.add(current_.settings.front(),
                  fmt::format("stands before the first \"scan\", so it belongs to the same job as "
                              "what follows line {}",
                              number));
    }
    seen_ = true;
    if (current_.settings.empty()) {
      current_.line = number;
    }
  }

  void close() {
    if (!current_.settings.empty()) {
      blocks_.push_back(std::move(current_));
    }
    current_ = {};
  }

  Report& report_;
  std::vector<JobBlock> blocks_;
  JobBlock current_;
  bool seen_ = false;
};

}  // namespace

bool looks_like_separator(const FileLine& line) {
  return same_word(line.key, separator);
}

std::vector<JobBlock> job_blocks(const std::string& content, Report& report) {
  BlockCutter cutter(report);
  for (FileLine& line : setting_lines(content)) {
    cutter.take(std::move(line));
  }
  return cutter.finish();
}
