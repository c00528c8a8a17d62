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

const Escape escapes[] = {
    {"newline", "\n", "\\x0a"},
    {"escape", "\x1b[2J", "\\x1b[2J"},
    {"NUL", string(1, '\0'), "\\x00"},
    {"delete", "\x7f", "\\x7f"},
    {"backslash, so that the written form has one meaning", "\\x0a", "\\x5cx0a"},
    {"C1 control as UTF-8", "\xc2\x9b", "\\xc2\\x9b"},
    {"C1 control as a byte", "\x9b", "\\x9b"},
    {"Latin-1", "\xe4", "\\xe4"},
    {"lone continuation", "\x80", "\\x80"},
    {"cut off", "\xe2\x82", "\\xe2\\x82"},
    {"longer than it need be", "\xc0\xaf", "\\xc0\\xaf"},
    {"the same in three bytes", "\xe0\x80\xaf", "\\xe0\\x80\\xaf"},
    {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
    {"beyond Unicode", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
    {"no first byte", "\xff\xfe", "\\xff\\xfe"},
    {"text turned around", "\u202e", "\\xe2\\x80\\xae"},
    {"Arabic letter mark", "\u061c", "\\xd8\\x9c"},
    {"left-to-right mark", "\u200e", "\\xe2\\x80\\x8e"},
    {"right-to-left mark", "\u200f", "\\xe2\\x80\\x8f"},
    {"line separator", "\u2028", "\\xe2\\x80\\xa8"},
    {"paragraph separator", "\u2029", "\\xe2\\x80\\xa9"},
    {"isolated text", "\u2066", "\\xe2\\x81\\xa6"}};

TEST(Printable, EscapesByteByByte) {
  for (const auto& [what, text, written] : escapes) {
    EXPECT_EQ(printable("a" + text + "b"), "a" + written + "b") << what;
  }
}

TEST(Colours, MarkUpOnlyWhenOn) {
  EXPECT_EQ(Colours(true).good("fine"), "\x1b[32mfine\x1b[0m");
  EXPECT_EQ(Colours(true).bad("bad"), "\x1b[1;31mbad\x1b[0m");
  EXPECT_EQ(Colours(false).good("fine"), "fine");
  EXPECT_EQ(Colours(false).bad("bad"), "bad");
}

TEST(Colours, AreOnOnATerminalThatObeysUnlessNoColorIsSet) {
  const Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY));
  (void)grantpt(terminal.get());
  (void)unlockpt(terminal.get());
  const Descriptor side(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY));
  const Descriptor nowhere(open("/dev/null", O_WRONLY));
  struct Row {
    int fd;
    const char* terminal;  ///< TERM; null for none
    const char* no_colour;
    bool coloured;
  };
  for (const Row& row :
       {Row{side.get(), "xterm", nullptr, true}, Row{side.get(), "xterm", "", true},
        Row{side.get(), "xterm", "1", false}, Row{side.get(), "dumb", nullptr, false},
        Row{side.get(), nullptr, nullptr, false}, Row{nowhere.get(), "xterm", nullptr, false}}) {
    (void)(row.terminal != nullptr ? setenv("TERM", row.terminal, 1) : unsetenv("TERM"));
    (void)(row.no_colour != nullptr ? setenv("NO_COLOR", row.no_colour, 1) : unsetenv("NO_COLOR"));
    EXPECT_EQ(Colours::for_descriptor(row.fd).good("x") != "x", row.coloured);
  }
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
