// The JSON form of the library document: one line, keys sorted at every level, "/" escaped as
// "\/", dates as ISO 8601 in UTC with whole seconds, UUIDs in upper case, absent optionals left
// out. Decoding is tolerant for LibraryData and SavedTab (every key but a tab's id and url has a
// default) and strict for every other record; unknown keys are ignored.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <kestrova/models.h>

namespace kestrova::codec {

// Thrown by encodeLibrary for a value JSON cannot hold (a NaN or infinite vector element).
class EncodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The document text. Invalid UTF-8 in a string is written as U+FFFD, so the result always reads
// back. Throws EncodeError as above.
std::string encodeLibrary(const LibraryData& data);
// The same text handed to `sink` in pieces of about a megabyte (and a last, smaller one), for
// writing a large document without holding it whole. Throws EncodeError as above, possibly after
// some pieces were handed on.
void encodeLibrary(const LibraryData& data, const std::function<void(std::string_view)>& sink);

// Reads a document. `loadTime` is the savedAt of tabs that have none. On failure returns no
// value and, when `error` is given, a short English reason (for tests and diagnostics).
std::optional<LibraryData> decodeLibrary(std::string_view json, Date loadTime = now(),
                                         std::string* error = nullptr);
// The same for text in a std::string; when the string has kPadding bytes of spare capacity the
// parser reads it in place instead of copying it first.
std::optional<LibraryData> decodeLibrary(const std::string& json, Date loadTime = now(),
                                         std::string* error = nullptr);
// The same, taking the text over: it is freed as soon as it is parsed, before the records are
// built, so that a large document is never held as text, parse tree and records at once.
std::optional<LibraryData> decodeLibrary(std::string&& json, Date loadTime = now(),
                                         std::string* error = nullptr);
inline constexpr std::size_t kPadding = 64;

// Appends `text` as a JSON string literal with the document's escaping.
void appendJsonString(std::string& out, std::string_view text);

}  // namespace kestrova::codec
