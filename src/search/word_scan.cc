#include "word_scan.h"

#include <atomic>
#include <memory>

#include <unicode/uchar.h>

namespace kestrova::wordscan {
namespace {

CodePointInfo computeInfo(char32_t cp) {
  const auto c = static_cast<UChar32>(cp);
  CodePointInfo info;
  info.word = unicode::isLetter(cp) || unicode::isNumber(cp);
  info.pictographic = u_hasBinaryProperty(c, UCHAR_EXTENDED_PICTOGRAPHIC) != 0;
  switch (u_getIntPropertyValue(c, UCHAR_GRAPHEME_CLUSTER_BREAK)) {
    case U_GCB_CONTROL:
    case U_GCB_CR:
    case U_GCB_LF:
      info.join = Join::control;
      break;
    case U_GCB_EXTEND:
      info.join = Join::extend;
      break;
    case U_GCB_ZWJ:
      info.join = Join::zwj;
      break;
    case U_GCB_SPACING_MARK:
      info.join = Join::spacingMark;
      break;
    case U_GCB_REGIONAL_INDICATOR:
      info.join = Join::regional;
      break;
    case U_GCB_PREPEND:
    case U_GCB_L:
    case U_GCB_V:
    case U_GCB_T:
    case U_GCB_LV:
    case U_GCB_LVT:
      info.join = Join::other;
      break;
    default:
      info.join = Join::none;
      break;
  }
  // "İ" lower-cases to two code points and "Σ" depends on what follows; everything else maps to
  // its simple lower case. The result must itself be a plain word character.
  if (info.word && cp != 0x130 && cp != 0x3A3) {
    const auto lower = static_cast<char32_t>(u_tolower(c));
    const auto l = static_cast<UChar32>(lower);
    const bool plain = (unicode::isLetter(lower) || unicode::isNumber(lower)) &&
                       u_getIntPropertyValue(l, UCHAR_GRAPHEME_CLUSTER_BREAK) == U_GCB_OTHER &&
                       u_hasBinaryProperty(l, UCHAR_EXTENDED_PICTOGRAPHIC) == 0;
    info.lower = plain ? lower : 0;
  }
  return info;
}

// Packs an info into 32 bits: bit 31 set (computed), bit 30 word, bit 29 pictographic, bits
// 26-28 join, bits 0-20 lower.
std::uint32_t pack(const CodePointInfo& info) {
  return 0x80000000u | (info.word ? 0x40000000u : 0u) | (info.pictographic ? 0x20000000u : 0u) |
         (static_cast<std::uint32_t>(info.join) << 26) | static_cast<std::uint32_t>(info.lower);
}

CodePointInfo unpack(std::uint32_t bits) {
  CodePointInfo info;
  info.word = (bits & 0x40000000u) != 0;
  info.pictographic = (bits & 0x20000000u) != 0;
  info.join = static_cast<Join>((bits >> 26) & 7u);
  info.lower = bits & 0x1FFFFFu;
  return info;
}

}  // namespace

CodePointInfo codePointInfo(char32_t cp) {
  // The Basic Multilingual Plane is remembered: text in another alphabet asks about the same few
  // dozen code points over and over. Entries are computed at most a few times and never change.
  static const std::unique_ptr<std::atomic<std::uint32_t>[]> cache(
      new std::atomic<std::uint32_t>[0x10000]());
  if (cp >= 0x10000) {
    return computeInfo(cp);
  }
  std::atomic<std::uint32_t>& entry = cache[cp];
  std::uint32_t bits = entry.load(std::memory_order_relaxed);
  if (bits == 0) {
    bits = pack(computeInfo(cp));
    entry.store(bits, std::memory_order_relaxed);
  }
  return unpack(bits);
}

void appendLowered(std::string& out, std::string_view raw) {
  std::size_t i = 0;
  while (i < raw.size()) {
    const auto c = static_cast<unsigned char>(raw[i]);
    if (c < 0x80) {
      out.push_back(static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c));
      ++i;
      continue;
    }
    const char32_t cp = unicode::decodeAt(raw, i);
    const char32_t lower = codePointInfo(cp).lower;
    unicode::appendUtf8(out, lower != 0 ? lower : cp);
  }
}

std::size_t lowerInto(char* out, std::string_view raw) {
  std::size_t written = 0;
  std::size_t i = 0;
  while (i < raw.size()) {
    const auto c = static_cast<unsigned char>(raw[i]);
    if (c < 0x80) {
      out[written++] = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
      ++i;
      continue;
    }
    const char32_t cp = unicode::decodeAt(raw, i);
    const char32_t lower = codePointInfo(cp).lower;
    std::string bytes;
    unicode::appendUtf8(bytes, lower != 0 ? lower : cp);
    for (char b : bytes) {
      out[written++] = b;
    }
  }
  return written;
}

std::string_view stemOf(std::string_view word, std::string& buffer) {
  // Count code points while they are ASCII or Latin-1 (one character each).
  std::size_t chars = 0;
  std::size_t sixth = 0;
  std::size_t i = 0;
  while (i < word.size()) {
    const auto c = static_cast<unsigned char>(word[i]);
    std::size_t len = 1;
    if (c >= 0x80) {
      if ((c != 0xC2 && c != 0xC3) || i + 1 >= word.size()) {
        buffer = TextTools::stem(word);
        return buffer;
      }
      len = 2;
    }
    i += len;
    ++chars;
    if (chars == 6) {
      sixth = i;
    }
  }
  return chars >= 7 ? word.substr(0, sixth) : word;
}

namespace detail {

const LatinInfo& latinInfo() {
  static const LatinInfo table = [] {
    LatinInfo t;
    for (char32_t cp = 0x80; cp <= 0xFF; ++cp) {
      t.info[cp - 0x80] = computeInfo(cp);
    }
    return t;
  }();
  return table;
}

}  // namespace detail
}  // namespace kestrova::wordscan
