// The XML escapes: nothing is left that ends a text or an attribute, and who undoes them has the
// text.
#include <cstring>
#include <utility>

#include "detection_events.h"
#include "fuzz_input.h"

namespace {

std::string without_escapes(std::string_view escaped) {
  constexpr std::pair<std::string_view, char> escapes[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string text;
  while (!escaped.empty()) {
    char next = escaped.front();
    std::size_t length = 1;
    for (const auto& [escape, meaning] : escapes) {
      if (escaped.starts_with(escape)) {
        next = meaning;
        length = escape.size();
      }
    }
    require(length > 1 || next != '&');
    text += next;
    escaped.remove_prefix(length);
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A path or a name: bytes up to the first that is zero.
  const std::string text(reinterpret_cast<const char*>(data),
                         strnlen(reinterpret_cast<const char*>(data), size));
  const std::string escaped = escape_for_xml(text);
  require(escape_for_xml_len(text.c_str()) == escaped.size() + 1);
  require(escaped.find_first_of("<>\"'") == std::string::npos);
  require(without_escapes(escaped) == text);
  return 0;
}
