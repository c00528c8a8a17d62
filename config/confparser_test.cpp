#include "confparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>

#include "log_records.h"
#include "logger.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class ConfParserTest : public testing::Test {
 protected:
  ConfParserTest() { log_up_to(3); }

  void log_up_to(int level) const {
    Logger::configure({.path = directory_.path("pelowatchd.log"), .level = level});
  }

  void parse(const string& text) {
    std::istringstream input(text);
    parser_.parse(input);
  }

  /// Every value of the key, in file order.
  std::list<string> values(const string& key) const {
    std::list<string> found;
    (void)parser_.get(key, found);
    return found;
  }

  /// What has been logged since the last call.
  std::vector<string> take_logged() const {
    const std::vector<string> records = log_records(directory_.path("pelowatchd.log"));
    directory_.put("pelowatchd.log", "");
    return records;
  }

  TempDirectory directory_;
  ConfParser parser_;
};

const string missing = "get ConfParser::get(): Key does not exist in the config\n";
const string multiple_values =
    "get ConfParser::get(): multiple values exist in the config. First value used\n";
const string empty_exception = "get ConfParser::get(): Exception: \n";

// Reading

struct Read {
  const char* why;
  string text;
  string key;
  std::vector<string> values;
};

TEST_F(ConfParserTest, ReadsKeysAndValues) {
  const Read cases[] = {
      {"a key ends at the first blank", "LogPath /mnt/data\n", "LogPath", {"/mnt/data"}},
      {"a comment is no part of the value", "MaxThreads 8 # eight\n", "MaxThreads", {"8"}},
      {"the first hash cuts inside a word", "LogPath /mnt/a#b # c\n", "LogPath", {"/mnt/a"}},
      {"a hash cuts a key", "Log#Path /mnt\n", "Log", {""}},
      {"a key alone", "Key\n", "Key", {""}},
      {"a key before a comment", "Key # no value\n", "Key", {""}},
      {"blanks inside a value stay", "Dir /mnt/my  own\tfiles \n", "Dir", {"/mnt/my  own\tfiles"}},
      {"blanks around key and value go", " \t Key \t value \t \n", "Key", {"value"}},
      {"a tab separates", "Key\tvalue\n", "Key", {"value"}},
      {"a carriage return goes", "Key value\r\nOther\r\n", "Key", {"value"}},
      {"a carriage return goes from a key", "Key value\r\nOther\r\n", "Other", {""}},
      {"= in a key is an ordinary character", "a=b c=d\n", "a=b", {"c=d"}},
      {"= in a value is an ordinary character", "key = 5\n", "key", {"= 5"}},
      {"the last line needs no newline", "Key value", "Key", {"value"}},
      {"capitals count", "key value\n", "Key", {}},
      {"values keep the order of the file",
       "Key c\nOther x\nKey a\nKey b\n",
       "Key",
       {"c", "a", "b"}},
      {"any bytes stay",
       {"Key \xc3\xa4\x01\xff\"'\0z\n", 12},
       "Key",
       {{"\xc3\xa4\x01\xff\"'\0z", 8}}},
  };
  for (const auto& [why, text, key, expected] : cases) {
    parser_ = ConfParser();
    parse(text);
    EXPECT_THAT(values(key), testing::ElementsAreArray(expected)) << why;
  }
}

TEST_F(ConfParserTest, LinesOfBlanksAndCommentsGiveNoKey) {
  parse("\n   \n\t\r\n# Key 1\n  # Key 2\n#\n");
  EXPECT_THAT(parser_.values(), IsEmpty());
}

TEST_F(ConfParserTest, EveryValueHasItsLine) {
  std::istringstream input("# one\nKey a\n\nKey b\n");
  parser_.parse(input, 10);
  parse("Key c");
  std::vector<std::size_t> lines;
  for (const auto& [key, value] : parser_.values()) {
    lines.push_back(value.line);
  }
  EXPECT_THAT(lines, ElementsAre(11, 13, 1));
}

TEST_F(ConfParserTest, ReadingAFileAddsToWhatIsThere) {
  parse("Key a\n");
  parser_.parse(directory_.put("settings", "Key b\n"));
  EXPECT_THAT(values("Key"), ElementsAre("a", "b"));
}

TEST_F(ConfParserTest, ParseLineOverwritesWhatThePairHeld) {
  std::pair<string, string> setting("old key", "old value");
  ConfParser::parse_line("Key", setting);
  EXPECT_THAT(setting, Pair("Key", ""));
  ConfParser::parse_line("Key \t a b", setting);
  EXPECT_THAT(setting, Pair("Key", "a b"));
}

TEST(ConfParserTrim, RemovesTheSetFromBothEndsOnly) {
  for (auto [text, characters, rest] : {std::tuple(string("xyaxbyx"), "xy", "axb"),
                                        {"xa", "x", "a"},
                                        {"ax", "x", "a"},
                                        {" \t\r\n", " \t\r\n", ""},
                                        {"", " ", ""},
                                        {"a b", " ", "a b"},
                                        {" a ", "", " a "}}) {
    ConfParser::trim(text, characters);
    EXPECT_EQ(text, rest);
  }
}

// Texts and lists

TEST_F(ConfParserTest, TextIsReadWithoutAWordInTheLogAndLeftAloneIfItIsMissing) {
  string out = "before";
  EXPECT_FALSE(parser_.get("Key", out));
  EXPECT_EQ(out, "before");
  EXPECT_THAT(take_logged(), ElementsAre(missing));
  parse("Key value\n");
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_EQ(out, "value");
  EXPECT_THAT(take_logged(), IsEmpty());
}

TEST_F(ConfParserTest, FirstOfThreeValuesIsUsedAndSaidOncePerGet) {
  parse("Key 1\nKey 2\nKey 3\n");
  string text;
  int number = 0;
  EXPECT_TRUE(parser_.get("Key", text));
  EXPECT_TRUE(parser_.get("Key", number));
  EXPECT_EQ(text, "1");
  EXPECT_EQ(number, 1);
  EXPECT_THAT(take_logged(), ElementsAre(multiple_values, multiple_values));
}

TEST_F(ConfParserTest, ListGetsEveryValueBehindWhatItHolds) {
  std::list<string> out{"z"};
  EXPECT_FALSE(parser_.get("Key", out));
  EXPECT_THAT(take_logged(), ElementsAre("get \n"));
  parse("Key b\nKey a\n");
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_THAT(out, ElementsAre("z", "b", "a"));
  EXPECT_THAT(take_logged(), IsEmpty());
}

TEST_F(ConfParserTest, PeekGivesTheFirstValueWithoutAWordInTheLog) {
  parse("Key 2\nKey 1\n");
  ASSERT_NE(parser_.peek("Key"), nullptr);
  EXPECT_EQ(parser_.peek("Key")->text, "2");
  EXPECT_EQ(parser_.peek("Ke"), nullptr);
  EXPECT_EQ(parser_.peek("Keys"), nullptr);
  EXPECT_THAT(take_logged(), IsEmpty());
}

TEST_F(ConfParserTest, ComplaintsAreOfLevelOne) {
  parse("Twice 1\nTwice 2\nBad x\n");
  string text;
  int number = 0;
  std::list<string> list;
  for (const int level : {0, 1}) {
    log_up_to(level);
    (void)parser_.get("Key", text);
    (void)parser_.get("Twice", text);
    (void)parser_.get("Bad", number);
    (void)parser_.get("Key", list);
  }
  EXPECT_THAT(take_logged(), ElementsAre(missing, multiple_values, empty_exception, "get \n"));
}

// Converted values

/// A text, the value that it converts to, another, and what is logged when it is read.
template <typename T>
struct Example {
  string text;
  T value;
  T other;
  std::vector<string> logged = {};
};

const string with_nul("%s\0%n", 5);

const std::tuple examples(
    Example<bool>{"yes", true, false, {"get ConfParser::get(): Key = yes\n"}},
    Example<bool>{with_nul, false, true, {"get ConfParser::get(): Key = " + with_nul + "\n"}},
    Example<int>{"-7", -7, 3},
    Example<unsigned long long>{"18446744073709551614", 18446744073709551614ULL, 3},
    Example<ConfParser::detect_action_t>{"disinfect ", ConfParser::DISINFECT, ConfParser::DELETE},
    Example<ConfParser::days_t>{"Wed", ConfParser::WED, ConfParser::FRI},
    Example<ConfParser::repeat_t>{"monthly", ConfParser::MONTHLY, ConfParser::DAILY},
    Example<ConfParser::time_T>{"12:30", {12, 30}, {1, 2}},
    Example<ConfParser::definition_type_t>{
        "v2S", ConfParser::V2S, ConfParser::V2, {"get ConfParser::get(): v2S\n"}});

TEST_F(ConfParserTest, ValuesOfEveryTypeAreConvertedOrLeaveTheOutputAndAWordInTheLog) {
  const auto expect = [this]<typename T>(const Example<T>& example) {
    SCOPED_TRACE(example.text);
    T out = example.other;
    parser_ = ConfParser();
    EXPECT_FALSE(parser_.get("Key", out));
    EXPECT_TRUE(out == example.other);
    EXPECT_THAT(take_logged(), ElementsAre(missing, missing));
    if constexpr (!std::is_same_v<T, bool>) {
      parse("Bad bogus\n");
      EXPECT_FALSE(parser_.get("Bad", out));
      EXPECT_TRUE(out == example.other);
      EXPECT_THAT(take_logged(), ElementsAre(empty_exception));
    }
    parse("Key " + example.text + "\n");
    EXPECT_TRUE(parser_.get("Key", out));
    EXPECT_TRUE(out == example.value);
    EXPECT_EQ(take_logged(), example.logged);
  };
  std::apply([&expect](const auto&... each) { (expect(each), ...); }, examples);
}

TEST_F(ConfParserTest, ConvertedBoolIsLoggedAtLevelTwoAndFamilyAtLevelOne) {
  parse("Key yes\nFamily V2\n");
  bool truth = false;
  ConfParser::definition_type_t family = ConfParser::LEGACY;
  for (const int level : {0, 1}) {
    log_up_to(level);
    EXPECT_TRUE(parser_.get("Key", truth));
    EXPECT_TRUE(parser_.get("Family", family));
  }
  EXPECT_THAT(take_logged(), ElementsAre("get ConfParser::get(): V2\n"));
  log_up_to(2);
  EXPECT_TRUE(parser_.get("Key", truth));
  EXPECT_THAT(take_logged(), ElementsAre("get ConfParser::get(): Key = yes\n"));
}

// The conversions

template <typename T>
using Conversion = T (*)(const string&);

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

/// That the first words convert to 0, 1, 2 and so on, and back, and the others to nothing.
template <typename T>
void expect_words(Conversion<T> convert, std::initializer_list<const char*> words,
                  std::initializer_list<string> rejected) {
  int value = 0;
  for (const char* word : words) {
    EXPECT_EQ(int{convert(word)}, value) << word;
    EXPECT_STRCASEEQ(ConfParser::word(static_cast<T>(value)), word);
    ++value;
  }
  EXPECT_STREQ(ConfParser::word(static_cast<T>(value)), "?");
  EXPECT_STREQ(ConfParser::word(static_cast<T>(-1)), "?");
  expect_rejected(convert, rejected);
}

TEST(Conversions, YesInAnyCaseAndOneAreTrueAndAllElseFalse) {
  for (const char* text : {"YES", "yes", "Yes", "yEs", "1"}) {
    EXPECT_TRUE(ConfParser::ToBool(text)) << text;
  }
  for (const char* text : {"", "no", "0", "true", "TRUE", "on", "ON", "2", "01", "yes ", "y"}) {
    EXPECT_FALSE(ConfParser::ToBool(text)) << text;
  }
}

TEST(Conversions, NumbersAreWholeAndDecimalAndTheNearestOfThoseBeyond) {
  for (const char* text : {"0", "42", "-42", "+42", "010", ""}) {
    EXPECT_EQ(ConfParser::ToInt(text), std::atoi(text)) << text;
  }
  for (const string digits : {"2147483647", "2147483649", "99999999999999999999999"}) {
    EXPECT_EQ(ConfParser::ToInt(digits), INT_MAX);
    EXPECT_EQ(ConfParser::ToInt("-1" + digits), INT_MIN);
  }
  expect_rejected(&ConfParser::ToInt,
                  {"x", "8x", "8 ", "0x10", "8.5", "-", " ", "eight", "8,9", {"8\0x", 3}});
  EXPECT_EQ(ConfParser::ToULongLong(""), 0U);
  for (const char* text : {"18446744073709551615", "18446744073709551616"}) {
    EXPECT_EQ(ConfParser::ToULongLong(text), ULLONG_MAX);
  }
  expect_rejected(&ConfParser::ToULongLong, {"x", "4M", "4 ", "4.0", "0x4"});
}

TEST(Conversions, WordsMatchInAnyCase) {
  expect_words(&ConfParser::ToActionType, {"REPORT", "disinfect", "DeLeTe"},
               {"", "0", "DELETED", "REPOR", "DELETE ", "QUARANTINE"});
  expect_words(&ConfParser::ToDefinitionType, {"LEGACY", "V2", "v2s"},
               {"", "1", "V3", "V", "V2SS", " V2"});
  EXPECT_EQ(ConfParser::ToDefinitionType("v1"), ConfParser::LEGACY);
  expect_words(&ConfParser::ToDaysType, {"SUN", "mon", "Tue", "WED", "thu", "Fri", "SAT"},
               {"", "0", "SUNDAY", "SU", "SON"});
  expect_words(&ConfParser::ToRepeatType, {"NO", "daily", "Weekly", "MONTHLY", "quarterly"},
               {"", "1", "NONE", "YEARLY", "DAILY,"});
}

using Time = ConfParser::time_T;

TEST(Conversions, TimesHaveHourAndMinuteAroundAColonInAnyRange) {
  for (const auto& [text, time] : {std::pair("12:30", Time(12, 30)),
                                   {"08:05", Time(8, 5)},
                                   {"8:", Time(8, 0)},
                                   {":5", Time(0, 5)},
                                   {":", Time(0, 0)},
                                   {"25:99", Time(25, 99)},
                                   {"-1:-2", Time(-1, -2)}}) {
    EXPECT_TRUE(ConfParser::ToTime(text) == time) << text;
  }
  expect_rejected(&ConfParser::ToTime,
                  {"", "1230", "12.30", "12:xx", "xx:12", "1:2:3", "12 :30", "12:30 "});
}

TEST(TimeOfDay, IsMidnightByDefaultAndTheLocalOneOfATimestamp) {
  setenv("TZ", "TEST-05:30", 1);  // five and a half hours east of Greenwich
  tzset();
  EXPECT_TRUE(Time() == Time(0, 0));
  EXPECT_TRUE(Time(0L) == Time(5, 30));
  EXPECT_TRUE(Time(86399L) == Time(5, 29));
}

TEST(TimeOfDay, OrdersByHourThenByMinute) {
  EXPECT_TRUE(Time(9, 59) < Time(10, 0));
  EXPECT_TRUE(Time(9, 1) < Time(9, 2));
  EXPECT_FALSE(Time(9, 1) < Time(9, 1));
}

}  // namespace
