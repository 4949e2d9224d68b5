#include <optional>
#include <tuple>

#include <gtest/gtest.h>

#include <kestrova/text_tools.h>

namespace kestrova {
namespace {

TEST(TextToolsTruncate, CutsWholeCharactersAndPrefersASpaceBeyondTheMiddle) {
  const std::tuple<std::string_view, std::int64_t, std::string_view> cases[] = {
      {"abcd", 3, "ab…"},
      {"ab", 1, "…"},
      {"ab", 0, ""},
      {"ab", -5, ""},
      {"abcde fghijkl", 10, "abcde fgh…"},  // the space must lie beyond n / 2 characters
      {"abcde fghijkl", 9, "abcde…"},
      {"Grüsse", 6, "Grüsse"},
      {"Grüsse!", 6, "Grüss…"},
      {"o\xCC\x81o\xCC\x81o\xCC\x81o\xCC\x81", 3, "o\xCC\x81o\xCC\x81…"},
      {"ab\xFFgh", 4, "ab\xEF\xBF\xBD…"}};
  for (const auto& [text, n, expected] : cases) {
    EXPECT_EQ(TextTools::truncate(text, n), expected) << text << " " << n;
  }
}

// The first of the first 41 sentences with 40 characters and 6 words, not about the page.
TEST(TextToolsFirstSentence, TakesTheFirstSentenceThatCanStandOnItsOwn) {
  const std::string good = "Die Bahn fährt ab morgen jede halbe Stunde nach Bern.";
  const std::string edge = "Morgen fährt der Regionalzug nach Basel.";  // 40 and 6, in 41 bytes
  std::string forty;
  for (int i = 0; i < 40; ++i) {
    forty += "Kurz. ";
  }
  const std::tuple<std::string, std::int64_t, std::optional<std::string>> cases[] = {
      {"Kurz. Wir nutzen COOKIES auf allen unseren Seiten. " + good, 20, "Die Bahn fährt ab…"},
      {"Die Bahn fährt\nab morgen jede halbe Stunde nach Bern.", 99, good},
      {forty + good, 99, good},
      {forty + "Kurz. " + good, 99, std::nullopt},
      {edge, 99, edge},
      {"Morgen fährt der Regionalzug nach Bern.", 99, std::nullopt},
      {"Morgen  fährt  der  Regionalzug  Lausanne.", 99, std::nullopt}};

  for (const auto& [text, maxLength, expected] : cases) {
    EXPECT_EQ(TextTools::firstSentence(text, maxLength), expected) << text;
  }
}

TEST(TextToolsDecodeEntities, DecodesOneLevelOfKnownReferences) {
  const std::pair<std::string, std::string> cases[] = {
      {"Gr&uuml;&szlig;e &amp; K&auml;se&nbsp;&euro;", "Grüsse & Käse €"},
      {"&AMP; &foo; &amp", "&AMP; &foo; &amp"},
      {"&amp;lt; &&amp; a & b; c", "&lt; && a & b; c"},
      {"&#90;&#x9fa5;&#XAa;&#x10FFFF;", "Z\u9FA5\u00AA\U0010FFFF"},
      {"&#xD7FF;&#xD800;&#xDFFF;&#xE000;", "\uD7FF&#xD800;&#xDFFF;\uE000"},
      {"&#x110000;&#x100000041;&#4294967361;", "&#x110000;&#x100000041;&#4294967361;"},
      {"&#;&#x;&#-1;&#x+41;&#12a;", "&#;&#x;&#-1;&#x+41;&#12a;"},
      {"&#x000000041; &#x0000000041;", "A &#x0000000041;"},  // ";" at most 12 characters on
      {"&\xCC\x81\x61mp; \xD8\x80&amp;", "&\xCC\x81\x61mp; \xD8\x80&amp;"},  // "&" with marks
      {"x\xFF&amp;", "x\xEF\xBF\xBD&"}};
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(TextTools::decodeEntities(text), expected) << text;
  }
}

}  // namespace
}  // namespace kestrova
