#include "printing.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "descriptor.h"

namespace {

using std::string;

TEST(Printable, PlainTextStaysAsItIs) {
  EXPECT_EQ(printable(""), "");
  EXPECT_EQ(printable("/data/my share/~a'b\"c"), "/data/my share/~a'b\"c");
  EXPECT_EQ(printable("/d\u00e4ten/\u20ac/\U0001f600"), "/d\u00e4ten/\u20ac/\U0001f600");
}

struct Escape {
  const char* what;
  string text;
  string written;
};

std::ostream& operator<<(std::ostream& out, const Escape& escape) {
  return out << escape.what;
}

class PrintableEscapes : public testing::TestWithParam<Escape> {};

TEST_P(PrintableEscapes, ByteByByte) {
  EXPECT_EQ(printable("a" + GetParam().text + "b"), "a" + GetParam().written + "b")
      << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, PrintableEscapes,
    testing::Values(
        Escape{"newline", "\n", "\\x0a"}, Escape{"escape", "\x1b[2J", "\\x1b[2J"},
        Escape{"NUL", string(1, '\0'), "\\x00"}, Escape{"delete", "\x7f", "\\x7f"},
        Escape{"backslash, so that the written form has one meaning", "\\x0a", "\\x5cx0a"},
        Escape{"C1 control as UTF-8", "\xc2\x9b", "\\xc2\\x9b"},
        Escape{"C1 control as a byte", "\x9b", "\\x9b"}, Escape{"Latin-1", "\xe4", "\\xe4"},
        Escape{"lone continuation", "\x80", "\\x80"}, Escape{"cut off", "\xe2\x82", "\\xe2\\x82"},
        Escape{"longer than it need be", "\xc0\xaf", "\\xc0\\xaf"},
        Escape{"the same in three bytes", "\xe0\x80\xaf", "\\xe0\\x80\\xaf"},
        Escape{"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
        Escape{"beyond Unicode", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
        Escape{"no first byte", "\xff\xfe", "\\xff\\xfe"},
        Escape{"text turned around", "\u202e", "\\xe2\\x80\\xae"},
        Escape{"Arabic letter mark", "\u061c", "\\xd8\\x9c"},
        Escape{"left-to-right mark", "\u200e", "\\xe2\\x80\\x8e"},
        Escape{"right-to-left mark", "\u200f", "\\xe2\\x80\\x8f"},
        Escape{"line separator", "\u2028", "\\xe2\\x80\\xa8"},
        Escape{"paragraph separator", "\u2029", "\\xe2\\x80\\xa9"},
        Escape{"isolated text", "\u2066", "\\xe2\\x81\\xa6"}),
    [](const auto& test) { return "Case" + std::to_string(test.index); });

TEST(Colours, MarkUpOnlyWhenOn) {
  EXPECT_EQ(Colours(true).good("fine"), "\x1b[32mfine\x1b[0m");
  EXPECT_EQ(Colours(true).bad("bad"), "\x1b[1;31mbad\x1b[0m");
  EXPECT_EQ(Colours(false).good("fine"), "fine");
  EXPECT_EQ(Colours(false).bad("bad"), "bad");
}

class ColoursOnATerminal : public testing::Test {
 protected:
  ColoursOnATerminal() : terminal_(posix_openpt(O_RDWR | O_NOCTTY)) {
    (void)grantpt(terminal_.get());
    (void)unlockpt(terminal_.get());
    side_ = Descriptor(open(ptsname(terminal_.get()), O_RDWR | O_NOCTTY));
    (void)setenv("TERM", "xterm", 1);
    (void)unsetenv("NO_COLOR");
  }
  bool coloured() const { return Colours::for_descriptor(side_.get()).good("x") != "x"; }

  Descriptor terminal_;
  Descriptor side_;
};

TEST_F(ColoursOnATerminal, AreOn) {
  EXPECT_TRUE(coloured());
}

TEST_F(ColoursOnATerminal, AreOffWithNoColor) {
  (void)setenv("NO_COLOR", "1", 1);
  EXPECT_FALSE(coloured());
}

TEST_F(ColoursOnATerminal, AreOnWithAnEmptyNoColor) {
  (void)setenv("NO_COLOR", "", 1);
  EXPECT_TRUE(coloured());
}

TEST_F(ColoursOnATerminal, AreOffOnADumbOrUnknownOne) {
  (void)setenv("TERM", "dumb", 1);
  EXPECT_FALSE(coloured());
  (void)unsetenv("TERM");
  EXPECT_FALSE(coloured());
}

TEST_F(ColoursOnATerminal, AreOffElsewhere) {
  const Descriptor nowhere(open("/dev/null", O_WRONLY));
  EXPECT_EQ(Colours::for_descriptor(nowhere.get()).good("x"), "x");
}

TEST(Columns, AlignsTheTexts) {
  EXPECT_EQ(columns({{"a", "1"}, {"long", "2"}, {"", "3"}}), "a     1\nlong  2\n      3\n");
  EXPECT_EQ(columns({}), "");
}

TEST(Grouped, ByThousands) {
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1000), "1,000");
  EXPECT_EQ(grouped(4294967296), "4,294,967,296");
  EXPECT_EQ(grouped(UINT64_MAX), "18,446,744,073,709,551,615");
}

TEST(SizeInWords, ByTheGreatestUnit) {
  EXPECT_EQ(size_in_words(0), "0 bytes");
  EXPECT_EQ(size_in_words(1), "1 byte");
  EXPECT_EQ(size_in_words(1023), "1023 bytes");
  EXPECT_EQ(size_in_words(1024), "1.0 KiB");
  EXPECT_EQ(size_in_words(16ULL << 20), "16.0 MiB");
  EXPECT_EQ(size_in_words(3ULL << 30), "3.0 GiB");
  EXPECT_EQ(size_in_words(2048ULL << 40), "2048.0 TiB");
}

TEST(DurationInWords, ByTheTwoGreatestUnits) {
  EXPECT_EQ(duration_in_words(-5), "0 seconds");
  EXPECT_EQ(duration_in_words(0), "0 seconds");
  EXPECT_EQ(duration_in_words(1), "1 second");
  EXPECT_EQ(duration_in_words(60), "1 minute");
  EXPECT_EQ(duration_in_words(61), "1 minute 1 second");
  EXPECT_EQ(duration_in_words(3600 + 59), "1 hour");
  EXPECT_EQ(duration_in_words(2 * 86400 + 3 * 3600), "2 days 3 hours");
}

TEST(Times, LocalAndUniversal) {
  (void)setenv("TZ", "XXX-2", 1);
  tzset();
  EXPECT_EQ(local_time(0), "1970-01-01 02:00:00");
  EXPECT_EQ(utc_time(0), "1970-01-01T00:00:00Z");
}

}  // namespace
