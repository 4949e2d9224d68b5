#include <fstream>
#include <iterator>
#include <tuple>

#include <gtest/gtest.h>

#include <kestrova/text_tools.h>

namespace kestrova {
namespace {

std::string fixture(const std::string& name) {
  std::ifstream in(std::string(KESTROVA_FIXTURES) + "/html/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(TextToolsReadableText, KeepsWhatAReaderSees) {
  const std::string a400(400, 'a');
  // Every scan is linear: megabytes of openings without end tags are read in one pass.
  std::string hostile = "<html><body>";
  for (int i = 0; i < 60000; ++i) {
    hostile += "<p>Absatz ohne Ende <script><article><nav><title>";
  }
  const std::tuple<std::string, std::int64_t, std::string, std::string> cases[] = {
      {fixture("news_article.html"), 10000, "Neue Bahnlinie am Zürichsee eröffnet – Tagesblatt",
       "Neue Bahnlinie am Zürichsee eröffnet\nNach sechs Jahren Bauzeit fährt die neue "
       "S-Bahn-Linie zwischen Rapperswil und Zürich ab heute im Viertelstundentakt.\nDie Strecke "
       "verkürzt die Reisezeit um zwölf Minuten. Pendlerinnen und Pendler aus der Region\n"
       "profitieren besonders in den Stosszeiten, wenn bisher viele Züge überfüllt waren.\nDer "
       "erste Zug bei der Einfahrt in Rapperswil.\nDer Kanton hat rund 480 Millionen Franken "
       "investiert. «Das ist ein grosser Tag für die Region», sagte die Verkehrsdirektorin an der "
       "Eröffnungsfeier.\nIm Dezember folgt der zweite Ausbauschritt mit zusätzlichen "
       "Haltestellen in Meilen und Stäfa."},
      // Without article or main the whole page counts, its title included.
      {fixture("script_heavy.html"), 10000, "Dashboard – Wetter Bern",
       "Dashboard – Wetter Bern\nWetter in Bern\nHeute sonnig bei 24 Grad, am Abend einzelne "
       "Gewitter.\nMorgen 19 Grad\nÜbermorgen 21 Grad"},
      // Main content needs more than 400 characters; the greedy match runs to the last end tag.
      {"<main>Mitte</main><article>" + a400 + "</article>", 10, "", "Mitte\naaaa"},
      {"<article>Kurz</article><main>a" + a400 + "</main>", 10, "", "aaaaaaaaaa"},
      {"<main>Mitte</main><article>a" + a400 + "<article>Innen</article>Ende</article>Fuss", 999,
       "", "a" + a400 + "\nInnen Ende"},
      {"<title x> A&amp;B \n</TITLE><SCRIPT x>b</ScRiPt>Text", 99, "A&B", "A&B\nText"},
      {"<navbar>Leiste</nav>Rest <nav-x>Leiste</nav>Ende", 99, "", "Leiste Rest Ende"},
      {"<navz>Leiste</nav>Ende", 99, "", "Leiste Ende"},  // z is the last letter of a name
      {"a<pre>b</pre><p>c<BR/>d<h1>e<h6>f<Li>Punkt", 99, "", "a b\nPunkt"},
      {"  eins \t zwei\xC2\xA0sieben \r\n x \n\n vier\xE2\x80\xA8zehn ", 99, "",
       "eins zwei sieben\nvier\nzehn"},
      {"&lt;b&gt;fett&lt;/b&gt; a<>b", 99, "", "<b>fett</b> a<>b"},
      {"<title>A\xFF</title><p>B\xC3Z", 99, "A\xEF\xBF\xBD", "A\xEF\xBF\xBD\nB\xEF\xBF\xBDZ"},
      // Unended elements and comments are none: their openings are tags or text.
      {"<title>Ohne Ende<p>Vorher<!-- zu --><script>x = 1;<script>x = 2;<!-- offen", 99, "",
       "Ohne Ende\nVorher x = 1; x = 2;<!-- offen"},
      {hostile, 40, "", "Absatz ohne Ende\nAbsatz ohne Ende\nAbsatz"}};
  for (const auto& [html, limit, title, text] : cases) {
    EXPECT_EQ(TextTools::readableText(html, limit), (ReadableText{title, text}))
        << html.substr(0, 99);
  }
}

}  // namespace
}  // namespace kestrova
