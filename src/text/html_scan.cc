#include "html_scan.h"

#include <unicode/uchar.h>

#include <kestrova/unicode.h>

namespace kestrova::html {
namespace {

constexpr std::string_view kLongS = "\xC5\xBF";       // ſ, folds to s
constexpr std::string_view kKelvin = "\xE2\x84\xAA";  // K, folds to k

// The \w of regular expressions: letters, marks, decimal digits, connector punctuation and the
// two joiners.
bool isRegexWordCharacter(char32_t cp) {
  if (cp < 0x80) {
    return (cp >= 'a' && cp <= 'z') || (cp >= 'A' && cp <= 'Z') || (cp >= '0' && cp <= '9') ||
           cp == '_';
  }
  if (cp == 0x200C || cp == 0x200D) {
    return true;
  }
  const auto c = static_cast<UChar32>(cp);
  if (u_hasBinaryProperty(c, UCHAR_ALPHABETIC)) {
    return true;
  }
  const auto mask = U_GET_GC_MASK(c);
  return (mask & (U_GC_M_MASK | U_GC_ND_MASK | U_GC_PC_MASK)) != 0;
}

// An opening "<" + name, with or without \b after the name; the position of "<" or npos.
std::size_t findOpeningImpl(std::string_view text, std::size_t from, std::string_view name,
                            bool boundary) {
  while (from < text.size()) {
    const std::size_t p = text.find('<', from);
    if (p == npos) {
      return npos;
    }
    const std::size_t e = matchFolded(text, p + 1, name);
    if (e != npos && (!boundary || wordBoundaryAfterWord(text, e))) {
      return p;
    }
    from = p + 1;
  }
  return npos;
}

// Appends text[copied, begin) and `replacement` to `out`.
void replaceSpan(std::string& out, std::string_view text, std::size_t copied, std::size_t begin,
                 char replacement) {
  out.append(text.substr(copied, begin - copied));
  out.push_back(replacement);
}

}  // namespace

std::size_t matchFolded(std::string_view text, std::size_t pos, std::string_view word) {
  for (char ch : word) {
    if (pos >= text.size()) {
      return npos;
    }
    const char c = text[pos];
    if (c == ch || (ch >= 'a' && ch <= 'z' && c == ch - ('a' - 'A'))) {
      ++pos;
    } else if (ch == 's' && text.substr(pos, kLongS.size()) == kLongS) {
      pos += kLongS.size();
    } else if (ch == 'k' && text.substr(pos, kKelvin.size()) == kKelvin) {
      pos += kKelvin.size();
    } else {
      return npos;
    }
  }
  return pos;
}

bool wordBoundaryAfterWord(std::string_view text, std::size_t pos) {
  if (pos >= text.size()) {
    return true;
  }
  const char32_t cp = unicode::decodeAt(text, pos);
  const auto c = static_cast<UChar32>(cp);
  // Combining marks and format characters continue the word before them.
  if (cp >= 0x80 &&
      (u_hasBinaryProperty(c, UCHAR_GRAPHEME_EXTEND) || u_charType(c) == U_FORMAT_CHAR)) {
    return false;
  }
  return !isRegexWordCharacter(cp);
}

std::size_t findOpening(std::string_view text, std::size_t from, std::string_view name) {
  return findOpeningImpl(text, from, name, true);
}

std::size_t findClosing(std::string_view text, std::size_t from, std::string_view name) {
  while (from < text.size()) {
    const std::size_t p = text.find("</", from);
    if (p == npos) {
      return npos;
    }
    const std::size_t e = matchFolded(text, p + 2, name);
    if (e != npos && e < text.size() && text[e] == '>') {
      return p;
    }
    from = p + 1;
  }
  return npos;
}

std::optional<Match> findElement(std::string_view text, std::size_t from, std::string_view name,
                                 bool boundary, bool greedy) {
  // Only the first opening can start a match: a later one would need a ">" and a closing tag
  // after the first opening's ">" as well.
  const std::size_t open = findOpeningImpl(text, from, name, boundary);
  if (open == npos) {
    return std::nullopt;
  }
  const std::size_t tagEnd = text.find('>', open + 1);
  if (tagEnd == npos) {
    return std::nullopt;
  }
  std::size_t close = findClosing(text, tagEnd + 1, name);
  if (close == npos) {
    return std::nullopt;
  }
  if (greedy) {
    for (std::size_t later = close; later != npos; later = findClosing(text, later + 1, name)) {
      close = later;
    }
  }
  return Match{open, close + 3 + name.size(), tagEnd + 1, close};
}

std::string removeElements(std::string_view text, std::string_view name) {
  std::string out;
  std::size_t copied = 0;
  while (auto match = findElement(text, copied, name, true, false)) {
    if (out.empty()) {
      out.reserve(text.size());
    }
    replaceSpan(out, text, copied, match->begin, ' ');
    copied = match->end;
  }
  out.append(text.substr(copied));
  return out;
}

std::string removeComments(std::string_view text) {
  std::string out;
  std::size_t copied = 0;
  while (true) {
    const std::size_t open = text.find("<!--", copied);
    if (open == npos) {
      break;
    }
    const std::size_t close = text.find("-->", open + 4);
    if (close == npos) {
      break;  // an unclosed comment: no later one can close either
    }
    replaceSpan(out, text, copied, open, ' ');
    copied = close + 3;
  }
  out.append(text.substr(copied));
  return out;
}

std::string blockTagsToNewlines(std::string_view text) {
  static constexpr std::string_view kBlockTags[] = {"br", "p",       "div",     "li",
                                                    "tr", "section", "article", "blockquote"};
  std::string out;
  std::size_t copied = 0;
  std::size_t from = 0;
  while (true) {
    const std::size_t open = text.find('<', from);
    if (open == npos) {
      break;
    }
    std::size_t nameEnd = npos;
    for (std::string_view tag : kBlockTags) {
      nameEnd = matchFolded(text, open + 1, tag);
      if (nameEnd != npos && wordBoundaryAfterWord(text, nameEnd)) {
        break;
      }
      nameEnd = npos;
    }
    if (nameEnd == npos) {
      const std::size_t h = matchFolded(text, open + 1, "h");
      if (h != npos && h < text.size() && text[h] >= '1' && text[h] <= '6' &&
          wordBoundaryAfterWord(text, h + 1)) {
        nameEnd = h + 1;
      }
    }
    if (nameEnd == npos) {
      from = open + 1;
      continue;
    }
    const std::size_t tagEnd = text.find('>', nameEnd);
    if (tagEnd == npos) {
      break;
    }
    replaceSpan(out, text, copied, open, '\n');
    copied = from = tagEnd + 1;
  }
  out.append(text.substr(copied));
  return out;
}

std::string tagsToSpaces(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t copied = 0;
  std::size_t from = 0;
  while (true) {
    const std::size_t open = text.find('<', from);
    if (open == npos) {
      break;
    }
    const std::size_t close = text.find('>', open + 1);
    if (close == npos) {
      break;
    }
    if (close == open + 1) {
      from = close;  // "<>" is no tag
      continue;
    }
    replaceSpan(out, text, copied, open, ' ');
    copied = from = close + 1;
  }
  out.append(text.substr(copied));
  return out;
}

}  // namespace kestrova::html
