// The conversions of ConfParser and its time of day.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <utility>

#include "confparser.h"

namespace {

using std::string;

template <typename T>
using Conversion = T (*)(const string&);

/// That the texts convert to these values.
template <typename T>
void expect_values(Conversion<T> convert, std::initializer_list<std::pair<const char*, T>> cases) {
  for (const auto& [text, value] : cases) {
    EXPECT_EQ(convert(text), value) << '"' << text << '"';
  }
}

/// That each throws std::invalid_argument with an empty text.
template <typename T>
void expect_rejected(Conversion<T> convert, std::initializer_list<string> texts) {
  for (const string& text : texts) {
    try {
      (void)convert(text);
      ADD_FAILURE() << '"' << text << "\" converts";
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "") << '"' << text << '"';
    }
  }
}

TEST(ToBool, YesInAnyCaseAndOneAreTrueAndAllElseFalse) {
  for (const char* text : {"YES", "yes", "Yes", "yEs", "1"}) {
    EXPECT_TRUE(ConfParser::ToBool(text)) << text;
  }
  for (const char* text : {"", "no", "0", "true", "TRUE", "on", "ON", "2", "01", "yes ", "y"}) {
    EXPECT_FALSE(ConfParser::ToBool(text)) << text;
  }
}

TEST(ToInt, ReadsWholeDecimalNumbersAndTheNearestOfThoseBeyond) {
  expect_values<int>(&ConfParser::ToInt, {{"0", 0},
                                          {"42", 42},
                                          {"-42", -42},
                                          {"+42", 42},
                                          {"010", 10},
                                          {"", 0},
                                          {"2147483647", INT_MAX},
                                          {"2147483648", INT_MAX},
                                          {"-2147483649", INT_MIN},
                                          {"99999999999999999999999", INT_MAX},
                                          {"-99999999999999999999999", INT_MIN}});
  expect_rejected(&ConfParser::ToInt,
                  {"x", "8x", "8 ", "0x10", "8.5", "-", " ", "eight", "8,9", {"8\0x", 3}});
}

TEST(ToULongLong, ReadsSixtyFourBitsAndTheGreatestOfThoseBeyond) {
  expect_values<unsigned long long>(&ConfParser::ToULongLong,
                                    {{"0", 0},
                                     {"", 0},
                                     {"18446744073709551615", ULLONG_MAX},
                                     {"18446744073709551616", ULLONG_MAX}});
  expect_rejected(&ConfParser::ToULongLong, {"x", "4M", "4 ", "4.0", "0x4"});
}

TEST(ToActionType, WordsMatchInAnyCase) {
  expect_values(&ConfParser::ToActionType, {{"REPORT", ConfParser::detect_action_t{0}},
                                            {"disinfect", ConfParser::detect_action_t{1}},
                                            {"DeLeTe", ConfParser::detect_action_t{2}}});
  expect_rejected(&ConfParser::ToActionType,
                  {"", "0", "DELETED", "REPOR", "DELETE ", "QUARANTINE"});
}

TEST(ToDefinitionType, WordsMatchInAnyCase) {
  expect_values(&ConfParser::ToDefinitionType, {{"LEGACY", ConfParser::definition_type_t{0}},
                                                {"v1", ConfParser::definition_type_t{0}},
                                                {"V2", ConfParser::definition_type_t{1}},
                                                {"v2s", ConfParser::definition_type_t{2}}});
  expect_rejected(&ConfParser::ToDefinitionType, {"", "1", "V3", "V", "V2SS", " V2"});
}

TEST(ToDaysType, WordsCountFromSundayAsTheCLibraryDoes) {
  const char* words[] = {"SUN", "mon", "Tue", "WED", "thu", "Fri", "SAT"};
  for (int day = 0; day < 7; ++day) {
    EXPECT_EQ(int{ConfParser::ToDaysType(words[day])}, day) << words[day];
  }
  expect_rejected(&ConfParser::ToDaysType, {"", "0", "SUNDAY", "SU", "SON"});
}

TEST(ToRepeatType, WordsMatchInAnyCase) {
  const char* words[] = {"NO", "daily", "Weekly", "MONTHLY", "quarterly"};
  for (int repeat = 0; repeat < 5; ++repeat) {
    EXPECT_EQ(int{ConfParser::ToRepeatType(words[repeat])}, repeat) << words[repeat];
  }
  expect_rejected(&ConfParser::ToRepeatType, {"", "1", "NONE", "YEARLY", "DAILY,"});
}

void expect_time(const ConfParser::time_T& time, int hour, int minute) {
  EXPECT_EQ(time.hour, hour);
  EXPECT_EQ(time.minute, minute);
}

TEST(ToTime, ReadsHourAndMinuteAroundTheColonInAnyRange) {
  expect_time(ConfParser::ToTime("12:30"), 12, 30);
  expect_time(ConfParser::ToTime("08:05"), 8, 5);
  expect_time(ConfParser::ToTime("8:"), 8, 0);
  expect_time(ConfParser::ToTime(":5"), 0, 5);
  expect_time(ConfParser::ToTime(":"), 0, 0);
  expect_time(ConfParser::ToTime("25:99"), 25, 99);
  expect_time(ConfParser::ToTime("-1:-2"), -1, -2);
  expect_rejected(&ConfParser::ToTime,
                  {"", "1230", "12.30", "12:xx", "xx:12", "1:2:3", "12 :30", "12:30 "});
}

TEST(TimeOfDay, IsMidnightByDefault) {
  expect_time(ConfParser::time_T(), 0, 0);
}

TEST(TimeOfDay, OfATimestampIsTheLocalOne) {
  setenv("TZ", "TEST-05:30", 1);  // five and a half hours east of Greenwich
  tzset();
  expect_time(ConfParser::time_T(0L), 5, 30);
  expect_time(ConfParser::time_T(86399L), 5, 29);
}

TEST(TimeOfDay, OrdersByHourThenByMinute) {
  using Time = ConfParser::time_T;
  EXPECT_TRUE(Time(9, 59) < Time(10, 0));
  EXPECT_FALSE(Time(10, 0) < Time(9, 59));
  EXPECT_TRUE(Time(9, 1) < Time(9, 2));
  EXPECT_FALSE(Time(9, 2) < Time(9, 1));
  EXPECT_FALSE(Time(9, 1) < Time(9, 1));
}

template <typename T>
void expect_words(T (*convert)(const std::string&), int values) {
  for (int value = 0; value < values; ++value) {
    EXPECT_EQ(int{convert(ConfParser::word(static_cast<T>(value)))}, value);
  }
  EXPECT_STREQ(ConfParser::word(static_cast<T>(values)), "?");
}

TEST(Word, ConvertsBackToItsValue) {
  expect_words(&ConfParser::ToActionType, 3);
  expect_words(&ConfParser::ToDefinitionType, 3);
  expect_words(&ConfParser::ToDaysType, 7);
  expect_words(&ConfParser::ToRepeatType, 5);
}

TEST(Word, IsTheFirstOfTwo) {
  EXPECT_STREQ(ConfParser::word(ConfParser::V1), "LEGACY");
}

}  // namespace
