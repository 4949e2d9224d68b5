#include "text_tools_internal.h"

#include <kestrova/unicode.h>

namespace kestrova::TextTools::detail {

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
