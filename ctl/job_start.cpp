#include "job_start.h"

#include <algorithm>

namespace {

constexpr int last_hour = 23;
constexpr int last_minute = 59;

}  // namespace

std::optional<ConfParser::time_T> first_run(const ConfParser::time_T& start) {
  const bool early = start.minute < 0;
  const bool late = start.minute > last_minute;
  if (start.hour < 0 || start.hour > last_hour || (early && start.hour == 0) ||
      (late && start.hour == last_hour)) {
    return std::nullopt;
  }
  return late    ? ConfParser::time_T(start.hour + 1, 0)
         : early ? ConfParser::time_T(start.hour, 0)
                 : start;
}

ConfParser::time_T latest_load(const ConfParser::time_T& start) {
  if (start.minute < 0) {
    return {start.hour - 1, last_minute};
  }
  return {start.hour, std::min(start.minute, last_minute)};
}
