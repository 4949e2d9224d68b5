// A fast word scanner for the texts the embedder and the search read over and over. It yields
// exactly the words of TextTools::words(prefix, keepStopWords: true) with their stems, where
// `prefix` is the first `maxChars` characters of the text, but walks ASCII and Latin-1 text byte
// by byte without lower-casing a copy or asking ICU for cluster boundaries. Any other text goes
// through TextTools itself, so the two paths agree by construction on everything the fast path
// declines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include <kestrova/text_tools.h>

#include "unicode.h"

namespace kestrova::wordscan {

inline constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

// How a fast scan ended.
enum class Scan {
  completed,  // every word was visited
  stopped,    // the visitor asked to stop
  notLatin1,  // the text holds something the fast path does not handle; nothing is final
};

namespace detail {

// Byte classes of ASCII: 0 separator, 1 lower-case letter, 2 upper-case letter, 3 digit.
struct AsciiTable {
  std::uint8_t cls[128];
  constexpr AsciiTable() : cls() {
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

// Is U+0080..U+00BF (second byte after C2) a letter or a number? ª µ º are letters, ² ³ ¹ ¼ ½ ¾
// are numbers; the rest are signs, spaces and controls.
constexpr bool isWordC2(unsigned char second) {
  switch (second) {
    case 0xAA:
    case 0xB5:
    case 0xBA:
    case 0xB2:
    case 0xB3:
    case 0xB9:
    case 0xBC:
    case 0xBD:
    case 0xBE:
      return true;
    default:
      return false;
  }
}

// U+00C0..U+00FF (second byte after C3): all letters except × (D7) and ÷ (F7).
constexpr bool isWordC3(unsigned char second) {
  return second != 0x97 && second != 0xB7;
}

}  // namespace detail

// Scans the first `maxChars` characters of `text` if they are ASCII or Latin-1 (and the character
// after them cannot extend the last one). For each word of at least 2 characters, lower-cased,
// calls `visit(word, stem)` where `stem` is the word cut to 6 characters when it has 7 or more;
// `visit` returns false to stop. `scratch` holds lower-cased copies of words that needed one.
// On notLatin1 the visitor may already have seen some words; the caller discards what it
// gathered and uses scanGeneral.
template <typename Visit>
Scan scanLatin1(std::string_view text, std::size_t maxChars, std::string& scratch, Visit&& visit) {
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  std::size_t i = 0;
  std::size_t chars = 0;

  // The current word: where it starts, how many characters it has, the byte length of its first
  // six characters, and whether it had to be copied to lower-case it.
  std::size_t start = 0;
  std::size_t wordChars = 0;
  std::size_t stemBytes = 0;
  bool copied = false;

  auto finish = [&](std::size_t end) -> bool {
    if (wordChars >= 2) {
      std::string_view word =
          copied ? std::string_view(scratch) : std::string_view(text.data() + start, end - start);
      std::string_view stem = wordChars >= 7 ? word.substr(0, stemBytes) : word;
      if (!visit(word, stem)) {
        return false;
      }
    }
    wordChars = 0;
    copied = false;
    return true;
  };
  // Appends one character (1 or 2 bytes at s + at, lower-case form `lower`) to the word.
  auto extend = [&](std::size_t at, std::size_t len, const unsigned char* lower) {
    if (wordChars == 0) {
      start = at;
      stemBytes = 0;
    }
    const bool same = len == 1 ? lower[0] == s[at] : lower[1] == s[at + 1];
    if (!same && !copied) {
      scratch.assign(text.data() + start, at - start);
      copied = true;
    }
    if (copied) {
      scratch.append(reinterpret_cast<const char*>(lower), len);
    }
    ++wordChars;
    if (wordChars <= 6) {
      stemBytes += len;
    }
  };

  while (i < n && chars < maxChars) {
    const unsigned char c = s[i];
    if (c < 0x80) {
      const std::uint8_t cls = detail::kAscii.cls[c];
      if (cls == 0) {
        if (wordChars != 0 && !finish(i)) {
          return Scan::stopped;
        }
        // CR LF is one character.
        i += (c == '\r' && i + 1 < n && s[i + 1] == '\n') ? 2 : 1;
      } else {
        const unsigned char lower = cls == 2 ? static_cast<unsigned char>(c + 32) : c;
        if (wordChars == 0) {
          start = i;
          stemBytes = 0;
        }
        if (cls == 2 && !copied) {
          scratch.assign(text.data() + start, i - start);
          copied = true;
        }
        if (copied) {
          scratch.push_back(static_cast<char>(lower));
        }
        ++wordChars;
        if (wordChars <= 6) {
          ++stemBytes;
        }
        ++i;
      }
      ++chars;
      continue;
    }
    if ((c != 0xC2 && c != 0xC3) || i + 1 >= n || (s[i + 1] & 0xC0) != 0x80) {
      return Scan::notLatin1;
    }
    const unsigned char second = s[i + 1];
    const bool word = c == 0xC2 ? detail::isWordC2(second) : detail::isWordC3(second);
    if (!word) {
      if (wordChars != 0 && !finish(i)) {
        return Scan::stopped;
      }
    } else {
      unsigned char lower[2] = {c, second};
      // À..Þ except × lower-case to à..þ.
      if (c == 0xC3 && second >= 0x80 && second <= 0x9E && second != 0x97) {
        lower[1] = static_cast<unsigned char>(second + 0x20);
      }
      extend(i, 2, lower);
    }
    i += 2;
    ++chars;
  }
  // A character beyond the cut that is not ASCII or Latin-1 could be a combining mark that belongs
  // to the last character; only the general path knows.
  if (i < n && s[i] >= 0x80 && s[i] != 0xC2 && s[i] != 0xC3) {
    return Scan::notLatin1;
  }
  if (wordChars != 0 && !finish(i)) {
    return Scan::stopped;
  }
  return Scan::completed;
}

// The same words through TextTools, for any text.
template <typename Visit>
void scanGeneral(std::string_view text, std::size_t maxChars, Visit&& visit) {
  const std::string_view prefix =
      maxChars == kNoLimit ? text : unicode::graphemePrefix(text, maxChars);
  bool stopped = false;
  TextTools::forEachWord(prefix, true, [&](std::string_view word) {
    if (!stopped) {
      const std::string stem = TextTools::stem(word);
      stopped = !visit(word, std::string_view(stem));
    }
  });
}

// Calls `visit(word, stem)` for each word (stop words included) of the first `maxChars`
// characters of `text` until it returns false. When the fast path has to give up part-way,
// `reset()` is called so the caller can forget what it gathered, and the text is walked again by
// the general path.
template <typename Visit, typename Reset>
void forEachWord(std::string_view text, std::size_t maxChars, Visit&& visit, Reset&& reset) {
  thread_local std::string scratch;
  if (scanLatin1(text, maxChars, scratch, visit) != Scan::notLatin1) {
    return;
  }
  reset();
  scanGeneral(text, maxChars, visit);
}

}  // namespace kestrova::wordscan
