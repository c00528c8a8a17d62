#include "confparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <tuple>

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

  std::vector<string> logged() const { return log_records(directory_.path("pelowatchd.log")); }

  TempDirectory directory_;
  ConfParser parser_;
};

string missing(const string& key) {
  return "get ConfParser::get(): " + key + " does not exist in the config\n";
}

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
      {"a hash cuts inside a word", "LogPath /mnt/a#b\n", "LogPath", {"/mnt/a"}},
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

TEST_F(ConfParserTest, ValueOfTenMegabytesIsReadWhole) {
  const string huge(10u << 20, 'x');
  parse("Key " + huge + "\nNext 1\n");
  EXPECT_TRUE(values("Key").front() == huge);
  EXPECT_THAT(values("Next"), ElementsAre("1"));
}

TEST_F(ConfParserTest, ReadsAFileByItsName) {
  parser_.parse(directory_.put("settings", "Key value\n"));
  EXPECT_THAT(values("Key"), ElementsAre("value"));
}

TEST_F(ConfParserTest, ReadingAgainAddsToWhatIsThere) {
  parse("Key a\n");
  parse("Key b\n");
  EXPECT_THAT(values("Key"), ElementsAre("a", "b"));
}

TEST_F(ConfParserTest, FileThatCannotBeReadAddsNothingAndLogsNothing) {
  parse("Key a\n");
  parser_.parse(directory_.path("no-such-file"));
  parser_.parse(directory_.path());
  EXPECT_THAT(values("Key"), ElementsAre("a"));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ConfParserTest, ParseLineOverwritesWhatThePairHeld) {
  std::pair<string, string> setting("old key", "old value");
  ConfParser::parse_line("Key", setting);
  EXPECT_THAT(setting, Pair("Key", ""));
  ConfParser::parse_line("Key \t a b", setting);
  EXPECT_THAT(setting, Pair("Key", "a b"));
}

string trimmed(string text, const char* characters) {
  ConfParser::trim(text, characters);
  return text;
}

TEST(ConfParserTrim, RemovesTheSetFromBothEndsOnly) {
  EXPECT_EQ(trimmed("xyaxbyx", "xy"), "axb");
  EXPECT_EQ(trimmed("xa", "x"), "a");
  EXPECT_EQ(trimmed("ax", "x"), "a");
  EXPECT_EQ(trimmed(" \t\r\n", " \t\r\n"), "");
  EXPECT_EQ(trimmed("", " "), "");
  EXPECT_EQ(trimmed("a b", " "), "a b");
  EXPECT_EQ(trimmed(" a ", ""), " a ");
}

TEST(ConfParserEraseComment, CutsAtTheFirstHash) {
  for (const auto& [whole, rest] : {std::pair("a # b # c", "a "), std::pair("a b", "a b")}) {
    string text = whole;
    ConfParser::erase_comment(text);
    EXPECT_EQ(text, rest);
  }
}

// Texts

TEST_F(ConfParserTest, TextOfAMissingKeyIsLoggedOnceAndLeavesTheOutput) {
  string out = "before";
  EXPECT_FALSE(parser_.get("Key", out));
  EXPECT_EQ(out, "before");
  EXPECT_THAT(logged(), ElementsAre(missing("Key")));
}

TEST_F(ConfParserTest, TextOfASingleKeyIsReadWithoutAWordInTheLog) {
  parse("Key value\n");
  string out;
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_EQ(out, "value");
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ConfParserTest, FirstOfThreeValuesIsUsedAndSaidOncePerGet) {
  parse("Key 1\nKey 2\nKey 3\n");
  string text;
  EXPECT_TRUE(parser_.get("Key", text));
  EXPECT_EQ(text, "1");
  EXPECT_THAT(logged(), ElementsAre(multiple_values));
  int number = 0;
  EXPECT_TRUE(parser_.get("Key", number));
  EXPECT_EQ(number, 1);
  EXPECT_THAT(logged(), ElementsAre(multiple_values, multiple_values));
}

TEST_F(ConfParserTest, ComplaintsAreOfLevelOne) {
  parse("Twice 1\nTwice 2\nBad x\n");
  string text;
  int number = 0;
  std::list<string> list;
  const auto complain = [&] {
    (void)parser_.get("Missing", text);
    (void)parser_.get("Twice", text);
    (void)parser_.get("Bad", number);
    (void)parser_.get("Missing", list);
  };
  log_up_to(0);
  complain();
  EXPECT_THAT(logged(), IsEmpty());
  log_up_to(1);
  complain();
  EXPECT_THAT(logged(),
              ElementsAre(missing("Missing"), multiple_values, empty_exception, "get \n"));
}

TEST_F(ConfParserTest, PeekGivesTheFirstValueWithoutAWordInTheLog) {
  parse("Key 2\nKey 1\n");
  ASSERT_NE(parser_.peek("Key"), nullptr);
  EXPECT_EQ(parser_.peek("Key")->text, "2");
  EXPECT_EQ(parser_.peek("Ke"), nullptr);
  EXPECT_EQ(parser_.peek("Keys"), nullptr);
  EXPECT_THAT(logged(), IsEmpty());
}

// Converted values: what is the same for every type

bool same(const auto& a, const auto& b) {
  return a == b;
}
bool same(const ConfParser::time_T& a, const ConfParser::time_T& b) {
  return a.hour == b.hour && a.minute == b.minute;
}

// A text, the value that it converts to, and another.
template <typename T>
struct Example {
  const char* text;
  T value;
  T other;
};

const auto examples = std::tuple(
    Example<bool>{"yes", true, false}, Example<int>{"-7", -7, 3},
    Example<unsigned long long>{"18446744073709551614", 18446744073709551614ULL, 3},
    Example<ConfParser::detect_action_t>{"disinfect ", ConfParser::DISINFECT, ConfParser::DELETE},
    Example<ConfParser::days_t>{"Wed", ConfParser::WED, ConfParser::FRI},
    Example<ConfParser::repeat_t>{"monthly", ConfParser::MONTHLY, ConfParser::DAILY},
    Example<ConfParser::time_T>{"12:30", {12, 30}, {1, 2}},
    Example<ConfParser::definition_type_t>{"v2s", ConfParser::V2S, ConfParser::V2});

template <typename T>
class ConfParserTyped : public ConfParserTest {};

using ThrowingTypes =
    testing::Types<int, unsigned long long, ConfParser::detect_action_t, ConfParser::days_t,
                   ConfParser::repeat_t, ConfParser::time_T, ConfParser::definition_type_t>;
template <typename T>
class ConfParserThrowing : public ConfParserTest {};
TYPED_TEST_SUITE(ConfParserThrowing, ThrowingTypes);

using AllTypes =
    testing::Types<bool, int, unsigned long long, ConfParser::detect_action_t, ConfParser::days_t,
                   ConfParser::repeat_t, ConfParser::time_T, ConfParser::definition_type_t>;
TYPED_TEST_SUITE(ConfParserTyped, AllTypes);

TYPED_TEST(ConfParserTyped, ValueIsConverted) {
  this->parse(string("Key ") + std::get<Example<TypeParam>>(examples).text + "\n");
  TypeParam out = std::get<Example<TypeParam>>(examples).other;
  EXPECT_TRUE(this->parser_.get("Key", out));
  EXPECT_TRUE(same(out, std::get<Example<TypeParam>>(examples).value));
}

TYPED_TEST(ConfParserTyped, MissingKeyIsLoggedTwiceAndLeavesTheOutput) {
  TypeParam out = std::get<Example<TypeParam>>(examples).value;
  EXPECT_FALSE(this->parser_.get("Key", out));
  EXPECT_TRUE(same(out, std::get<Example<TypeParam>>(examples).value));
  EXPECT_THAT(this->logged(), ElementsAre(missing("Key"), missing("Key")));
}

TYPED_TEST(ConfParserThrowing, ValueThatDoesNotConvertIsLoggedAndLeavesTheOutput) {
  this->parse("Key bogus\n");
  TypeParam out = std::get<Example<TypeParam>>(examples).other;
  EXPECT_FALSE(this->parser_.get("Key", out));
  EXPECT_TRUE(same(out, std::get<Example<TypeParam>>(examples).other));
  EXPECT_THAT(this->logged(), ElementsAre(empty_exception));
}

// Converted values: what differs

TEST_F(ConfParserTest, ConvertedNumberIsNotLogged) {
  parse("Key 5\n");
  int out = 0;
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ConfParserTest, ConvertedBoolIsLoggedAtLevelTwoWithKeyAndRawText) {
  parse("Key Maybe So\n");
  bool out = true;
  log_up_to(1);
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_THAT(logged(), IsEmpty());
  log_up_to(2);
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_THAT(logged(), ElementsAre("get ConfParser::get(): Key = Maybe So\n"));
}

TEST_F(ConfParserTest, BoolOfAnotherWordReadsAsFalse) {
  parse("Key true\n");
  bool out = true;
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_FALSE(out);
}

TEST_F(ConfParserTest, ConvertedFamilyIsLoggedAtLevelOneAsRawTextWithoutKey) {
  parse("Key v2S\n");
  ConfParser::definition_type_t out = ConfParser::V1;
  log_up_to(1);
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_THAT(logged(), ElementsAre("get ConfParser::get(): v2S\n"));
}

TEST_F(ConfParserTest, ListGetsEveryValueBehindWhatItHolds) {
  parse("Key b\nKey a\n");
  std::list<string> out{"z"};
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_THAT(out, ElementsAre("z", "b", "a"));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ConfParserTest, ListOfAMissingKeyIsLoggedAsGetAloneAndLeavesTheOutput) {
  std::list<string> out{"z"};
  EXPECT_FALSE(parser_.get("Key", out));
  EXPECT_THAT(out, ElementsAre("z"));
  EXPECT_THAT(logged(), ElementsAre("get \n"));
}

TEST_F(ConfParserTest, PercentSignsAndZeroBytesAreLoggedAsTheyStand) {
  const string value("%s\0%n", 5);
  parse("Key " + value + "\n");
  bool out = false;
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_THAT(logged(), ElementsAre("get ConfParser::get(): Key = " + value + "\n"));
}

}  // namespace
