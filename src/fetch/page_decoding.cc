#include "page_decoding.h"

#include <cstdint>
#include <limits>
#include <optional>

#include <unicode/ucnv.h>

#include <kestrova/unicode.h>

namespace kestrova::page {
namespace {

// ISO Latin 1 to UTF-8 through ICU; no value when the converter is unavailable.
std::optional<std::string> fromLatin1(std::string_view bytes) {
  if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max() / 2 - 1)) {
    return std::nullopt;
  }
  std::string out(bytes.size() * 2 + 1, '\0');
  UErrorCode status = U_ZERO_ERROR;
  std::int32_t length =
      ucnv_convert("UTF-8", "ISO-8859-1", out.data(), static_cast<std::int32_t>(out.size()),
                   bytes.data(), static_cast<std::int32_t>(bytes.size()), &status);
  if (U_FAILURE(status)) {
    return std::nullopt;
  }
  out.resize(static_cast<std::size_t>(length));
  return out;
}

// Drops a UTF-8 sequence that was cut off by the end of the data (at most three bytes).
std::string_view withoutCutSequence(std::string_view bytes) {
  std::size_t n = bytes.size();
  for (std::size_t back = 1; back <= 3 && back <= n; ++back) {
    unsigned char c = static_cast<unsigned char>(bytes[n - back]);
    if ((c & 0xC0) == 0x80) {
      continue;  // a continuation byte: look further back for the lead byte
    }
    std::size_t needed = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
    return needed > back ? bytes.substr(0, n - back) : bytes;
  }
  return bytes;
}

std::string latin1OrRepaired(std::string_view bytes) {
  if (std::optional<std::string> text = fromLatin1(bytes)) {
    return *text;
  }
  return unicode::repairUtf8(bytes);
}

}  // namespace

bool isReadableStatus(long status) {
  return status >= 200 && status <= 399;
}

bool isReadableContentType(std::string_view lowerContentType) {
  return lowerContentType.empty() || lowerContentType.find("html") != std::string_view::npos ||
         lowerContentType.find("text") != std::string_view::npos;
}

std::string decodeBody(std::string_view body, std::string_view lowerContentType, bool cutOff) {
  for (std::string_view label : {"iso-8859", "latin1", "windows-1252"}) {
    if (lowerContentType.find(label) != std::string_view::npos) {
      return latin1OrRepaired(body);
    }
  }
  std::string_view utf8 = cutOff ? withoutCutSequence(body) : body;
  if (unicode::isValidUtf8(utf8)) {
    if (utf8.starts_with("\xEF\xBB\xBF")) {
      utf8.remove_prefix(3);
    }
    return std::string(utf8);
  }
  return latin1OrRepaired(body);
}

}  // namespace kestrova::page
