#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include <kestrova/text_tools.h>

namespace kestrova {
namespace {

std::string fixture(const std::string& name) {
  std::ifstream in(std::string(KESTROVA_FIXTURES) + "/html/" + name, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string repeat(std::string_view piece, int times) {
  std::string out;
  out.reserve(piece.size() * static_cast<std::size_t>(times));
  for (int i = 0; i < times; ++i) {
    out.append(piece);
  }
  return out;
}

// A paragraph of more than 400 characters.
const std::string kLongParagraph = repeat("Ein ganz gewöhnlicher Satz über die Stadt Bern. ", 10);

TEST(TextToolsReadableText, NewsArticleKeepsOnlyTheStory) {
  const ReadableText page = TextTools::readableText(fixture("news_article.html"), 10000);
  EXPECT_EQ(page.title, "Neue Bahnlinie am Zürichsee eröffnet – Tagesblatt");
  EXPECT_EQ(
      page.text,
      "Neue Bahnlinie am Zürichsee eröffnet\n"
      "Nach sechs Jahren Bauzeit fährt die neue S-Bahn-Linie zwischen Rapperswil und Zürich "
      "ab heute im Viertelstundentakt.\n"
      "Die Strecke verkürzt die Reisezeit um zwölf Minuten. Pendlerinnen und Pendler aus der "
      "Region\n"
      "profitieren besonders in den Stosszeiten, wenn bisher viele Züge überfüllt waren.\n"
      "Der erste Zug bei der Einfahrt in Rapperswil.\n"
      "Der Kanton hat rund 480 Millionen Franken investiert. «Das ist ein grosser Tag für die "
      "Region», sagte die Verkehrsdirektorin an der Eröffnungsfeier.\n"
      "Im Dezember folgt der zweite Ausbauschritt mit zusätzlichen Haltestellen in Meilen "
      "und Stäfa.");
}

TEST(TextToolsReadableText, DocumentationPageUsesMain) {
  const ReadableText page = TextTools::readableText(fixture("docs_page.html"), 10000);
  EXPECT_EQ(page.title, "Getting Started | Rivet Docs");
  EXPECT_EQ(page.text,
            "Getting Started\n"
            "Rivet is a small library for building command-line tools. This guide walks you "
            "through\n"
            "installing it, writing your first command and running the test suite.\n"
            "Installation\n"
            "Install the package with your system's package manager, then check the version:\n"
            "rivet --version\n"
            "Your first command\n"
            "Create a file hello.rv and define a command with a single flag. Commands are\n"
            "plain functions; flags become parameters with default values.\n"
            "Commands are discovered automatically.\n"
            "Help texts are generated from the parameter names.\n"
            "Run rivet test to execute the examples in the documentation & your own tests.");
}

TEST(TextToolsReadableText, SwissGermanEntitiesAndWholePage) {
  const ReadableText page = TextTools::readableText(fixture("swiss_german.html"), 10000);
  EXPECT_EQ(page.title, "Wanderung auf den Üetliberg – Grüezi Blog");
  // No article or main: the whole cleaned page, title included; header, navigation and footer
  // are gone, and the one-letter line is dropped.
  EXPECT_EQ(page.text,
            "Wanderung auf den Üetliberg – Grüezi Blog\n"
            "Wanderung auf den Üetliberg\n"
            "Am Sonntag sind wir vom Hauptbahnhof aus auf den Üetliberg gewandert. Die Aussicht "
            "über die Stadt und den See war grössartig.\n"
            "Unterwegs gab es eine Pause mit Wurst und Brötli – dazu ein kaltes Getränk.\n"
            "Für die Rückfahrt nahmen wir die S10.\n"
            "Fazit: Eine Strasse weniger, ein Gipfel mehr. Älter werden wir trotzdem.");
}

TEST(TextToolsReadableText, ShortArticleGivesWayToLongMain) {
  const ReadableText page = TextTools::readableText(fixture("short_article_long_main.html"), 10000);
  EXPECT_EQ(page.title, "Rezepte");
  EXPECT_EQ(page.text.substr(0, page.text.find("Älplermagronen sind")),
            "Rezept der Woche\nZürcher Geschnetzeltes mit Rösti.\nÄlplermagronen\n");
  EXPECT_EQ(page.text.find("Saisonal"), std::string::npos);
  EXPECT_EQ(page.text.find("©"), std::string::npos);
  EXPECT_NE(page.text.find("kurz überbacken. Zum Schluss kommen die Zwiebeln darüber."),
            std::string::npos);
}

TEST(TextToolsReadableText, ScriptHeavyPage) {
  const ReadableText page = TextTools::readableText(fixture("script_heavy.html"), 10000);
  EXPECT_EQ(page.title, "Dashboard – Wetter Bern");
  EXPECT_EQ(page.text,
            "Dashboard – Wetter Bern\n"
            "Wetter in Bern\n"
            "Heute sonnig bei 24 Grad, am Abend einzelne Gewitter.\n"
            "Morgen 19 Grad\n"
            "Übermorgen 21 Grad");
}

TEST(TextToolsReadableText, ChoiceOfMainContent) {
  const std::string shortArticle = "<article><p>Kurz</p></article>";
  const std::string longMain = "<main><p>" + kLongParagraph + "</p></main>";
  EXPECT_EQ(TextTools::readableText(shortArticle + longMain, 10000).text,
            TextTools::truncate(kLongParagraph, 10000).substr(0, kLongParagraph.size() - 1));
  // Neither qualifies: the whole page.
  EXPECT_EQ(
      TextTools::readableText("<p>Oben</p>" + shortArticle + "<main>Mitte</main>", 10000).text,
      "Oben\nKurz Mitte");
  // A long article wins over main; the greedy match runs to the last closing tag.
  const std::string page = "<main>Hauptteil</main><article>" + kLongParagraph +
                           "<article>Innen</article>Ende</article>Fuss";
  const std::string text = TextTools::readableText(page, 10000).text;
  EXPECT_EQ(text.find("Hauptteil"), std::string::npos);
  EXPECT_EQ(text.find("Fuss"), std::string::npos);
  EXPECT_NE(text.find("Innen Ende"), std::string::npos);
}

TEST(TextToolsReadableText, TagsMatchWithoutRegardToCaseAndAtWordBoundaries) {
  EXPECT_EQ(TextTools::readableText("<SCRIPT type=x>var a;</ScRiPt>Text", 100).text, "Text");
  // "<navbar>" is no "nav" element, "<nav-x>" is.
  EXPECT_EQ(TextTools::readableText("<navbar>Leiste</nav>Rest", 100).text, "Leiste Rest");
  EXPECT_EQ(TextTools::readableText("<nav-x>Leiste</nav>Rest", 100).text, "Rest");
  EXPECT_EQ(TextTools::readableText("a<pre>b</pre><p>c<br/>d<h2>e</h2>", 100).text, "a b");
  EXPECT_EQ(TextTools::readableText("Zeile eins<BR>Zeile zwei<Li>Punkt", 100).text,
            "Zeile eins\nZeile zwei\nPunkt");
  EXPECT_EQ(TextTools::readableText("<title class=\"t\">  A &amp; B \n</TITLE>", 100).title,
            "A & B");
}

TEST(TextToolsReadableText, LinesAndLimit) {
  EXPECT_EQ(TextTools::readableText("  eins \t zwei\xC2\xA0"
                                    "drei \r\n x \n\n vier  ",
                                    100)
                .text,
            "eins zwei drei\nvier");
  EXPECT_EQ(TextTools::readableText("eins\xE2\x80\xA8zwei", 100).text, "eins\nzwei");
  EXPECT_EQ(TextTools::readableText("<p>Grüsse aus Bern", 6).text, "Grüsse");
  EXPECT_EQ(TextTools::readableText("<p>Grüsse<p>aus Bern", 8).text, "Grüsse\na");
  EXPECT_EQ(TextTools::readableText("<p>Grüsse", 0).text, "");
  EXPECT_EQ(TextTools::readableText("", 100), ReadableText{});
  // Entities are decoded after the tags are gone, so an encoded tag stays text.
  EXPECT_EQ(TextTools::readableText("&lt;b&gt;fett&lt;/b&gt;", 100).text, "<b>fett</b>");
}

TEST(TextToolsReadableText, InvalidUtf8) {
  const ReadableText page = TextTools::readableText(
      "<title>A\xFF</title><p>B\xC3"
      "C",
      100);
  EXPECT_EQ(page.title, "A\xEF\xBF\xBD");
  EXPECT_EQ(page.text,
            "A\xEF\xBF\xBD\nB\xEF\xBF\xBD"
            "C");
}

TEST(TextToolsReadableTextHostile, ThousandsOfUnclosedScripts) {
  const std::string page = "<title>Start</title><p>Vorher</p>" + repeat("<script>x = 1;", 20000);
  const ReadableText result = TextTools::readableText(page, 100);
  EXPECT_EQ(result.title, "Start");
  // The openings are no elements; as tags they become spaces and the text between them stays.
  EXPECT_EQ(result.text, ("Start\nVorher" + repeat(" x = 1;", 20)).substr(0, 100));
}

TEST(TextToolsReadableTextHostile, ThousandsOfUnclosedComments) {
  const std::string page = "<p>Inhalt</p><!-- eins -->" + repeat("<!-- offen ", 50000);
  const ReadableText result = TextTools::readableText(page, 30);
  // The unclosed comments are no tags either (there is no ">"), so they stay as text.
  EXPECT_EQ(result.text, "Inhalt <!-- offen <!-- offen <");
}

TEST(TextToolsReadableTextHostile, HugePageWithoutClosingTags) {
  const std::string page = "<html><body><article>" + repeat("<p>Absatz ohne Ende ", 250000);
  ASSERT_GT(page.size(), 5'000'000u);
  const ReadableText result = TextTools::readableText(page, 40);
  EXPECT_EQ(result.title, "");
  EXPECT_EQ(result.text, "Absatz ohne Ende\nAbsatz ohne Ende\nAbsatz");
}

TEST(TextToolsReadableTextHostile, DeeplyNestedTags) {
  const std::string page =
      repeat("<div><span>", 100000) + "Tief unten" + repeat("</span></div>", 100000);
  EXPECT_EQ(TextTools::readableText(page, 100).text, "Tief unten");
}

TEST(TextToolsReadableTextHostile, TitleWithoutEnd) {
  const ReadableText result =
      TextTools::readableText("<title>Ohne Ende" + repeat("<p>Text ", 100000), 20);
  EXPECT_EQ(result.title, "");
  EXPECT_EQ(result.text, "Ohne Ende\nText\nText\n");
}

TEST(TextToolsReadableTextHostile, ManyOpeningsOfEveryKind) {
  std::string page = "<title>T</title>";
  for (const char* tag :
       {"<style", "<nav ", "<form>", "<iframe", "<article>", "<main>", "<br", "<", "&amp", "&#"}) {
    page += repeat(tag, 20000);
  }
  const ReadableText result = TextTools::readableText(page, 50);
  EXPECT_EQ(result.title, "T");
  EXPECT_FALSE(result.text.empty());
}

}  // namespace
}  // namespace kestrova
