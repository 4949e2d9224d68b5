// Small helpers the TextTools source files share. Texts must be valid UTF-8.
#pragma once

#include <cstddef>
#include <string_view>

namespace kestrova::TextTools::detail {

// `text` without leading and trailing White_Space code points.
std::string_view trimWhitespace(std::string_view text);

// True when `text` has at least `n` characters; walks no further than needed.
bool hasAtLeastCharacters(std::string_view text, std::size_t n);

}  // namespace kestrova::TextTools::detail
