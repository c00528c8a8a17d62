// How the records of the tests' engine and event library write a text.
#pragma once

#include <string>
#include <string_view>

/// The text between double quotes, in one line: `"`, `\` and bytes outside printable ASCII as \xNN.
inline std::string in_quotes(std::string_view text) {
  constexpr char hex_digits[] = "0123456789abcdef";
  std::string result = "\"";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= ' ' && byte < 0x7f && byte != '"' && byte != '\\') {
      result += character;
    } else {
      result += {'\\', 'x', hex_digits[byte >> 4], hex_digits[byte & 0xf]};
    }
  }
  return result + '"';
}
