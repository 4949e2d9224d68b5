// Turning a fetched body into text: which responses are read at all, and which character set
// their bytes are in.
#pragma once

#include <string>
#include <string_view>

namespace kestrova::page {

// True for a final status from 200 up to and including 399.
bool isReadableStatus(long status);

// True when the lower-cased Content-Type is empty (no header) or mentions "html" or "text".
bool isReadableContentType(std::string_view lowerContentType);

// The body as UTF-8. A content type that mentions "iso-8859", "latin1" or "windows-1252" (found
// by substring, not parsed) means ISO Latin 1. Otherwise the bytes are taken as UTF-8 when they
// are valid UTF-8 (a leading byte order mark is dropped), else as ISO Latin 1. When `cutOff` is
// true the body was cut at an arbitrary byte, so an incomplete UTF-8 sequence at its very end is
// dropped first. Never fails: as a last resort invalid sequences become U+FFFD.
std::string decodeBody(std::string_view body, std::string_view lowerContentType, bool cutOff);

}  // namespace kestrova::page
