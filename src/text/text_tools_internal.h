// Small helpers the TextTools source files share. Texts must be valid UTF-8.
#pragma once

#include <cstddef>
#include <string_view>

namespace kestrova::TextTools::detail {

// True when `text` has at least `n` characters; walks no further than needed.
bool hasAtLeastCharacters(std::string_view text, std::size_t n);

}  // namespace kestrova::TextTools::detail
