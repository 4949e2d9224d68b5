// Deterministic test texts mixing the cases that trouble Unicode code: combining marks, emoji
// sequences, flags, CR LF, Hangul, prepended marks, final sigma, dotted I, digits of other scripts
// and invalid UTF-8.
#pragma once

#include <random>
#include <string>
#include <string_view>

namespace kestrova::testing {

inline std::string mixedSample(std::mt19937& random, std::size_t pieces) {
  static constexpr std::string_view kPieces[] = {"Kaffee",
                                                 "und",
                                                 "E-Mail",
                                                 " ",
                                                 " ",
                                                 "\r\n",
                                                 "\n",
                                                 "\t",
                                                 "2024",
                                                 "Ärger",
                                                 "Élan",
                                                 "Grüsse",
                                                 "e\xCC\x81",
                                                 "\xCC\x81",
                                                 "İstanbul",
                                                 "ΟΔΟΣ",
                                                 "Σ",
                                                 "ς",
                                                 "'",
                                                 ".",
                                                 ":",
                                                 "ΑΣ'Α",
                                                 "👍🏽",
                                                 "👨‍👩‍👧",
                                                 "🇨🇭",
                                                 "🇩🇪🇫",
                                                 "٣٤٥",
                                                 "१२३",
                                                 "한국어",
                                                 "\xE1\x84\x80\xE1\x85\xA1",
                                                 "\xD8\x80",
                                                 "\xD8\x80"
                                                 "1",
                                                 "\xFF",
                                                 "\xE2\x82",
                                                 "\xC3",
                                                 "-",
                                                 "--",
                                                 "ß",
                                                 "Ⱥ",
                                                 "ǅ",
                                                 "ͅ",
                                                 "\xE2\x80\x8D",
                                                 "\xC2\xAD",
                                                 "\xC2\xA0",
                                                 "Ⅻ",
                                                 "½",
                                                 "x\xE2\x80\x8D\xE2\x9D\xA4",
                                                 "&amp;",
                                                 "&#x41;",
                                                 ";",
                                                 "ABC",
                                                 "Straße",
                                                 "NAÏVE",
                                                 "क्षि",
                                                 "\xEF\xBF\xBD",
                                                 "a\xCD\x8F",
                                                 "Ω",
                                                 "K",
                                                 "ſ",
                                                 "Ⓜ\xE2\x80\x8D",
                                                 "Ⓜ",
                                                 "😀\xE2\x80\x8D"};
  std::uniform_int_distribution<std::size_t> pick(0, std::size(kPieces) - 1);
  std::string text;
  for (std::size_t i = 0; i < pieces; ++i) {
    text.append(kPieces[pick(random)]);
  }
  return text;
}

}  // namespace kestrova::testing
