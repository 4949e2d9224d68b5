#include "text_trim.h"

#include <cstddef>

#include <kestrova/unicode.h>

namespace kestrova {
namespace {

bool isLineBreak(char32_t cp) {
  return (cp >= 0x0A && cp <= 0x0D) || cp == 0x85 || cp == 0x2028 || cp == 0x2029;
}

template <class Drop>
std::string trimCodePoints(std::string_view text, Drop drop) {
  std::size_t begin = text.size();
  std::size_t end = 0;
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t start = pos;
    const char32_t cp = unicode::decodeAt(text, pos);
    if (!drop(cp)) {
      if (begin == text.size()) {
        begin = start;
      }
      end = pos;
    }
  }
  if (begin >= end) {
    return {};
  }
  return std::string(text.substr(begin, end - begin));
}

}  // namespace

std::string trimWhitespaceAndNewlines(std::string_view text) {
  return std::string(unicode::trim(text));
}

std::string trimWhitespace(std::string_view text) {
  return trimCodePoints(text,
                        [](char32_t cp) { return unicode::isWhitespace(cp) && !isLineBreak(cp); });
}

}  // namespace kestrova
