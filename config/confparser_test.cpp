#include "confparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "daemon_config.h"
#include "log_records.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class ConfParserTest : public testing::Test {
 protected:
  ConfParserTest() {
    GlobalConfig::getGlobalConfig()->LogPath = directory_.path();
    GlobalConfig::getGlobalConfig()->Loglevel = 3;
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

TEST_F(ConfParserTest, KeyEndsAtTheFirstBlankAndTheRestIsTheValue) {
  parse("LogPath /mnt/data\n");
  EXPECT_THAT(values("LogPath"), ElementsAre("/mnt/data"));
}

TEST_F(ConfParserTest, CommentAfterAValueIsNotPartOfIt) {
  parse("MaxThreads 8 # eight\n");
  EXPECT_THAT(values("MaxThreads"), ElementsAre("8"));
}

TEST_F(ConfParserTest, HashCutsAValueEvenInsideAWord) {
  parse("LogPath /mnt/a#b\n");
  EXPECT_THAT(values("LogPath"), ElementsAre("/mnt/a"));
}

TEST_F(ConfParserTest, HashCutsAKey) {
  parse("Log#Path /mnt\n");
  EXPECT_THAT(values("Log"), ElementsAre(""));
}

TEST_F(ConfParserTest, LinesOfBlanksAndCommentsGiveNoKey) {
  parse("\n   \n\t\r\n# Key 1\n  # Key 2\n#\n");
  EXPECT_EQ(parser_.peek(""), nullptr);
  EXPECT_EQ(parser_.peek("#"), nullptr);
  EXPECT_EQ(parser_.peek("Key"), nullptr);
}

TEST_F(ConfParserTest, KeyAloneHasAnEmptyValue) {
  parse("Key\n");
  EXPECT_THAT(values("Key"), ElementsAre(""));
}

TEST_F(ConfParserTest, KeyBeforeACommentHasAnEmptyValue) {
  parse("Key # no value\n");
  EXPECT_THAT(values("Key"), ElementsAre(""));
}

TEST_F(ConfParserTest, BlanksInsideAValueStay) {
  parse("IncludeDirectory /mnt/my  own\tfiles \n");
  EXPECT_THAT(values("IncludeDirectory"), ElementsAre("/mnt/my  own\tfiles"));
}

TEST_F(ConfParserTest, BlanksAroundKeyAndValueGo) {
  parse(" \t Key \t value \t \n");
  EXPECT_THAT(values("Key"), ElementsAre("value"));
}

TEST_F(ConfParserTest, TabSeparatesKeyAndValue) {
  parse("Key\tvalue\n");
  EXPECT_THAT(values("Key"), ElementsAre("value"));
}

TEST_F(ConfParserTest, CarriageReturnBeforeTheNewlineGoes) {
  parse("Key value\r\nOther\r\n");
  EXPECT_THAT(values("Key"), ElementsAre("value"));
  EXPECT_THAT(values("Other"), ElementsAre(""));
}

TEST_F(ConfParserTest, EqualsSignIsAnOrdinaryCharacter) {
  parse("a=b c=d\nkey = 5\n");
  EXPECT_THAT(values("a=b"), ElementsAre("c=d"));
  EXPECT_THAT(values("key"), ElementsAre("= 5"));
}

TEST_F(ConfParserTest, LastLineNeedsNoNewline) {
  parse("Key value");
  EXPECT_THAT(values("Key"), ElementsAre("value"));
}

TEST_F(ConfParserTest, KeysAreCaseSensitive) {
  parse("key value\n");
  EXPECT_EQ(parser_.peek("Key"), nullptr);
}

TEST_F(ConfParserTest, RepeatedKeyKeepsItsValuesInFileOrder) {
  parse("Key c\nOther x\nKey a\nKey b\n");
  EXPECT_THAT(values("Key"), ElementsAre("c", "a", "b"));
}

TEST_F(ConfParserTest, BytesOfAnyKindStayInAValue) {
  parse(string("Key \xc3\xa4\x01\xff\"'\0z\n", 12));
  EXPECT_THAT(values("Key"), ElementsAre(string("\xc3\xa4\x01\xff\"'\0z", 8)));
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

TEST_F(ConfParserTest, FileThatDoesNotExistAddsNothingAndLogsNothing) {
  parse("Key a\n");
  parser_.parse(directory_.path("no-such-file"));
  EXPECT_THAT(values("Key"), ElementsAre("a"));
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(ConfParserTest, FolderInPlaceOfAFileAddsNothingAndLogsNothing) {
  parse("Key a\n");
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
}

TEST(ConfParserTrim, LeavesNothingOfATextMadeOfTheSet) {
  EXPECT_EQ(trimmed(" \t\r\n", " \t\r\n"), "");
}

TEST(ConfParserTrim, LeavesOtherTextsAlone) {
  EXPECT_EQ(trimmed("", " "), "");
  EXPECT_EQ(trimmed("a b", " "), "a b");
  EXPECT_EQ(trimmed(" a ", ""), " a ");
}

TEST(ConfParserEraseComment, CutsAtTheFirstHash) {
  string text = "a # b # c";
  ConfParser::erase_comment(text);
  EXPECT_EQ(text, "a ");
}

TEST(ConfParserEraseComment, LeavesATextWithoutHash) {
  string text = "a b";
  ConfParser::erase_comment(text);
  EXPECT_EQ(text, "a b");
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
  GlobalConfig::getGlobalConfig()->Loglevel = 0;
  complain();
  EXPECT_THAT(logged(), IsEmpty());
  GlobalConfig::getGlobalConfig()->Loglevel = 1;
  complain();
  EXPECT_THAT(logged(),
              ElementsAre(missing("Missing"), multiple_values, empty_exception, "get \n"));
}

TEST_F(ConfParserTest, PeekGivesTheFirstValueWithoutAWordInTheLog) {
  parse("Key 2\nKey 1\n");
  ASSERT_NE(parser_.peek("Key"), nullptr);
  EXPECT_EQ(*parser_.peek("Key"), "2");
  EXPECT_EQ(parser_.peek("Ke"), nullptr);
  EXPECT_EQ(parser_.peek("Keys"), nullptr);
  EXPECT_THAT(logged(), IsEmpty());
}

// Converted values: what is the same for every type

struct TypedValues {
  template <typename T>
  static auto same(const T& a, const T& b) {
    return a == b;
  }
  static bool same(const ConfParser::time_T& a, const ConfParser::time_T& b) {
    return a.hour == b.hour && a.minute == b.minute;
  }
};

template <typename T>
struct Example;
template <>
struct Example<int> {
  static constexpr const char* text = "-7";
  static int value() { return -7; }
  static int other() { return 3; }
};
template <>
struct Example<unsigned long long> {
  static constexpr const char* text = "18446744073709551614";
  static unsigned long long value() { return 18446744073709551614ULL; }
  static unsigned long long other() { return 3; }
};
template <>
struct Example<ConfParser::detect_action_t> {
  static constexpr const char* text = "disinfect ";
  static auto value() { return ConfParser::DISINFECT; }
  static auto other() { return ConfParser::DELETE; }
};
template <>
struct Example<ConfParser::days_t> {
  static constexpr const char* text = "Wed";
  static auto value() { return ConfParser::WED; }
  static auto other() { return ConfParser::FRI; }
};
template <>
struct Example<ConfParser::repeat_t> {
  static constexpr const char* text = "monthly";
  static auto value() { return ConfParser::MONTHLY; }
  static auto other() { return ConfParser::DAILY; }
};
template <>
struct Example<ConfParser::time_T> {
  static constexpr const char* text = "12:30";
  static auto value() { return ConfParser::time_T(12, 30); }
  static auto other() { return ConfParser::time_T(1, 2); }
};
template <>
struct Example<ConfParser::definition_type_t> {
  static constexpr const char* text = "v2s";
  static auto value() { return ConfParser::V2S; }
  static auto other() { return ConfParser::V2; }
};
template <>
struct Example<bool> {
  static constexpr const char* text = "yes";
  static bool value() { return true; }
  static bool other() { return false; }
};

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
  this->parse(string("Key ") + Example<TypeParam>::text + "\n");
  TypeParam out = Example<TypeParam>::other();
  EXPECT_TRUE(this->parser_.get("Key", out));
  EXPECT_TRUE(TypedValues::same(out, Example<TypeParam>::value()));
}

TYPED_TEST(ConfParserTyped, MissingKeyIsLoggedTwiceAndLeavesTheOutput) {
  TypeParam out = Example<TypeParam>::value();
  EXPECT_FALSE(this->parser_.get("Key", out));
  EXPECT_TRUE(TypedValues::same(out, Example<TypeParam>::value()));
  EXPECT_THAT(this->logged(), ElementsAre(missing("Key"), missing("Key")));
}

TYPED_TEST(ConfParserThrowing, ValueThatDoesNotConvertIsLoggedAndLeavesTheOutput) {
  this->parse("Key bogus\n");
  TypeParam out = Example<TypeParam>::other();
  EXPECT_FALSE(this->parser_.get("Key", out));
  EXPECT_TRUE(TypedValues::same(out, Example<TypeParam>::other()));
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
  GlobalConfig::getGlobalConfig()->Loglevel = 1;
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_THAT(logged(), IsEmpty());
  GlobalConfig::getGlobalConfig()->Loglevel = 2;
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
  GlobalConfig::getGlobalConfig()->Loglevel = 1;
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

TEST_F(ConfParserTest, TextWithPercentSignsIsLoggedAsItStands) {
  parse("Key %s%n\n");
  bool out = false;
  EXPECT_TRUE(parser_.get("Key", out));
  EXPECT_THAT(logged(), ElementsAre("get ConfParser::get(): Key = %s%n\n"));
}

}  // namespace
