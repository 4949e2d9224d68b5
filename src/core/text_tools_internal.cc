#include "text_tools_internal.h"

#include "unicode.h"

namespace kestrova::TextTools::detail {

std::string_view trimWhitespace(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    std::size_t next = begin;
    if (!unicode::isWhitespace(unicode::decodeAt(text, next))) {
      break;
    }
    begin = next;
  }
  std::size_t end = text.size();
  while (end > begin) {
    std::size_t previous = end;
    if (!unicode::isWhitespace(unicode::decodeBefore(text, previous))) {
      break;
    }
    end = previous;
  }
  return text.substr(begin, end - begin);
}

bool hasAtLeastCharacters(std::string_view text, std::size_t n) {
  if (text.size() < n) {
    return false;
  }
  unicode::GraphemeWalker walker(text);
  std::size_t count = 0;
  while (count < n && walker.next()) {
    ++count;
  }
  return count >= n;
}

}  // namespace kestrova::TextTools::detail
