// How pelowatchctl writes: names made harmless for terminals, colours, columns, figures in words.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "confparser.h"

/// The text with everything a terminal could obey, bytes that are no UTF-8 and backslashes written
/// as "\xNN".
std::string printable(std::string_view text);

/// Whether the descriptor is a terminal that obeys escape sequences.
bool obeys_escapes(int fd);

/// Marks up text for a terminal, or leaves it as it is.
class Colours {
 public:
  explicit Colours(bool on) : on_(on) {}

  /// On for a terminal, unless NO_COLOR is set or the terminal is a dumb one.
  static Colours for_descriptor(int fd);

  std::string good(const std::string& text) const { return in("32", text); }
  std::string bad(const std::string& text) const { return in("1;31", text); }

 private:
  std::string in(const char* code, const std::string& text) const;

  bool on_;
};

/// Rows of a title and a text, the texts one below the other; one a line.
std::string columns(const std::vector<std::pair<std::string, std::string>>& rows);

/// "4,294,967,296"
std::string grouped(std::uint64_t number);

/// "1 minute", "2 minutes"
std::string counted(std::uint64_t number, const char* unit);

/// "02:30"; also for times that no day has, "25:99".
std::string clock_text(const ConfParser::time_T& time);

/// "0 bytes", "16.0 MiB"
std::string size_in_words(std::uint64_t bytes);

/// "12 seconds", "1 minute", "3 days 4 hours": the two greatest units. Negative counts as 0.
std::string duration_in_words(std::time_t seconds);

/// Local time, "2026-11-21 14:05:09".
std::string local_time(std::time_t at);

/// UTC, "2026-11-21T14:05:09Z".
std::string utc_time(std::time_t at);
