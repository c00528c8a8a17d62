// Words compared whatever their capitals. ASCII only, whatever the locale: the words are the
// daemon's.
#pragma once

#include <algorithm>
#include <string_view>

inline char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline bool same_word(std::string_view one, std::string_view other) {
  return std::ranges::equal(one, other, {}, lower, lower);
}
