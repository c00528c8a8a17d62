// The conversions of ConfParser and its time of day.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <stdexcept>
#include <string>

#include "confparser.h"

namespace {

using std::string;

/// The text of the std::invalid_argument that the conversion throws; "no exception" without one.
template <typename T>
string complaint(T (*convert)(const string&), const string& text) {
  try {
    (void)convert(text);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "no exception";
}

template <typename T>
void expect_rejected(T (*convert)(const string&), std::initializer_list<const char*> texts) {
  for (const char* text : texts) {
    EXPECT_EQ(complaint(convert, text), "") << '"' << text << '"';
  }
}

TEST(ToBool, YesInAnyCaseAndOneAreTrue) {
  for (const char* text : {"YES", "yes", "Yes", "yEs", "1"}) {
    EXPECT_TRUE(ConfParser::ToBool(text)) << text;
  }
}

TEST(ToBool, EverythingElseIsFalse) {
  for (const char* text : {"", "no", "0", "true", "TRUE", "on", "ON", "2", "01", "yes ", "y"}) {
    EXPECT_FALSE(ConfParser::ToBool(text)) << text;
  }
}

TEST(ToInt, ReadsWholeDecimalNumbers) {
  EXPECT_EQ(ConfParser::ToInt("0"), 0);
  EXPECT_EQ(ConfParser::ToInt("42"), 42);
  EXPECT_EQ(ConfParser::ToInt("-42"), -42);
  EXPECT_EQ(ConfParser::ToInt("+42"), 42);
  EXPECT_EQ(ConfParser::ToInt("010"), 10);
}

TEST(ToInt, EmptyTextIsZero) {
  EXPECT_EQ(ConfParser::ToInt(""), 0);
}

TEST(ToInt, OverflowGivesTheNearestValue) {
  EXPECT_EQ(ConfParser::ToInt("2147483647"), INT_MAX);
  EXPECT_EQ(ConfParser::ToInt("2147483648"), INT_MAX);
  EXPECT_EQ(ConfParser::ToInt("-2147483649"), INT_MIN);
  EXPECT_EQ(ConfParser::ToInt("99999999999999999999999"), INT_MAX);
  EXPECT_EQ(ConfParser::ToInt("-99999999999999999999999"), INT_MIN);
}

TEST(ToInt, AnythingButAWholeNumberIsRejectedWithAnEmptyText) {
  expect_rejected(&ConfParser::ToInt, {"x", "8x", "8 ", "0x10", "8.5", "-", " ", "eight", "8,9"});
}

TEST(ToInt, NumberBeforeAZeroByteIsNotTheWholeText) {
  EXPECT_EQ(complaint(&ConfParser::ToInt, string("8\0x", 3)), "");
}

TEST(ToULongLong, ReadsSixtyFourBits) {
  EXPECT_EQ(ConfParser::ToULongLong("0"), 0U);
  EXPECT_EQ(ConfParser::ToULongLong("18446744073709551615"), ULLONG_MAX);
}

TEST(ToULongLong, EmptyTextIsZero) {
  EXPECT_EQ(ConfParser::ToULongLong(""), 0U);
}

TEST(ToULongLong, OverflowGivesTheGreatestValue) {
  EXPECT_EQ(ConfParser::ToULongLong("18446744073709551616"), ULLONG_MAX);
}

TEST(ToULongLong, AnythingButAWholeNumberIsRejectedWithAnEmptyText) {
  expect_rejected(&ConfParser::ToULongLong, {"x", "4M", "4 ", "4.0", "0x4"});
}

TEST(ToActionType, WordsMatchInAnyCase) {
  EXPECT_EQ(int{ConfParser::ToActionType("REPORT")}, 0);
  EXPECT_EQ(int{ConfParser::ToActionType("disinfect")}, 1);
  EXPECT_EQ(int{ConfParser::ToActionType("DeLeTe")}, 2);
}

TEST(ToActionType, OtherWordsAreRejectedWithAnEmptyText) {
  expect_rejected(&ConfParser::ToActionType,
                  {"", "0", "DELETED", "REPOR", "DELETE ", "QUARANTINE"});
}

TEST(ToDefinitionType, WordsMatchInAnyCase) {
  EXPECT_EQ(int{ConfParser::ToDefinitionType("LEGACY")}, 0);
  EXPECT_EQ(int{ConfParser::ToDefinitionType("v1")}, 0);
  EXPECT_EQ(int{ConfParser::ToDefinitionType("V2")}, 1);
  EXPECT_EQ(int{ConfParser::ToDefinitionType("v2s")}, 2);
}

TEST(ToDefinitionType, OtherWordsAreRejectedWithAnEmptyText) {
  expect_rejected(&ConfParser::ToDefinitionType, {"", "1", "V3", "V", "V2SS", " V2"});
}

TEST(ToDaysType, WordsCountFromSundayAsTheCLibraryDoes) {
  const char* words[] = {"SUN", "mon", "Tue", "WED", "thu", "Fri", "SAT"};
  for (int day = 0; day < 7; ++day) {
    EXPECT_EQ(int{ConfParser::ToDaysType(words[day])}, day) << words[day];
  }
}

TEST(ToDaysType, OtherWordsAreRejectedWithAnEmptyText) {
  expect_rejected(&ConfParser::ToDaysType, {"", "0", "SUNDAY", "SU", "SON"});
}

TEST(ToRepeatType, WordsMatchInAnyCase) {
  const char* words[] = {"NO", "daily", "Weekly", "MONTHLY", "quarterly"};
  for (int repeat = 0; repeat < 5; ++repeat) {
    EXPECT_EQ(int{ConfParser::ToRepeatType(words[repeat])}, repeat) << words[repeat];
  }
}

TEST(ToRepeatType, OtherWordsAreRejectedWithAnEmptyText) {
  expect_rejected(&ConfParser::ToRepeatType, {"", "1", "NONE", "YEARLY", "DAILY,"});
}

void expect_time(const ConfParser::time_T& time, int hour, int minute) {
  EXPECT_EQ(time.hour, hour);
  EXPECT_EQ(time.minute, minute);
}

TEST(ToTime, ReadsHourAndMinuteAroundTheColon) {
  expect_time(ConfParser::ToTime("12:30"), 12, 30);
  expect_time(ConfParser::ToTime("08:05"), 8, 5);
}

TEST(ToTime, EmptyHourOrMinuteIsZero) {
  expect_time(ConfParser::ToTime("8:"), 8, 0);
  expect_time(ConfParser::ToTime(":5"), 0, 5);
  expect_time(ConfParser::ToTime(":"), 0, 0);
}

TEST(ToTime, NothingChecksTheRange) {
  expect_time(ConfParser::ToTime("25:99"), 25, 99);
  expect_time(ConfParser::ToTime("-1:-2"), -1, -2);
}

TEST(ToTime, TextWithoutColonIsRejectedWithAnEmptyText) {
  expect_rejected(&ConfParser::ToTime, {"", "1230", "12.30"});
}

TEST(ToTime, BadHourOrMinuteIsRejectedWithAnEmptyText) {
  expect_rejected(&ConfParser::ToTime, {"12:xx", "xx:12", "1:2:3", "12 :30", "12:30 "});
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
