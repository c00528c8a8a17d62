#include "findings.h"

namespace {

bool continues_a_character(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80;
}

}  // namespace

// Not within a character of UTF-8, unless it is none.
std::string cut(std::string_view text) {
  if (text.size() <= longest_shown) {
    return std::string(text);
  }
  std::size_t length = longest_shown;
  while (length > longest_shown - 4 && continues_a_character(text[length])) {
    --length;
  }
  return std::string(text.substr(0, length)) + "...";
}

std::string quoted(std::string_view text) {
  return '"' + cut(text) + '"';
}
