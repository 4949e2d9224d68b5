// A whole sleep run of 200 tabs: an in-process browser reports them in five windows, runSleep saves
// them into a library in a temporary folder, fetches their pages from a loopback server that
// answers each after 100 ms (six requests in flight), summarises them (by keywords where, as on the
// benchmark machine, no language model is available), sorts them into topics and closes them.
// Prints the median of three runs: the total, the time per page, each stage and the share of the
// run spent fetching. The ideal network time is 200 / 6 x 100 ms; fetching must be at least half of
// the run, or the local steps have become the cost of a sleep.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <httplib.h>
#include <unistd.h>

#include <kestrova/sleep_pipeline.h>

#include "bench_timer.h"

namespace {

using namespace kestrova;
using Clock = std::chrono::steady_clock;

constexpr int kPages = 200;
constexpr int kWindows = 5;
constexpr int kDelayMs = 100;
constexpr int kRuns = 3;

// Themes of the pages: a name for the title and sentences with places ({ort}), small numbers
// ({n}), larger ones ({zahl}) and years ({jahr}) filled in per page, so that no two pages are
// alike while each theme keeps its own words for tags and topics.
struct Theme {
  const char* name;
  std::vector<const char*> sentences;
};

const std::vector<Theme>& themes() {
  static const std::vector<Theme> all = {
      {"Wandertipp",
       {"Die Route von {ort} zur Hütte führt über {zahl} Höhenmeter und verlangt Trittsicherheit.",
        "Wer früh aufbricht, erreicht den Gipfel vor den Gewittern, die sich am Nachmittag bilden.",
        "Die Wanderkarte im Massstab 1:25 000 zeigt jeden Steig, jede Alp und jeden Bergbach.",
        "Auf dem Grat weht meist ein kalter Wind, deshalb gehört eine warme Jacke in den Rucksack.",
        "Die Hüttenwartin empfiehlt, das Nachtlager {n} Tage im Voraus zu reservieren.",
        "Weiss-rot-weisse Markierungen kennzeichnen Bergwege, weiss-blau-weisse alpine Routen.",
        "Beim Abstieg schonen Wanderstöcke die Knie, besonders auf steilen Geröllhalden.",
        "Murmeltiere pfeifen warnend, sobald Wanderer über die Alpweiden oberhalb von {ort} "
        "steigen.",
        "Bei Nebel hilft ein Kompass, denn auf den Hochflächen verschwinden die Wegspuren rasch.",
        "Nach der Wanderung lohnt sich ein Bad im Bergsee, auch wenn das Wasser kalt bleibt."}},
      {"Rezept der Woche",
       {"Für das Risotto wird der Reis zuerst glasig angedünstet und mit Weisswein abgelöscht.",
        "Die Bouillon kommt kellenweise dazu, bis die Körner aussen weich und innen bissfest sind.",
        "Ein Bäcker aus {ort} verrät, warum sein Sauerteig {n} Stunden ruhen muss.",
        "Frische Kräuter gibt man erst am Schluss dazu, damit ihr Aroma nicht verkocht.",
        "Zur Rösti gehören festkochende Kartoffeln, die am Vortag in der Schale gekocht wurden.",
        "Das Rezept reicht für {n} Personen und lässt sich gut am Vorabend vorbereiten.",
        "Butter und Zucker werden schaumig gerührt, bevor die Eier einzeln dazukommen.",
        "Im Herbst bieten die Marktstände in {ort} Kürbisse, Marroni und späte Zwetschgen an.",
        "Gusseiserne Pfannen speichern die Hitze lange und eignen sich zum scharfen Anbraten.",
        "Wer weniger Fleisch isst, ersetzt es in der Sauce durch Linsen oder geräucherten Tofu."}},
      {"Bahn aktuell",
       {"Der neue Fahrplan bringt zwischen Zürich und {ort} einen Halbstundentakt.",
        "Die Strecke durch den Basistunnel verkürzt die Reisezeit um rund {n} Minuten.",
        "Alte Stellwerke werden Schritt für Schritt durch ferngesteuerte Anlagen ersetzt.",
        "Im Führerstand überwacht die Lokführerin Geschwindigkeit, Signale und Zugsicherung.",
        "Das Generalabonnement gilt auf Zügen, Schiffen, Postautos und den meisten Bergbahnen.",
        "Wegen Bauarbeiten verkehren zwischen {ort} und dem Flughafen an {n} Wochenenden Busse.",
        "Die Doppelstockzüge bieten mehr Sitzplätze, brauchen aber längere Perrons.",
        "Der Güterverkehr auf der Schiene soll die Lastwagen von den Alpenstrassen holen.",
        "Historische Dampflokomotiven fahren im Sommer jeden Sonntag über den Pass.",
        "Seit {jahr} zählt die Bahn jeden Zug als verspätet, der drei Minuten zu spät ankommt."}},
      {"Steuern und Geld",
       {"Die Steuererklärung muss in {ort} bis Ende März eingereicht werden.",
        "Beiträge an die Säule 3a lassen sich vom steuerbaren Einkommen abziehen.",
        "Wer von zu Hause arbeitet, kann einen Teil der Wohnkosten als Berufsauslagen abziehen.",
        "Der Eigenmietwert wird seit Jahren im Parlament und in den Kantonen diskutiert.",
        "Ein Haushaltsbudget zeigt, wohin jeden Monat die {zahl} Franken für Freizeit gehen.",
        "Belege für Weiterbildung und Krankheitskosten sammelt man am besten das ganze Jahr.",
        "Die Gemeinde {ort} senkt den Steuerfuss im Jahr {jahr} um {n} Prozentpunkte.",
        "Eine Festhypothek schützt vor steigenden Zinsen, kostet aber einen Aufschlag.",
        "Die Treuhänderin rät, das Vermögen breit zu streuen und die Gebühren zu vergleichen.",
        "Zinsen auf Sparkonten bleiben tief, während die Teuerung das Ersparte langsam "
        "schmälert."}},
      {"Fotokurs",
       {"Bei Gegenlicht hilft eine Streulichtblende gegen flaue, kontrastarme Bilder.",
        "Mit Blende {n} bleibt die Landschaft vom Vordergrund bis zum Horizont scharf.",
        "Die blaue Stunde über den Dächern von {ort} dauert im Winter nur wenige Minuten.",
        "Ein Stativ erlaubt lange Belichtungszeiten, ohne dass die Aufnahme verwackelt.",
        "Im RAW-Format bleiben mehr Reserven für die Bearbeitung von Lichtern und Schatten.",
        "Porträts wirken natürlicher, wenn das Licht weich von der Seite auf das Gesicht fällt.",
        "Die Ausstellung in {ort} zeigt {zahl} Aufnahmen aus einem halben Jahrhundert Fotografie.",
        "Den Sensor reinigt man nur mit passenden Stäbchen und der richtigen Flüssigkeit.",
        "Der Goldene Schnitt teilt das Bild so, dass das Motiv nicht starr in der Mitte steht.",
        "Ein Polfilter dunkelt den Himmel ab und nimmt die Spiegelungen vom Wasser."}},
      {"Gartenpraxis",
       {"Tomaten gehören erst nach den Eisheiligen ins Freiland.",
        "Ein Hochbeet in {ort} liefert bei guter Pflege schon im Mai die ersten Radieschen.",
        "Kompost verbessert die Bodenstruktur und nährt Regenwürmer und Mikroorganismen.",
        "Mischkulturen aus Karotten und Zwiebeln halten einander die Schädlinge fern.",
        "Obstbäume schneidet man im späten Winter, solange sie noch keinen Saft führen.",
        "Eine Mulchschicht hält die Feuchtigkeit im Boden und unterdrückt das Unkraut.",
        "Der Gartenverein verteilt jedes Frühjahr {zahl} Setzlinge alter Gemüsesorten.",
        "Schnecken hält man mit Schneckenzäunen und abendlichem Absammeln in Schach.",
        "Wildblumenwiesen bieten Wildbienen und Schmetterlingen Nahrung bis in den Herbst.",
        "Regenwasser aus der Tonne ist weich und für Topfpflanzen besser als Leitungswasser."}},
      {"Entwicklerblog",
       {"Der Compiler meldet den Fehler erst beim Linken, weil die Funktion nur deklariert war.",
        "Automatische Tests laufen bei jedem Commit und verhindern, dass alte Fehler zurückkehren.",
        "Das Team in {ort} hat den Dienst in {n} Wochen von Python nach Rust portiert.",
        "Ein Profiler zeigt, dass die meiste Rechenzeit beim Parsen der Eingabe vergeht.",
        "Code-Reviews finden Fehler, vor allem aber verteilen sie das Wissen im Team.",
        "Mit einem passenden Index wurde die Datenbankabfrage um das {n}-Fache schneller.",
        "Versionskontrolle macht jede Änderung am Quellcode nachvollziehbar und umkehrbar.",
        "Speicherlecks entstehen oft dort, wo unklar ist, welches Objekt welches besitzt.",
        "Die neue Bibliothek spart {zahl} Zeilen Code und bringt eine klarere Schnittstelle.",
        "Nebenläufige Programme brauchen sorgfältige Synchronisation, sonst drohen Datenrennen."}},
      {"Velotour",
       {"Die Veloroute von {ort} an den See ist durchgehend beschildert und fast flach.",
        "Vor einer langen Velotour lohnt es sich, Reifendruck, Bremsen und Kette zu prüfen.",
        "E-Bikes haben das Pendeln in hügeligen Städten stark verändert.",
        "Der Anstieg zum Pass zählt {zahl} Höhenmeter auf {n} Kilometern.",
        "Eine gute Beleuchtung am Velo ist im Winter Pflicht, auch auf hellen Strassen.",
        "Velowege, die vom Autoverkehr getrennt sind, machen das Fahren für Kinder sicherer.",
        "Die Kette wird alle paar hundert Kilometer gereinigt und leicht geölt.",
        "Beim Velokurier zählt jede Minute, doch die Sicherheit im Verkehr geht vor.",
        "Gravelbikes verbinden Asphalt und Schotter und eignen sich für Mehrtagestouren.",
        "Die Stadt {ort} baut bis {jahr} ein Netz von Velovorzugsrouten."}},
      {"Himmel im Monat",
       {"Der Jupiter steht diesen Monat günstig und ist schon mit einem Feldstecher zu sehen.",
        "Die Sternwarte bei {ort} öffnet bei klarem Himmel jeden Freitagabend.",
        "Lichtverschmutzung macht es in den Städten schwer, die Milchstrasse zu erkennen.",
        "Eine totale Mondfinsternis färbt den Vollmond kupferrot.",
        "Das Weltraumteleskop hat Galaxien abgebildet, deren Licht Milliarden Jahre unterwegs war.",
        "Die Perseiden bringen im August bis zu hundert Sternschnuppen in der Stunde.",
        "Ein Dobson-Teleskop bietet viel Öffnung für wenig Geld.",
        "Exoplaneten verraten sich, wenn sie das Licht ihres Sterns kurz abschwächen.",
        "Die Ringe des Saturns sind schon in einem kleinen Teleskop bei {n}0-facher Vergrösserung "
        "zu sehen.",
        "Die Raumsonde erreichte ihr Ziel im Jahr {jahr} nach {n} Jahren Flug."}},
      {"Energie im Alltag",
       {"Die Solaranlage auf dem Schulhaus in {ort} deckt rund einen Drittel des Strombedarfs.",
        "Wärmepumpen holen die Energie zum Heizen aus der Luft, der Erde oder dem Grundwasser.",
        "Eine bessere Dämmung des Dachs senkt die Heizkosten deutlich.",
        "Im Winter importiert das Land Strom, im Sommer verkauft es Überschüsse aus Wasserkraft.",
        "Der Stausee speichert Wasser, das bei hoher Nachfrage Strom liefert.",
        "Batteriespeicher im Keller machen Haushalte unabhängiger vom Stromnetz.",
        "Die Gemeinde {ort} fördert jede neue Photovoltaikanlage mit {zahl} Franken.",
        "Windräder auf den Jurahöhen sind umstritten, liefern aber vor allem im Winter Strom.",
        "Smarte Zähler zeigen, welche Geräte nachts unnötig Strom verbrauchen.",
        "Bis {jahr} sollen alle Ölheizungen in den kantonalen Gebäuden ersetzt sein."}},
  };
  return all;
}

// What a news site adds to every article; the readable text should keep little of it.
const std::vector<const char*> kBoilerplate = {
    "Dieser Beitrag erschien zuerst in der Wochenendausgabe.",
    "Leserinnen und Leser können ihre Fragen per E-Mail an die Redaktion schicken.",
    "Die Angaben wurden vor der Veröffentlichung sorgfältig geprüft.",
};

const std::vector<const char*> kPlaces = {"Zürich", "Bern",       "Basel",  "Luzern",
                                          "Chur",   "St. Gallen", "Lugano", "Winterthur",
                                          "Thun",   "Aarau",      "Sion",   "Fribourg"};

// splitmix64: the same pages on every run and machine.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  std::size_t below(std::size_t n) { return static_cast<std::size_t>(next() % n); }

 private:
  std::uint64_t state_;
};

std::string fillIn(std::string sentence, Random& random) {
  const std::map<std::string, std::string> values = {
      {"{ort}", kPlaces[random.below(kPlaces.size())]},
      {"{n}", std::to_string(2 + random.below(11))},
      {"{zahl}", std::to_string(120 + 10 * random.below(200))},
      {"{jahr}", std::to_string(2019 + random.below(8))},
  };
  for (const auto& [key, value] : values) {
    for (auto at = sentence.find(key); at != std::string::npos; at = sentence.find(key, at)) {
      sentence.replace(at, key.size(), value);
      at += value.size();
    }
  }
  return sentence;
}

struct Page {
  std::string title;
  std::string html;
};

// Page `index`: six paragraphs of its theme's sentences in a shuffled order, with now and then a
// sentence of another theme or of the site's boilerplate, wrapped in navigation, a script and a
// footer as a real article page is.
Page makePage(int index) {
  Random random(static_cast<std::uint64_t>(index) + 1);
  const Theme& theme = themes()[static_cast<std::size_t>(index) % themes().size()];
  const Theme& other = themes()[static_cast<std::size_t>(index * 7 + 3) % themes().size()];
  Page page;
  page.title = std::string(theme.name) + " " + std::to_string(index / 10 + 1) + ": " +
               kPlaces[random.below(kPlaces.size())];
  std::string body;
  for (int paragraph = 0; paragraph < 6; ++paragraph) {
    std::vector<const char*> sentences = theme.sentences;
    for (std::size_t i = sentences.size() - 1; i > 0; --i) {
      std::swap(sentences[i], sentences[random.below(i + 1)]);
    }
    body += "<p>";
    for (int i = 0; i < 5; ++i) {
      const char* sentence = sentences[static_cast<std::size_t>(i)];
      if (i == 4 && random.below(3) == 0) {
        sentence = other.sentences[random.below(other.sentences.size())];
      }
      body += fillIn(sentence, random) + " ";
    }
    body += "</p>";
  }
  body += "<p>" + std::string(kBoilerplate[random.below(kBoilerplate.size())]) + "</p>";
  page.html = "<!DOCTYPE html><html lang=\"de\"><head><meta charset=\"utf-8\"><title>" +
              page.title +
              "</title><script>window.dataLayer = window.dataLayer || [];</script></head><body>"
              "<nav><a href=\"/\">Startseite</a> <a href=\"/ressorts\">Ressorts</a> "
              "<a href=\"/abo\">Abo</a></nav><article><h1>" +
              page.title + "</h1>" + body +
              "</article><footer>© Redaktion, alle Rechte vorbehalten.</footer></body></html>";
  return page;
}

// The browser of the run: the page addresses in a few windows, as a browser would report them;
// closing only counts.
class BenchBrowser final : public Browser {
 public:
  explicit BenchBrowser(std::vector<SafariWindow> windows) : windows_(std::move(windows)) {}
  std::string name() const override { return "Messbrowser"; }
  std::vector<SafariWindow> snapshotWindows() override { return windows_; }
  std::int64_t closeAllTabs(const std::vector<SafariWindow>& windows, bool,
                            const std::vector<std::string>&) override {
    ++closeCalls;
    for (const SafariWindow& window : windows) {
      closedTabs += static_cast<std::int64_t>(window.tabs.size());
    }
    return closedTabs;
  }
  void reopen(const std::vector<std::string>&, bool) override {}

  int closeCalls = 0;
  std::int64_t closedTabs = 0;

 private:
  std::vector<SafariWindow> windows_;
};

using Kind = SleepStage::Kind;
const std::vector<std::pair<Kind, const char*>> kStages = {
    {Kind::reading, "reading + saving the snapshot"},
    {Kind::fetching, "fetching the pages"},
    {Kind::summarizing, "summarizing (keywords)"},
    {Kind::grouping, "grouping (vectors, topics, read-back)"},
    {Kind::closing, "closing the tabs"},
};

struct RunTimes {
  double totalMs = 0;
  std::map<Kind, double> stageMs;  // from a stage's first report to the next stage's first
};

// One sleep run into a fresh library in `folder`; checks that every page was saved with its text
// and every tab was closed, and returns the times, or no value after printing what went wrong.
std::optional<RunTimes> runOnce(const std::vector<SafariWindow>& windows,
                                const std::filesystem::path& folder) {
  std::filesystem::remove_all(folder);
  BenchBrowser browser(windows);
  const SleepPipeline pipeline(std::make_shared<Embedder>(true));
  Library library(LibraryStore(folder / "library.json"));

  std::vector<std::pair<Kind, Clock::time_point>> firsts;
  const auto start = Clock::now();
  const SleepStage end =
      runSleep(pipeline, &browser, library, SleepOptions(), [&](const SleepStage& stage) {
        if (firsts.empty() || firsts.back().first != stage.kind()) {
          firsts.emplace_back(stage.kind(), Clock::now());
        }
      });
  const auto finish = Clock::now();

  if (end.kind() != Kind::done) {
    std::fprintf(stderr, "sleep_bench: the run failed: %s\n", end.label().c_str());
    return std::nullopt;
  }
  const LibraryData saved = library.store().load();
  std::set<std::string> withText;
  for (const SavedTab& tab : saved.tabs) {
    if (!tab.text.empty()) {
      withText.insert(tab.url);
    }
  }
  if (saved.tabs.size() != std::size_t{kPages} || withText.size() != std::size_t{kPages}) {
    std::fprintf(stderr, "sleep_bench: %zu tabs saved, %zu of them with text; expected %d each\n",
                 saved.tabs.size(), withText.size(), kPages);
    return std::nullopt;
  }
  if (browser.closeCalls != 1 || browser.closedTabs != kPages) {
    std::fprintf(stderr, "sleep_bench: %lld tabs closed in %d calls; expected %d in one\n",
                 static_cast<long long>(browser.closedTabs), browser.closeCalls, kPages);
    return std::nullopt;
  }

  RunTimes times;
  times.totalMs = std::chrono::duration<double, std::milli>(finish - start).count();
  for (std::size_t i = 0; i + 1 < firsts.size(); ++i) {
    times.stageMs[firsts[i].first] =
        std::chrono::duration<double, std::milli>(firsts[i + 1].second - firsts[i].second).count();
  }
  std::filesystem::remove_all(folder);
  return times;
}

}  // namespace

int main() {
  std::vector<Page> pages;
  std::size_t pageBytes = 0;
  for (int i = 0; i < kPages; ++i) {
    pages.push_back(makePage(i));
    pageBytes += pages.back().html.size();
  }

  httplib::Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(16); };
  // Without this the server waits for delayed ACKs between header and body writes (Nagle),
  // which would add some 40 ms per page that no real site adds.
  server.set_tcp_nodelay(true);
  server.Get(R"(/seite/(\d+))", [&pages](const httplib::Request& req, httplib::Response& res) {
    std::this_thread::sleep_for(std::chrono::milliseconds(kDelayMs));
    const auto index = static_cast<std::size_t>(std::stoul(req.matches[1].str()));
    if (index >= pages.size()) {
      res.status = 404;
      return;
    }
    res.set_content(pages[index].html, "text/html; charset=utf-8");
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  if (port <= 0) {
    std::fprintf(stderr, "sleep_bench: no loopback port\n");
    return 1;
  }
  std::thread listener([&] { server.listen_after_bind(); });
  while (!server.is_running()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  std::vector<SafariWindow> windows(kWindows);
  for (int i = 0; i < kPages; ++i) {
    SafariWindow& window = windows[static_cast<std::size_t>(i % kWindows)];
    window.index = i % kWindows + 1;
    window.tabs.push_back(
        {pages[static_cast<std::size_t>(i)].title,
         "http://127.0.0.1:" + std::to_string(port) + "/seite/" + std::to_string(i),
         static_cast<std::int64_t>(window.tabs.size()) + 1, false});
  }

  const std::filesystem::path folder = std::filesystem::temp_directory_path() /
                                       ("kestrova-sleep-bench-" + std::to_string(::getpid()));
  std::vector<RunTimes> runs;
  for (int run = 0; run < kRuns; ++run) {
    std::optional<RunTimes> times = runOnce(windows, folder);
    if (!times) {
      server.stop();
      listener.join();
      std::filesystem::remove_all(folder);
      return 1;
    }
    runs.push_back(std::move(*times));
  }
  server.stop();
  listener.join();

  const auto medianOf = [&](auto pick) {
    std::vector<double> values;
    for (const RunTimes& times : runs) {
      values.push_back(pick(times));
    }
    return bench::median(std::move(values));
  };
  const double total = medianOf([](const RunTimes& t) { return t.totalMs; });
  const double share = medianOf([](const RunTimes& t) {
    const auto it = t.stageMs.find(Kind::fetching);
    return it == t.stageMs.end() ? 0.0 : 100.0 * it->second / t.totalMs;
  });
  const double inFlight = static_cast<double>(PageFetcher().maxConcurrent);
  const double ideal = kPages / inFlight * kDelayMs;

  std::printf(
      "sleep: %d pages (%.1f KB each on average) in %d windows, %d ms each, %.0f in flight, "
      "median of %d runs\n\n",
      kPages, static_cast<double>(pageBytes) / kPages / 1024.0, kWindows, kDelayMs, inFlight,
      kRuns);
  std::printf("  %-40s %10s\n", "stage", "median");
  for (const auto& [kind, label] : kStages) {
    const double ms = medianOf([kind = kind](const RunTimes& t) {
      const auto it = t.stageMs.find(kind);
      return it == t.stageMs.end() ? 0.0 : it->second;
    });
    std::printf("  %-40s %7.0f ms\n", label, ms);
  }
  std::printf("  %-40s %7.0f ms (ideal network time %.0f ms, %.2fx)\n", "total", total, ideal,
              total / ideal);
  std::printf("  %-40s %7.1f ms\n", "per page", total / kPages);
  std::printf("  %-40s %7.0f %%  (target >= 50 %%)\n", "share fetching", share);

  bench::report({"sleep of 200 pages (total)", "200 pages", bench::format("%.0f ms", total),
                 bench::format("%.0f ms ideal network", ideal), bench::ratioText(total, ideal)});
  bench::report({"sleep: time per page", "200 pages", bench::format("%.1f ms", total / kPages)});
  bench::report({"sleep: share fetching", "200 pages", bench::format("%.0f %%", share), "", "",
                 ">= 50 %", bench::metText(share >= 50.0)});
  return 0;
}
