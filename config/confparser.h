// Key/value text files: the configuration file and the blocks of the commands file.
//
// One setting a line: the key, blanks, the value. "#" starts a comment wherever it stands. There
// is no "=" and no quoting; a value may hold blanks. A key may occur on several lines.
#pragma once

#include <compare>
#include <cstddef>
#include <ctime>
#include <iosfwd>
#include <list>
#include <map>
#include <span>
#include <string>
#include <utility>

/// Owns the settings read so far. Not synchronised: one thread uses one parser.
class ConfParser {
 public:
  enum detect_action_t : int { REPORT = 0, DISINFECT = 1, DELETE = 2 };

  /// LEGACY and V1 are two words for one family.
  enum definition_type_t : int { LEGACY = 0, V1 = 0, V2 = 1, V2S = 2 };

  /// Numbered as the C library numbers weekdays (tm_wday).
  enum days_t : int { SUN = 0, MON = 1, TUE = 2, WED = 3, THU = 4, FRI = 5, SAT = 6 };

  enum repeat_t : int { NO = 0, DAILY = 1, WEEKLY = 2, MONTHLY = 3, QUARTERLY = 4 };

  /// A time of day. Nothing checks the range: 25:99 is one.
  struct time_T {
    time_T() = default;
    time_T(int hour_of_day, int minute_of_hour) : hour(hour_of_day), minute(minute_of_hour) {}
    /// The local time of day of a time_t.
    explicit time_T(std::time_t t);

    /// By hour, then by minute.
    bool operator<(const time_T& other) const {
      return hour != other.hour ? hour < other.hour : minute < other.minute;
    }
    bool operator==(const time_T& other) const = default;

    int hour = 0;
    int minute = 0;
  };

  /// A value and the line of its file on which it stands, from 1.
  struct Value {
    std::string text;
    std::size_t line = 0;
  };
  /// By key; the values of one key in the order of the file.
  using Values = std::multimap<std::string, Value>;

  /// The blanks: trimmed from a line, and they end its key.
  static constexpr const char* whitespace = " \t\r\n";

  /// Adds the settings of a file. A file that cannot be opened or read adds nothing.
  void parse(const std::string& file_name);

  /// Adds the settings of a stream, read to its end.
  /// @param first_line the number of its first line
  void parse(std::istream& input, std::size_t first_line = 1);

  /// Splits a trimmed, non-empty line at its first blank; a key alone gets an empty value.
  static void parse_line(const std::string& line, std::pair<std::string, std::string>& out);

  /// Removes the characters of the set from both ends.
  static void trim(std::string& text, const char* characters);

  /// Cuts the text at its first "#".
  static void erase_comment(std::string& text);

  /// Writes the first value of `key` to `out`. A missing key and a key with several values are
  /// logged at level 1.
  /// @return true when `out` was written
  bool get(const std::string& key, std::string& out) const;

  /// As the string form, then converts. A value that does not convert is logged at level 1 and
  /// leaves `out` as it was; a missing key is logged twice, once by each of the two steps.
  /// T is what one of the conversions below gives.
  /// @return true when `out` was written
  template <typename T>
  bool get(const std::string& key, T& out) const;

  /// Appends every value of `key`, in file order; what `out` holds already stays.
  /// @return true when the key exists
  bool get(const std::string& key, std::list<std::string>& out) const;

  /// The first value of `key`, or null; logs nothing.
  const Value* peek(const std::string& key) const;

  /// Everything read so far.
  const Values& values() const { return values_; }

  /// Conversions. Words match in any case. What does not convert throws std::invalid_argument with
  /// an empty text, except for ToBool, to which everything but "yes" and "1" is false.
  static bool ToBool(const std::string& text);
  /// A whole decimal number; empty text is 0; what int cannot hold becomes its nearest value.
  static int ToInt(const std::string& text);
  static unsigned long long ToULongLong(const std::string& text);
  static detect_action_t ToActionType(const std::string& text);
  static definition_type_t ToDefinitionType(const std::string& text);
  static days_t ToDaysType(const std::string& text);
  static repeat_t ToRepeatType(const std::string& text);
  /// hour ":" minute
  static time_T ToTime(const std::string& text);

  /// The word that converts to the value, the first of two; "?" for what no word converts to.
  static const char* word(detect_action_t value) { return word_at(action_words, value); }
  static const char* word(definition_type_t value) { return word_at(definition_words, value); }
  static const char* word(days_t value) { return word_at(day_words, value); }
  static const char* word(repeat_t value) { return word_at(repeat_words, value); }

 private:
  static const char* word_at(std::span<const char* const> words, int value);

  // By their values.
  static constexpr const char* action_words[] = {"REPORT", "DISINFECT", "DELETE"};
  static constexpr const char* definition_words[] = {"LEGACY", "V2", "V2S"};
  static constexpr const char* day_words[] = {"SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT"};
  static constexpr const char* repeat_words[] = {"NO", "DAILY", "WEEKLY", "MONTHLY", "QUARTERLY"};

  Values values_;
};
