// A fast word scanner for the texts the embedder and the search read over and over. It yields
// exactly the words of TextTools::words(prefix, keepStopWords: true) with their stems, where
// `prefix` is the first `maxChars` characters of the text, but walks ASCII and Latin-1 text byte
// by byte without lower-casing a copy or asking ICU for cluster boundaries. Any other text goes
// through TextTools itself, so the two paths agree by construction on everything the fast path
// declines.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova::wordscan {

inline constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

// How a fast scan ended.
enum class Scan {
  completed,  // every word was visited
  stopped,    // the visitor asked to stop
  declined,   // the text holds something the fast path does not handle; nothing is final
};

// What the fast path needs to know about a code point: whether it is part of words (a letter or a
// number) and how it joins grapheme clusters.
enum class Join : std::uint8_t {
  none,         // starts a cluster of its own
  control,      // a control, CR or LF: nothing attaches to it
  extend,       // Extend: attaches to the cluster before it
  zwj,          // ZERO WIDTH JOINER: attaches, and may join a pictograph to it
  spacingMark,  // attaches to the cluster before it
  regional,     // regional indicator: pairs form one cluster
  other,        // Prepend or Hangul: the fast path declines
};

struct CodePointInfo {
  bool word = false;
  Join join = Join::none;
  bool pictographic = false;  // Extended_Pictographic
  // For letters and numbers: the lower-case form when lower-casing maps this code point to one
  // code point whatever surrounds it (everything but "İ" and "Σ"); 0 otherwise.
  char32_t lower = 0;
};

// From ICU's Unicode properties.
CodePointInfo codePointInfo(char32_t cp);

namespace detail {

// Byte classes of ASCII: 0 separator, 1 lower-case letter, 2 upper-case letter, 3 digit,
// 4 control (nothing attaches to it).
struct AsciiTable {
  std::uint8_t cls[128];
  constexpr AsciiTable() : cls() {
    for (int c = 0; c < 0x20; ++c) {
      cls[c] = 4;
    }
    cls[0x7F] = 4;
    for (int c = 'a'; c <= 'z'; ++c) {
      cls[c] = 1;
    }
    for (int c = 'A'; c <= 'Z'; ++c) {
      cls[c] = 2;
    }
    for (int c = '0'; c <= '9'; ++c) {
      cls[c] = 3;
    }
  }
};
inline constexpr AsciiTable kAscii{};

// For runs of ASCII word characters, indexed by any byte: 1 lower-case letter or digit,
// 3 upper-case letter, 0 anything else (separators, controls, bytes above 0x7F).
struct AsciiRunTable {
  std::uint8_t bits[256];
  constexpr AsciiRunTable() : bits() {
    for (int c = 'a'; c <= 'z'; ++c) {
      bits[c] = 1;
    }
    for (int c = '0'; c <= '9'; ++c) {
      bits[c] = 1;
    }
    for (int c = 'A'; c <= 'Z'; ++c) {
      bits[c] = 3;
    }
  }
};
inline constexpr AsciiRunTable kAsciiRun{};

// U+0080..U+00FF by their second UTF-8 byte (C2 xx and C3 xx), index (c & 1) << 6 | (xx & 0x3F).
struct LatinInfo {
  CodePointInfo info[128];
};
const LatinInfo& latinInfo();

}  // namespace detail

// Appends the lower-case form of `raw`, a word the fast path accepted (letters and numbers whose
// lower case is one code point each).
void appendLowered(std::string& out, std::string_view raw);
// The same into `out`, which has room for `raw.size() + 2 * characters` bytes (a lower-case
// form takes at most one byte more than its letter); returns the bytes written.
std::size_t lowerInto(char* out, std::string_view raw);

// A word found by a scan. Its lower-case form and its stem (the first 6 characters when it has 7
// or more) are made only when asked for, so that a caller that can reject a word by its stem does
// not pay for lower-casing the rest. Valid only during the visit.
class Word {
 public:
  // A word the fast path found: `raw` as it stands in the text, `chars` characters, the first six
  // of which take `stemBytes` bytes; `lower` when `raw` is already lower case.
  Word(std::string_view raw, std::size_t chars, std::size_t stemBytes, bool lower,
       std::string& buffer)
      : raw_(raw), chars_(chars), stemBytes_(stemBytes), lower_(lower), buffer_(buffer) {}
  // A lower-cased word with its stem, from the general path.
  Word(std::string_view lowered, std::string_view stem, std::string& buffer)
      : raw_(lowered),
        chars_(0),
        stemBytes_(0),
        lower_(true),
        buffer_(buffer),
        stem_(stem),
        haveStem_(true) {}

  Word(const Word&) = delete;
  Word& operator=(const Word&) = delete;

  std::string_view stem() {
    if (!haveStem_) {
      const std::string_view rawStem = chars_ >= 7 ? raw_.substr(0, stemBytes_) : raw_;
      if (lower_) {
        stem_ = rawStem;
      } else {
        stem_ = std::string_view(stemBuffer_, lowerInto(stemBuffer_, rawStem));
      }
      haveStem_ = true;
    }
    return stem_;
  }

  std::string_view text() {
    if (lower_) {
      return raw_;
    }
    buffer_.clear();
    appendLowered(buffer_, raw_);
    raw_ = buffer_;
    lower_ = true;
    return raw_;
  }

 private:
  std::string_view raw_;
  std::size_t chars_;
  std::size_t stemBytes_;
  bool lower_;
  std::string& buffer_;
  std::string_view stem_;
  bool haveStem_ = false;
  char stemBuffer_[40];  // six characters of at most 4 bytes, each lower case 1 byte longer
};

// Scans the first `maxChars` characters of `text` when its letters and numbers are ones whose
// lower case is one code point each (all of Latin-1, most alphabets and CJK), standing alone, and
// its separators come from anywhere in Unicode (punctuation, symbols, emoji, with their marks and
// joiners). Calls `visit(Word&)` for each word of at least 2 characters; `visit` returns false to
// stop. `buffer` holds lower-cased words. Marks on letters, "İ" and "Σ", Hangul, invalid UTF-8 and
// the rarer cluster rules make it decline; the visitor may then already have seen some words, and
// the caller discards what it gathered and uses scanGeneral.
template <typename Visit>
Scan scanFast(std::string_view text, std::size_t maxChars, std::string& buffer, Visit&& visit) {
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  const detail::LatinInfo& latin = detail::latinInfo();

  // The current word: where it starts, how many characters it has, the byte length of its first
  // six characters, and whether it is lower case as it stands.
  std::size_t start = 0;
  std::size_t wordChars = 0;
  std::size_t stemBytes = 0;
  bool lower = true;

  // The current cluster: what its first code point was, and what may still join it.
  enum class Kind { begin, word, separator, control, pictograph, regional };
  Kind kind = Kind::begin;
  bool pictographJoinable = false;  // a pictograph followed only by Extend so far
  bool afterZwj = false;            // ... and then a ZWJ: the next pictograph joins
  bool regionalOpen = false;        // a lone regional indicator: the next one pairs with it
  std::size_t chars = 0;
  std::size_t i = 0;

  auto finish = [&](std::size_t end) -> bool {
    if (wordChars >= 2) {
      Word word(std::string_view(text.data() + start, end - start), wordChars, stemBytes, lower,
                buffer);
      if (!visit(word)) {
        return false;
      }
    }
    wordChars = 0;
    lower = true;
    return true;
  };
  // Adds one word character of `len` bytes at `at`.
  auto extend = [&](std::size_t at, std::size_t len, bool isLower) {
    if (wordChars == 0) {
      start = at;
      stemBytes = 0;
    }
    lower = lower && isLower;
    ++wordChars;
    if (wordChars <= 6) {
      stemBytes += len;
    }
  };

  while (i < n) {
    const unsigned char c = s[i];
    if (c < 0x80) {
      const std::uint8_t cls = detail::kAscii.cls[c];
      if (cls == 1 || cls == 2 || cls == 3) {
        // A run of ASCII letters and digits: one character per byte, up to the cut. A mark that
        // follows the run's last letter is caught below, where it would join a word cluster.
        if (chars == maxChars) {
          break;
        }
        const std::size_t budget = maxChars - chars;
        const std::size_t limit = budget < n - i ? i + budget : n;
        std::size_t j = i;
        std::uint8_t seen = 0;
        while (j < limit) {
          const std::uint8_t k = detail::kAsciiRun.bits[s[j]];
          if (k == 0) {
            break;
          }
          seen |= k;
          ++j;
        }
        if (wordChars == 0) {
          start = i;
          stemBytes = 0;
        }
        lower = lower && (seen & 2) == 0;
        const std::size_t run = j - i;
        if (wordChars < 6) {
          stemBytes += std::min<std::size_t>(6 - wordChars, run);
        }
        wordChars += run;
        chars += run;
        kind = Kind::word;
        i = j;
        continue;
      }
      // Every other ASCII character starts a cluster, except LF after CR.
      if (c == '\n' && i > 0 && s[i - 1] == '\r' && kind == Kind::control) {
        ++i;
        continue;
      }
      if (chars == maxChars) {
        break;
      }
      ++chars;
      if (wordChars != 0 && !finish(i)) {
        return Scan::stopped;
      }
      kind = cls == 4 ? Kind::control : Kind::separator;
      ++i;
      continue;
    }

    // Decode one code point.
    char32_t cp = 0;
    std::size_t len = 0;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
      cp = c & 0x1Fu;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      cp = c & 0x0Fu;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      cp = c & 0x07u;
    } else {
      return Scan::declined;
    }
    if (i + len > n) {
      return Scan::declined;
    }
    for (std::size_t k = 1; k < len; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) {
        return Scan::declined;
      }
      cp = (cp << 6) | (s[i + k] & 0x3Fu);
    }
    if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
        (cp >= 0xD800 && cp <= 0xDFFF)) {
      return Scan::declined;
    }
    const CodePointInfo info =
        cp < 0x100 ? latin.info[((c & 1u) << 6) | (s[i + 1] & 0x3Fu)] : codePointInfo(cp);

    // Does it join the current cluster?
    bool joins = false;
    switch (info.join) {
      case Join::extend:
      case Join::zwj:
      case Join::spacingMark:
        joins = kind != Kind::begin && kind != Kind::control;
        break;
      case Join::regional:
        joins = kind == Kind::regional && regionalOpen;
        break;
      case Join::none:
        joins = info.pictographic && kind == Kind::pictograph && afterZwj;
        break;
      case Join::control:
        break;
      case Join::other:
        if (chars == maxChars) {
          // A Hangul syllable or a Prepend after the cut starts a new cluster: the cut is clean.
          goto done;
        }
        return Scan::declined;
    }

    if (joins) {
      if (kind == Kind::word) {
        return Scan::declined;  // a mark on a letter: the general path keeps it in the word
      }
      // Only two regional indicators in a row pair up.
      regionalOpen = false;
      if (kind == Kind::pictograph) {
        // Pictograph Extend* ZWJ joins the next pictograph; a spacing mark ends that chance.
        if (info.join == Join::spacingMark) {
          pictographJoinable = false;
        } else if (info.join == Join::none) {
          pictographJoinable = true;  // the joined pictograph may take the next one
        }
        afterZwj = info.join == Join::zwj && pictographJoinable;
      }
      i += len;
      continue;
    }

    if (chars == maxChars) {
      break;
    }
    ++chars;
    if (info.word) {
      if (info.lower == 0 || info.pictographic || info.join != Join::none) {
        return Scan::declined;
      }
      extend(i, len, info.lower == cp);
      kind = Kind::word;
    } else {
      if (wordChars != 0 && !finish(i)) {
        return Scan::stopped;
      }
      pictographJoinable = false;
      afterZwj = false;
      regionalOpen = false;
      if (info.join == Join::control) {
        kind = Kind::control;
      } else if (info.join == Join::regional) {
        kind = Kind::regional;
        regionalOpen = true;
      } else if (info.pictographic) {
        kind = Kind::pictograph;
        pictographJoinable = true;
      } else {
        kind = Kind::separator;
      }
    }
    i += len;
  }
done:
  if (wordChars != 0 && !finish(i)) {
    return Scan::stopped;
  }
  return Scan::completed;
}

// The stem of a lower-cased word: for ASCII and Latin-1 words, whose code points are characters
// each, without asking ICU; otherwise TextTools::stem.
std::string_view stemOf(std::string_view word, std::string& buffer);

// The same words through TextTools, for any text.
template <typename Visit>
void scanGeneral(std::string_view text, std::size_t maxChars, std::string& buffer, Visit&& visit) {
  const std::string_view prefix =
      maxChars == kNoLimit ? text : unicode::graphemePrefix(text, maxChars);
  bool stopped = false;
  std::string stemBuffer;
  TextTools::forEachWord(prefix, true, [&](std::string_view lowered) {
    if (!stopped) {
      Word word(lowered, stemOf(lowered, stemBuffer), buffer);
      stopped = !visit(word);
    }
  });
}

// Calls `visit(Word&)` for each word (stop words included) of the first `maxChars` characters of
// `text` until it returns false. When the fast path has to give up part-way, `reset()` is called
// so the caller can forget what it gathered, and the text is walked again by the general path.
template <typename Visit, typename Reset>
void forEachWord(std::string_view text, std::size_t maxChars, Visit&& visit, Reset&& reset) {
  thread_local std::string buffer;
  if (scanFast(text, maxChars, buffer, visit) != Scan::declined) {
    return;
  }
  reset();
  scanGeneral(text, maxChars, buffer, visit);
}

}  // namespace kestrova::wordscan
