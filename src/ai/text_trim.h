// Trimming of white space at both ends of model answers, by Unicode code point.
#pragma once

#include <string>
#include <string_view>

namespace kestrova {

// Drops White_Space code points (line breaks included) from both ends.
std::string trimWhitespaceAndNewlines(std::string_view text);

// Drops White_Space code points other than line breaks (LF, VT, FF, CR, NEL, LS, PS) from both
// ends: spaces and tabs go, line breaks stay.
std::string trimWhitespace(std::string_view text);

}  // namespace kestrova
