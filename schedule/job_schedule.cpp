#include "job_schedule.h"

namespace {

// A later month, not earlier in it, on the same weekday. Months are compared without their years.
bool monthly(const std::tm& now, const std::tm& last) {
  return last.tm_mon != now.tm_mon && last.tm_mday <= now.tm_mday && last.tm_wday == now.tm_wday;
}

// Three months on: in that month not earlier in it, or later in that year. A year that passes
// without a run is not made up for.
bool quarterly(const std::tm& now, const std::tm& last) {
  const bool next_year = last.tm_mon + 3 > 11;
  const int month = last.tm_mon + 3 - (next_year ? 12 : 0);
  const int year = last.tm_year + (next_year ? 1 : 0);
  const bool late_enough =
      (now.tm_mon == month && last.tm_mday <= now.tm_mday) || now.tm_mon > month;
  return now.tm_year == year && late_enough && last.tm_wday == now.tm_wday;
}

bool period_over(ConfParser::repeat_t repeat, const std::tm& now, const std::tm& last) {
  switch (repeat) {
    case ConfParser::NO:
      return true;
    case ConfParser::DAILY:
      return last.tm_yday != now.tm_yday;
    case ConfParser::WEEKLY:
      return last.tm_wday == now.tm_wday && last.tm_yday != now.tm_yday;
    case ConfParser::MONTHLY:
      return monthly(now, last);
    case ConfParser::QUARTERLY:
      return quarterly(now, last);
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
