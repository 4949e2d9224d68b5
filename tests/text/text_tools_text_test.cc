#include <gtest/gtest.h>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova {
namespace {

TEST(TextToolsTruncate, LengthsAndEllipsis) {
  EXPECT_EQ(TextTools::truncate("abc", 3), "abc");
  EXPECT_EQ(TextTools::truncate("abcd", 3), "ab…");
  EXPECT_EQ(TextTools::truncate("", 3), "");
  EXPECT_EQ(TextTools::truncate("ab", 1), "…");
  EXPECT_EQ(TextTools::truncate("ab", 0), "");
  EXPECT_EQ(TextTools::truncate("ab", -5), "");
}

TEST(TextToolsTruncate, CutsAtASpaceBeyondTheMiddle) {
  EXPECT_EQ(TextTools::truncate("Hallo Welt und mehr", 12), "Hallo Welt…");
  EXPECT_EQ(TextTools::truncate("Hi Weltenbummler", 10), "Hi Welten…");
  // The space must lie strictly beyond n / 2 characters.
  EXPECT_EQ(TextTools::truncate("abcde fghijkl", 10), "abcde fgh…");
  EXPECT_EQ(TextTools::truncate("abcde fghijkl", 9), "abcde…");
  // Punctuation before the cut stays.
  EXPECT_EQ(TextTools::truncate("abc, defghij", 6), "abc,…");
  // Only a plain space counts, not other white space.
  EXPECT_EQ(TextTools::truncate("abcde\tfghijkl", 9), "abcde\tfg…");
}

TEST(TextToolsTruncate, CountsCharactersNotBytes) {
  EXPECT_EQ(TextTools::truncate("Grüsse", 6), "Grüsse");
  EXPECT_EQ(TextTools::truncate("e\xCC\x81"
                                "e\xCC\x81"
                                "e\xCC\x81"
                                "e\xCC\x81",
                                3),
            "e\xCC\x81"
            "e\xCC\x81…");
  EXPECT_EQ(TextTools::truncate("a\r\nb\r\nc", 5), "a\r\nb\r\nc");
  EXPECT_EQ(TextTools::truncate("a\r\nb\r\nc", 4), "a\r\nb…");
  EXPECT_EQ(TextTools::truncate("👨‍👩‍👧👨‍👩‍👧👨‍👩‍👧", 2),
            "👨‍👩‍👧…");
  const std::string result = TextTools::truncate(std::string(5000, 'x') + "ä", 100);
  EXPECT_EQ(unicode::graphemeCount(result), 100u);
}

TEST(TextToolsTruncate, InvalidUtf8IsReplaced) {
  EXPECT_EQ(TextTools::truncate("ab\xFF"
                                "cd",
                                10),
            "ab\xEF\xBF\xBD"
            "cd");
  EXPECT_EQ(TextTools::truncate("ab\xFF"
                                "cd",
                                4),
            "ab\xEF\xBF\xBD…");
}

TEST(TextToolsFirstSentence, SkipsShortAndBoilerplateSentences) {
  const std::string page =
      "Kurz. Wir verwenden Cookies für die beste Nutzererfahrung auf dieser Website hier. "
      "Die Bahn fährt ab morgen jede halbe Stunde zwischen Zürich und Bern. Noch ein Satz "
      "mit genug Wörtern und ausreichend vielen Zeichen darin.";
  EXPECT_EQ(TextTools::firstSentence(page, 200),
            "Die Bahn fährt ab morgen jede halbe Stunde zwischen Zürich und Bern.");
  EXPECT_EQ(TextTools::firstSentence(page, 20), "Die Bahn fährt ab…");
}

TEST(TextToolsFirstSentence, NoValueWhenNothingQualifies) {
  EXPECT_EQ(TextTools::firstSentence("", 100), std::nullopt);
  EXPECT_EQ(TextTools::firstSentence("Wir verwenden Cookies, um Ihnen das beste Erlebnis auf "
                                     "unserer Seite zu bieten.",
                                     100),
            std::nullopt);
  EXPECT_EQ(TextTools::firstSentence("Bitte melden Sie sich an, um den ganzen Artikel zu lesen "
                                     "oder Sign in with your account.",
                                     100),
            std::nullopt);
  // Long enough, but fewer than six words.
  EXPECT_EQ(TextTools::firstSentence("Donaudampfschifffahrtsgesellschaftskapitänsmütze ist "
                                     "wirklich schön.",
                                     100),
            std::nullopt);
}

TEST(TextToolsFirstSentence, NewlinesJoinAndOnlyFortyOneSentencesAreRead) {
  EXPECT_EQ(TextTools::firstSentence("Die Bahn fährt\nab morgen jede halbe Stunde nach Bern.", 100),
            "Die Bahn fährt ab morgen jede halbe Stunde nach Bern.");
  const std::string good = "Die Bahn fährt ab morgen jede halbe Stunde nach Bern.";
  std::string forty;
  for (int i = 0; i < 40; ++i) {
    forty += "Kurz. ";
  }
  EXPECT_EQ(TextTools::firstSentence(forty + good, 100), good);
  EXPECT_EQ(TextTools::firstSentence(forty + "Kurz. " + good, 100), std::nullopt);
}

TEST(TextToolsFirstSentence, HostileInputStaysCheap) {
  // One huge sentence without any break, and invalid bytes.
  const std::string huge(3'000'000, 'a');
  EXPECT_EQ(TextTools::firstSentence(huge, 10), std::nullopt);
  const auto withBadBytes = TextTools::firstSentence(
      "Der Zug \xFF f\xC3hrt heute ausnahmsweise nicht nach Bern und Zürich.", 100);
  ASSERT_TRUE(withBadBytes.has_value());
  EXPECT_TRUE(unicode::isValidUtf8(*withBadBytes));
}

TEST(TextToolsDecodeEntities, NamedEntities) {
  EXPECT_EQ(TextTools::decodeEntities("Gr&uuml;&szlig;e &amp; K&auml;se&nbsp;&euro;"),
            "Grüsse & Käse €");
  EXPECT_EQ(TextTools::decodeEntities("&lt;&gt;&quot;&apos;&Auml;&Ouml;&Uuml;&ouml;&eacute;"
                                      "&egrave;&agrave;&ndash;&mdash;&hellip;&laquo;&raquo;"
                                      "&rsquo;&lsquo;&rdquo;&ldquo;&copy;&reg;&middot;&bull;"),
            "<>\"'ÄÖÜöéèà–—…«»’‘”“©®·•");
  EXPECT_EQ(TextTools::decodeEntities("&AMP; &foo; &amp"), "&AMP; &foo; &amp");
  EXPECT_EQ(TextTools::decodeEntities(""), "");
}

TEST(TextToolsDecodeEntities, OneLevelOnly) {
  EXPECT_EQ(TextTools::decodeEntities("&amp;lt;"), "&lt;");
  EXPECT_EQ(TextTools::decodeEntities("&&amp;"), "&&");
  EXPECT_EQ(TextTools::decodeEntities("a & b; c"), "a & b; c");
}

TEST(TextToolsDecodeEntities, NumericReferences) {
  EXPECT_EQ(TextTools::decodeEntities("&#65;&#x42;&#X43;&#x1F600;"), "ABC😀");
  EXPECT_EQ(TextTools::decodeEntities("&#xD800;"), "&#xD800;");
  EXPECT_EQ(TextTools::decodeEntities("&#x110000;&#1114112;"), "&#x110000;&#1114112;");
  EXPECT_EQ(TextTools::decodeEntities("&#;&#x;&#-1;&#x+41;&#12a;"), "&#;&#x;&#-1;&#x+41;&#12a;");
  EXPECT_EQ(TextTools::decodeEntities("&#99999999999;"), "&#99999999999;");
  EXPECT_EQ(TextTools::decodeEntities("&#0;"), std::string(1, '\0'));
}

TEST(TextToolsDecodeEntities, SemicolonWithinTwelveCharacters) {
  // The ";" may be at most 12 characters after the "&".
  EXPECT_EQ(TextTools::decodeEntities("&#x000000041;"), "A");
  EXPECT_EQ(TextTools::decodeEntities("&#x0000000041;"), "&#x0000000041;");
  EXPECT_EQ(TextTools::decodeEntities("&abcdefghijklm; &amp;"), "&abcdefghijklm; &");
}

TEST(TextToolsDecodeEntities, AmpersandWithCombiningMarkIsNoReference) {
  EXPECT_EQ(TextTools::decodeEntities("&\xCC\x81"
                                      "amp;"),
            "&\xCC\x81"
            "amp;");
  EXPECT_EQ(TextTools::decodeEntities("x\xFF&amp;"), "x\xEF\xBF\xBD&");
}

TEST(TextToolsDecodeEntities, ManyAmpersandsStayLinear) {
  std::string text;
  for (int i = 0; i < 200000; ++i) {
    text += "&&&;";
  }
  EXPECT_EQ(TextTools::decodeEntities(text), text);
}

}  // namespace
}  // namespace kestrova
