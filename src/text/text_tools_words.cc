// Words, stop words and stems: the innermost loop of search and of the vectors, so the walk over
// ASCII text runs byte by byte and hands out views of the text itself where it can.
#include <array>
#include <optional>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova::TextTools {
namespace {

constexpr const char* kStopWordList[] = {
    // German
    "der", "die", "das", "den", "dem", "des", "ein", "eine", "einer", "eines", "einem", "einen",
    "und", "oder", "aber", "mit", "von", "vom", "zu", "zum", "zur", "auf", "aus", "bei", "für",
    "fur", "ist", "sind", "war", "wird", "werden", "im", "in", "an", "am", "als", "auch", "nicht",
    "noch", "nur", "wie", "was", "wer", "wo", "so", "es", "er", "sie", "wir", "ihr", "du", "ich",
    "man", "sich", "hat", "haben", "kann", "können", "mehr", "über", "uber", "unter", "nach", "vor",
    "bis", "ab", "je", "pro", "dass", "wenn", "dann", "alle", "alles", "ohne", "beim", "ins",
    "einen", "diese", "dieser", "dieses", "mein", "meine", "dein", "deine", "unser", "unsere",
    "euer", "gibt", "neue", "neuen", "neu",
    // English
    "the", "a", "an", "and", "or", "of", "to", "for", "in", "on", "with", "is", "are", "was", "be",
    "by", "at", "it", "this", "that", "from", "as", "how", "what", "why", "you", "your", "we",
    "our", "my", "do", "did", "which", "vs",
    // Web noise
    "www", "com", "de", "ch", "org", "net", "io", "html", "https", "http", "seite", "page", "home",
    "start",
    // Words of Kestrova's own questions and summaries
    "zusammenfassung", "gespeichert", "habe", "zu", "etwas", "gespeicherten", "tabs", "tab",
    "bereich", "sollte", "sollten", "anschauen", "meinen", "mir", "mich", "welche", "welcher",
    "zeige", "finde", "gespeichertes", "frage", "fragen", "eigentlich", "bitte", "kannst", "könnte",
    "worum", "geht", "darüber", "dazu"};

// An open-addressing table over the stop words: one hash and usually one comparison per word,
// cheaper than the general set on the hot path.
class StopWordTable {
 public:
  StopWordTable() {
    for (const std::string& word : stopWords()) {
      std::size_t slot = hash(word) & kMask;
      while (!slots_[slot].empty()) {
        slot = (slot + 1) & kMask;
      }
      slots_[slot] = word;
      maxLength_ = std::max(maxLength_, word.size());
    }
  }

  bool contains(std::string_view word) const {
    if (word.empty() || word.size() > maxLength_) {
      return false;
    }
    std::size_t slot = hash(word) & kMask;
    while (!slots_[slot].empty()) {
      if (slots_[slot] == word) {
        return true;
      }
      slot = (slot + 1) & kMask;
    }
    return false;
  }

 private:
  static constexpr std::size_t kSize = 1024;  // well over twice the number of words
  static constexpr std::size_t kMask = kSize - 1;

  static std::size_t hash(std::string_view word) {
    std::uint32_t h = 2166136261u;
    for (unsigned char c : word) {
      h = (h ^ c) * 16777619u;
    }
    return h ^ (h >> 15);
  }

  std::array<std::string_view, kSize> slots_{};
  std::size_t maxLength_ = 0;
};

// The lower-case form of an ASCII letter or digit, 0 for every other byte.
constexpr std::array<char, 128> makeAsciiWordTable() {
  std::array<char, 128> table{};
  for (int c = 0; c < 128; ++c) {
    if (c >= 'a' && c <= 'z') {
      table[c] = static_cast<char>(c);
    } else if (c >= 'A' && c <= 'Z') {
      table[c] = static_cast<char>(c - 'A' + 'a');
    } else if (c >= '0' && c <= '9') {
      table[c] = static_cast<char>(c);
    }
  }
  return table;
}
constexpr std::array<char, 128> kAsciiWord = makeAsciiWordTable();

// The one character whose lower-case form loses the emoji property (CIRCLED LATIN CAPITAL M).
constexpr std::string_view kCircledM = "\xE2\x93\x82";

bool isWordCharacter(char32_t first) {
  return unicode::isLetter(first) || unicode::isNumber(first);
}

// Lower-case form and class of the code points below U+0300, whose lower-case form is a single
// code point (all but "İ").
struct LatinEntry {
  char32_t lower = 0;
  bool word = false;
  bool simple = false;
};
using LatinTable = std::array<LatinEntry, 0x300>;

const LatinTable& latinTable() {
  static const LatinTable table = [] {
    LatinTable t{};
    for (char32_t cp = 0x80; cp < 0x300; ++cp) {
      char32_t lowered[3];
      const int count = unicode::lowerCodePoint(cp, lowered);
      t[cp] = {lowered[0], isWordCharacter(lowered[0]), count == 1};
    }
    return t;
  }();
  return table;
}

}  // namespace

const StopWordSet& stopWords() {
  static const StopWordSet set(std::begin(kStopWordList), std::end(kStopWordList));
  return set;
}

bool isStopWord(std::string_view word) {
  static const StopWordTable table;
  return table.contains(word);
}

void forEachWord(std::string_view text, bool keepStopWords,
                 void (*visit)(void* context, std::string_view word), void* context) {
  // The current word is either a view of lower-case ASCII in `text` starting at `wordStart`, or,
  // once it needed lower-casing or held other characters, the contents of `buffer`.
  std::string buffer;
  std::size_t wordStart = 0;
  std::size_t wordChars = 0;
  bool buffered = false;
  std::string repaired;
  bool checked = false;
  std::optional<unicode::GraphemeWalker> walker;

  auto finishWord = [&](std::size_t end) {
    if (wordChars >= 2) {
      const std::string_view word =
          buffered ? std::string_view(buffer) : text.substr(wordStart, end - wordStart);
      if (keepStopWords || !isStopWord(word)) {
        visit(context, word);
      }
    }
    wordChars = 0;
    buffered = false;
    buffer.clear();
  };
  auto switchToBuffer = [&](std::size_t pos) {
    if (!buffered) {
      buffer.assign(text.substr(wordStart, pos - wordStart));
      buffered = true;
    }
  };

  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const LatinTable& latin = latinTable();
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t n = text.size();
    const unsigned char c = bytes[pos];
    if (c < 0x80 && (pos + 1 == n || bytes[pos + 1] < 0x80)) {
      // An ASCII byte followed by another ASCII byte (or the end) is a character of its own.
      if (kAsciiWord[c] == 0) {
        if (wordChars != 0) {
          finishWord(pos);
        }
        ++pos;
        continue;
      }
      const std::size_t runStart = pos;
      bool upper = false;
      std::size_t end = pos;
      while (end < n && bytes[end] < 0x80 && kAsciiWord[bytes[end]] != 0) {
        upper |= kAsciiWord[bytes[end]] != static_cast<char>(bytes[end]);
        ++end;
      }
      if (end < n && bytes[end] >= 0x80) {
        --end;  // the last letter may take combining marks; the general path decides
      }
      if (wordChars == 0) {
        wordStart = runStart;
      }
      if (buffered || upper) {
        switchToBuffer(runStart);
        for (std::size_t i = runStart; i < end; ++i) {
          buffer.push_back(kAsciiWord[bytes[i]]);
        }
      }
      wordChars += end - runStart;
      pos = end;
      continue;
    }
    if (c >= 0xC2 && c <= 0xCB && pos + 1 < n && (bytes[pos + 1] & 0xC0) == 0x80) {
      // A code point below U+0300 (Latin letters with accents) followed by ASCII, another such
      // code point or the end is a character of its own.
      const std::size_t after = pos + 2;
      if (after == n || bytes[after] < 0x80 || (bytes[after] >= 0xC2 && bytes[after] <= 0xCB)) {
        const LatinEntry& entry = latin[((c & 0x1Fu) << 6) | (bytes[pos + 1] & 0x3Fu)];
        if (entry.simple) {
          if (entry.word) {
            if (wordChars == 0) {
              wordStart = pos;
            }
            switchToBuffer(pos);
            unicode::appendUtf8(buffer, entry.lower);
            ++wordChars;
          } else if (wordChars != 0) {
            finishWord(pos);
          }
          pos = after;
          continue;
        }
      }
    }

    if (!checked) {
      checked = true;
      // Everything before `pos` is ASCII, so repairing keeps the positions seen so far.
      if (!unicode::isValidUtf8(text.substr(pos))) {
        repaired = unicode::repairUtf8(text);
        text = repaired;
        bytes = reinterpret_cast<const unsigned char*>(text.data());
      }
      walker.emplace(text);
    }
    walker->restartAt(pos);
    walker->next();
    const std::string_view cluster = walker->cluster();
    if (cluster.size() > 3 && cluster.find(kCircledM) != std::string_view::npos) {
      // Lower-casing takes the emoji property from "Ⓜ", which can split an emoji sequence
      // into several characters of the lowered text.
      std::string lowered;
      unicode::appendLower(lowered, text, walker->begin(), walker->end());
      unicode::GraphemeWalker parts(lowered);
      while (parts.next()) {
        if (isWordCharacter(parts.first())) {
          if (wordChars == 0) {
            wordStart = pos;
          }
          switchToBuffer(pos);
          buffer.append(parts.cluster());
          ++wordChars;
        } else if (wordChars != 0) {
          finishWord(pos);
        }
      }
      pos = walker->end();
      continue;
    }
    char32_t lowered[3];
    unicode::lowerCodePoint(walker->first(), lowered);
    if (isWordCharacter(lowered[0])) {
      if (wordChars == 0) {
        wordStart = pos;
      }
      switchToBuffer(pos);
      unicode::appendLower(buffer, text, walker->begin(), walker->end());
      ++wordChars;
    } else if (wordChars != 0) {
      finishWord(pos);
    }
    pos = walker->end();
  }
  if (wordChars != 0) {
    finishWord(text.size());
  }
}

std::vector<std::string> words(std::string_view text, bool keepStopWords) {
  std::vector<std::string> result;
  result.reserve(text.size() / 8);
  forEachWord(text, keepStopWords, [&result](std::string_view word) { result.emplace_back(word); });
  return result;
}

std::vector<std::string> originalWords(std::string_view text) {
  std::string repaired;
  if (!unicode::isValidUtf8(text)) {
    repaired = unicode::repairUtf8(text);
    text = repaired;
  }
  std::vector<std::string> result;
  std::string current;
  auto finishWord = [&]() {
    const std::size_t first = current.find_first_not_of('-');
    if (first != std::string::npos) {
      const std::size_t last = current.find_last_not_of('-');
      result.push_back(current.substr(first, last - first + 1));
    }
    current.clear();
  };
  unicode::GraphemeWalker walker(text);
  while (walker.next()) {
    if (walker.cluster() == "-" || isWordCharacter(walker.first())) {
      current.append(walker.cluster());
    } else if (!current.empty()) {
      finishWord();
    }
  }
  if (!current.empty()) {
    finishWord();
  }
  return result;
}

std::string stem(std::string_view word) {
  std::string repaired;
  if (!unicode::isValidUtf8(word)) {
    repaired = unicode::repairUtf8(word);
    word = repaired;
  }
  unicode::GraphemeWalker walker(word);
  std::size_t count = 0;
  std::size_t sixEnd = 0;
  while (count < 7 && walker.next()) {
    ++count;
    if (count == 6) {
      sixEnd = walker.end();
    }
  }
  return std::string(count >= 7 ? word.substr(0, sixEnd) : word);
}

}  // namespace kestrova::TextTools
