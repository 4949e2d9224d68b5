// Self-test checks of the library document and of reading page text.
#include <kestrova/ai.h>
#include <kestrova/store.h>
#include <kestrova/summarizer.h>
#include <kestrova/text_tools.h>

#include "selftest_checks.h"

namespace kestrova::cli {

void checkLibrary(Report& report, SelftestContext& context) {
  report.section("Bibliothek");
  const LibraryStore store(context.folder / "Bibliothek" / "library.json");
  std::string error;
  try {
    store.save(context.demo);
  } catch (const StoreError& e) {
    error = e.what();
  }
  report.check("Demo-Bibliothek speichern", error.empty(), "gespeichert", error);
  const LibraryData loaded = store.load();
  report.check("Demo-Bibliothek laden: 52 Tabs in 3 Fenstern",
               loaded.tabs.size() == 52 && loaded.windows.size() == 3, "52 Tabs, 3 Fenster",
               std::to_string(loaded.tabs.size()) + " Tabs, " +
                   std::to_string(loaded.windows.size()) + " Fenster");
  report.check("Demo-Bibliothek ist nach dem Laden unverändert", loaded == context.demo,
               "gleiche Daten", "abweichende Daten");
}

void checkText(Report& report, SelftestContext& context) {
  report.section("Seitentext und Zusammenfassung");
  const std::string html =
      "<html><head><title>Velotour &amp; Pässe</title><script>var x = 1;</script></head>"
      "<body><nav>Menü Start Kontakt</nav><article><h1>Über den Albula</h1><p>Die Etappe "
      "f&uuml;hrt von Bergün &uuml;ber den Albulapass nach La Punt im Engadin.</p></article>"
      "<footer>Impressum</footer></body></html>";
  const ReadableText page = TextTools::readableText(html, 20000);
  // The article is short, so the whole cleaned page is the text, the title's words included.
  const std::string expected =
      "Velotour & Pässe\nÜber den Albula\nDie Etappe führt von Bergün über den Albulapass nach "
      "La Punt im Engadin.";
  report.check("Seitentext aus HTML lesen (Titel, ohne Menü und Skript)",
               page.title == "Velotour & Pässe" && page.text == expected,
               "Velotour & Pässe | " + expected, page.title + " | " + page.text);

  const SavedTab& tab = context.demo.tabs.front();
  const SummaryResult fallback = Summarizer::fallback(tab.title, tab.text);
  const bool fallbackOk = !fallback.byAI && !fallback.summary.empty() &&
                          TextTools::truncate(fallback.summary, 160) == fallback.summary &&
                          fallback.tags.size() <= 2;
  report.check("Zusammenfassung: Rückfallstufe mit Stichwörtern", fallbackOk,
               "ein Satz, höchstens 2 Stichwörter", fallback.summary);

  const SummaryResult normal = Summarizer().summarize(tab.title, tab.text);
  const bool available = AIStatus::isAvailable();
  if (available) {
    report.check("Zusammenfassung: normaler Weg über Apple Intelligence", normal.byAI,
                 "Zusammenfassung vom Sprachmodell", "Rückfallstufe: " + normal.summary);
  } else {
    report.check("Zusammenfassung: normaler Weg (ohne Sprachmodell lief die Rückfallstufe)",
                 !normal.byAI && normal == fallback, "Ergebnis der Rückfallstufe", normal.summary);
  }
}

}  // namespace kestrova::cli
