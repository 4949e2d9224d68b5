// Unicode helpers shared by the core: grapheme clusters, character classes, lower-casing and
// UTF-8 repair. A "character" everywhere in Kestrova is an extended grapheme cluster; classes are
// taken from a cluster's first code point. Every function accepts invalid UTF-8 and treats each bad
// byte as U+FFFD; none of them throws.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrova::unicode {

// True when every byte is below 0x80.
bool isAscii(std::string_view text);
// The offset of the first byte at or after `pos` that is 0x80 or above; the size when none is.
std::size_t asciiPrefix(std::string_view text, std::size_t pos);

// Returns `text` with every invalid UTF-8 sequence replaced by U+FFFD (EF BF BD).
std::string repairUtf8(std::string_view text);
bool isValidUtf8(std::string_view text);

// Decodes the code point at `pos` and advances `pos`; invalid bytes give U+FFFD and advance one.
char32_t decodeAt(std::string_view text, std::size_t& pos);
// Decodes the code point that ends at `pos` and moves `pos` to its first byte. For valid UTF-8 it
// is the inverse of decodeAt; a byte that does not end a well-formed sequence gives U+FFFD.
char32_t decodeBefore(std::string_view text, std::size_t& pos);
void appendUtf8(std::string& out, char32_t cp);

// `text` without White_Space code points (line breaks included) at either end.
std::string_view trim(std::string_view text);

// Full, locale-independent Unicode lower-casing ("İ" becomes "i̇"). ASCII takes a fast path.
std::string toLower(std::string_view text);

// Appends the full lower-case form of text[begin, end) to `out`, exactly as that part reads in
// toLower(text): the rest of `text` is the context that decides a final sigma. `text` must be
// valid UTF-8 and the range must lie on code point boundaries.
void appendLower(std::string& out, std::string_view text, std::size_t begin, std::size_t end);

// The full lower-case mapping of one code point, written to `out` (at most 3 code points). Only
// the context-free part of lower-casing: a capital sigma gives U+03C3 here.
int lowerCodePoint(char32_t cp, char32_t out[3]);

// Number of grapheme clusters in `text`.
std::size_t graphemeCount(std::string_view text);

// The first `n` grapheme clusters of `text` (all of it when it has fewer). Never splits a cluster.
std::string_view graphemePrefix(std::string_view text, std::size_t n);

// Character classes of a code point, following the Unicode properties Alphabetic, Numeric_Type,
// Uppercase and White_Space.
bool isLetter(char32_t cp);
bool isNumber(char32_t cp);
bool isUppercase(char32_t cp);
bool isWhitespace(char32_t cp);

// Walks `text` cluster by cluster. Each step yields the byte range of one cluster and its first
// code point. Clusters of a single code point followed by an ordinary character (all of ASCII,
// Latin, Greek, Cyrillic and most letters and symbols) are found without the break iterator; ICU
// decides only where combining marks, joiners, Hangul, flags or prepended marks are involved.
// Not thread-safe; use one walker per thread.
class GraphemeWalker {
 public:
  explicit GraphemeWalker(std::string_view text);
  ~GraphemeWalker();
  GraphemeWalker(const GraphemeWalker&) = delete;
  GraphemeWalker& operator=(const GraphemeWalker&) = delete;

  // Moves to the next cluster; false at the end of the text.
  bool next();
  // Continues the walk at `pos`, which must be a cluster boundary (0, the end of a cluster this
  // walker returned, or the text's size). The next call to next() yields the cluster at `pos`.
  void restartAt(std::size_t pos) { end_ = pos < text_.size() ? pos : text_.size(); }
  std::size_t begin() const { return begin_; }
  std::size_t end() const { return end_; }
  std::string_view cluster() const { return text_.substr(begin_, end_ - begin_); }
  char32_t first() const { return first_; }

 private:
  std::size_t nonAsciiBoundary(std::size_t from);

  std::string_view text_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  char32_t first_ = 0;
  struct Icu;
  Icu* icu_ = nullptr;  // created on the first non-ASCII cluster
};

}  // namespace kestrova::unicode
