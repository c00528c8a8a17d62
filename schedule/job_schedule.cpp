#include "job_schedule.h"

namespace {

// Three months on: in that month not earlier in it, or later in that year. A year that passes
// without a run is not made up for.
bool quarter_over(const std::tm& now, const std::tm& last) {
  const int month = (last.tm_mon + 3) % 12;
  const int year = last.tm_year + (last.tm_mon + 3) / 12;
  return now.tm_year == year &&
         (now.tm_mon == month ? last.tm_mday <= now.tm_mday : now.tm_mon > month);
}

bool period_over(ConfParser::repeat_t repeat, const std::tm& now, const std::tm& last) {
  const bool same_weekday = last.tm_wday == now.tm_wday;
  switch (repeat) {
    case ConfParser::NO:
      return true;
    case ConfParser::DAILY:
      return last.tm_yday != now.tm_yday;
    case ConfParser::WEEKLY:
      return same_weekday && last.tm_yday != now.tm_yday;
    case ConfParser::MONTHLY:  // months are compared without their years
      return same_weekday && last.tm_mon != now.tm_mon && last.tm_mday <= now.tm_mday;
    case ConfParser::QUARTERLY:
      return same_weekday && quarter_over(now, last);
    default:
      return false;
  }
}

}  // namespace

bool is_due(const Command& command, const std::tm& now, const ConfParser::time_T& loaded,
            const std::tm* last) {
  const ConfParser::time_T time_of_day(now.tm_hour, now.tm_min);
  if (command.start < loaded || now.tm_wday != command.day || time_of_day < command.start) {
    return false;
  }
  return last == nullptr || period_over(command.repeat, now, *last);
}
