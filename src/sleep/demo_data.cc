#include <map>

#include <kestrova/demo_data.h>

namespace kestrova::DemoData {
namespace {

// Each theme's text carries the vocabulary its pages share, so that pages of one theme resemble
// each other more than pages of another.
const std::map<std::string, std::string>& themeTexts() {
  static const std::map<std::string, std::string> texts = {
      {"velo",
       "Velotour durch Graubünden: Route, Etappe und Pass mit Höhenmetern. Das Velo braucht gute "
       "Bremsen für die Abfahrt vom Pass, die Etappe endet im Hotel mit Veloraum. Velotour, Route, "
       "Etappe, Pass, Höhenmeter und Velo-Karte für jede Etappe der Route."},
      {"kochen",
       "Rezept für die Küche: Zutaten, Käse, Rahm und Bouillon. Das Rezept gelingt im Ofen oder in "
       "der Pfanne, die Zutaten stehen auf der Einkaufsliste. Kochen mit Rezept, Zutaten, Käse, "
       "Pfanne, Ofen und Gewürzen für ein Znacht mit Freunden."},
      {"rust",
       "Rust programmieren: Ownership, Borrowing und Lifetimes prüft der Compiler. Ein Crate mit "
       "Cargo bauen, Traits und Generics nutzen, Fehler mit Result behandeln. Rust, Compiler, "
       "Ownership, Crate, Cargo, Traits und async Code mit Tokio."},
      {"wohnung",
       "Wohnungssuche: Wohnung, Miete, Zimmer und Besichtigung. Die Wohnung hat Balkon, "
       "die Miete mit Nebenkosten passt, die Besichtigung beim Vermieter ist am Samstag. Wohnung, "
       "Miete, Zimmer, Quartier, Kaution und Umzug planen."},
      {"steuern",
       "Steuererklärung ausfüllen: Abzüge, Säule 3a, Einkommen und Vermögen. Die Steuererklärung "
       "braucht Belege für jeden Abzug, die Frist beim Steueramt des Kantons läuft bald ab. "
       "Steuern, Abzüge, Formular, Belege, Frist und Steuerrechner."},
  };
  return texts;
}

std::vector<DemoEntry> makeEntries() {
  using V = std::vector<std::string>;
  const std::optional<int> none;
  return {
      // Velotour (window 1)
      {1, "velo", "https://www.schweizmobil.ch/de/veloland/routen/route-6",
       "SchweizMobil · Graubünden-Route 6",
       "Die Velotour Route 6 führt in Etappen von Chur über den Albulapass ins Engadin.",
       V{"velotour", "graubünden", "route"}, "Etappe 3 zuerst planen", 3, V{"Velotour Graubünden"},
       false},
      {1, "velo", "https://www.schweizmobil.ch/de/veloland/etappen/albula",
       "SchweizMobil · Etappe Albulapass",
       "Die Etappe über den Albulapass hat 1500 Höhenmeter und eine lange Abfahrt nach La Punt.",
       V{"etappe", "albulapass", "höhenmeter"}, "", none, V{"Velotour Graubünden"}, true},
      {1, "velo", "https://www.velojournal.ch/pass-fahren-tipps",
       "Velojournal · Pässe fahren ohne Krampf",
       "Tipps für das Velo am Pass: Übersetzung wählen, Tempo halten und Höhenmeter einteilen.",
       V{"pass", "velo", "tipps"}, "", none, V{}, false},
      {1, "velo", "https://www.sbb.ch/de/freizeit-ferien/velo/velo-mitnehmen",
       "SBB · Velo im Zug mitnehmen",
       "Velo im Zug: Veloselbstverlad, Tageskarte Velo und Reservation für die Anreise zur Etappe.",
       V{"velo", "zug", "tageskarte"}, "Reservation nicht vergessen", 5, V{"Velotour Graubünden"},
       false},
      {1, "velo", "https://www.meteoschweiz.admin.ch/wetter/alpen",
       "MeteoSchweiz · Wetter in den Alpen",
       "Wetterbericht für die Alpen mit Gewitterrisiko am Nachmittag, wichtig für jede Etappe am "
       "Pass.",
       V{"wetter", "alpen", "gewitter"}, "", none, V{}, true},
      {1, "velo", "https://www.engadin.ch/de/hotels/velohotels",
       "Engadin · Velohotels mit Veloraum",
       "Velohotels im Engadin bieten Veloraum, Werkstatt und Wäscheservice am Ende der Etappe.",
       V{"hotel", "engadin", "veloraum"}, "", none, V{"Velotour Graubünden"}, false},
      {1, "velo", "https://www.veloplus.ch/ratgeber/packliste-velotour",
       "Veloplus · Packliste für die Velotour",
       "Packliste für eine mehrtägige Velotour mit Werkzeug, Regenjacke und Ersatzschlauch.",
       V{"packliste", "velotour", "ausrüstung"}, "", none, V{}, false},
      {1, "velo", "https://www.komoot.com/de-de/tour/julierpass",
       "Komoot · Julierpass von Tiefencastel",
       "Die Route auf den Julierpass: 38 Kilometer, 1400 Höhenmeter, Höhenprofil und Karte der "
       "Etappe.",
       V{"julierpass", "route", "höhenprofil"}, "", none, V{}, true},
      {1, "velo", "https://www.tcs.ch/de/velo/sicherheit/bremsen",
       "TCS · Bremsen vor der Passabfahrt prüfen",
       "Vor der Abfahrt vom Pass Bremsen, Reifen und Licht am Velo prüfen.",
       V{"bremsen", "sicherheit", "velo"}, "", none, V{}, false},
      {1, "velo", "https://www.graubuenden.ch/de/velo/routen",
       "Graubünden Ferien · Velorouten im Überblick",
       "Übersicht der Velorouten in Graubünden mit Etappen, Pässen und Höhenmetern.",
       V{"velorouten", "graubünden", "übersicht"}, "", none, V{"Velotour Graubünden"}, false},

      // Kochen (window 2)
      {2, "kochen", "https://www.swissmilk.ch/de/rezepte/risotto-mit-pilzen",
       "Swissmilk · Risotto mit Pilzen",
       "Rezept für ein cremiges Risotto mit Pilzen, Bouillon, Weisswein und viel Käse.",
       V{"risotto", "rezept", "pilze"}, "Für Samstag", 2, V{}, false},
      {2, "kochen", "https://www.bettybossi.ch/de/rezepte/rezept/zuercher-geschnetzeltes",
       "Betty Bossi · Zürcher Geschnetzeltes",
       "Das klassische Rezept für Zürcher Geschnetzeltes mit Rahm, Champignons und Rösti aus der "
       "Pfanne.",
       V{"geschnetzeltes", "rezept", "rösti"}, "", none, V{}, true},
      {2, "kochen", "https://www.fooby.ch/de/rezepte/aelplermagronen",
       "Fooby · Älplermagronen mit Apfelmus",
       "Älplermagronen mit Käse, Kartoffeln, Rahm und Röstzwiebeln, dazu Apfelmus.",
       V{"älplermagronen", "käse", "rezept"}, "", none, V{}, false},
      {2, "kochen", "https://www.swissmilk.ch/de/rezepte/kaesefondue",
       "Swissmilk · Käsefondue moitié-moitié",
       "Rezept für Käsefondue moitié-moitié mit Gruyère, Vacherin und Weisswein im Caquelon.",
       V{"fondue", "käse", "gruyère"}, "", none, V{}, false},
      {2, "kochen", "https://www.fooby.ch/de/kochschule/ofengemuese",
       "Fooby · Ofengemüse richtig garen",
       "Ofengemüse im Ofen garen: Zutaten schneiden, würzen und bei 200 Grad rösten.",
       V{"ofengemüse", "ofen", "gemüse"}, "", none, V{}, true},
      {2, "kochen", "https://www.bettybossi.ch/de/rezepte/zopf",
       "Betty Bossi · Butterzopf für Sonntag",
       "Rezept für einen Butterzopf mit Mehl, Hefe, Butter und Milch, im Ofen goldbraun gebacken.",
       V{"zopf", "backen", "rezept"}, "", none, V{}, false},
      {2, "kochen", "https://www.gewuerzhaus.ch/ratgeber/gewuerze",
       "Gewürzhaus · Gewürze richtig lagern",
       "Gewürze luftdicht und dunkel lagern, damit sie in der Küche ihr Aroma behalten.",
       V{"gewürze", "küche", "lagern"}, "", none, V{}, false},
      {2, "kochen", "https://www.swissmilk.ch/de/rezepte/kuerbissuppe",
       "Swissmilk · Kürbissuppe mit Ingwer",
       "Eine Kürbissuppe mit Ingwer, Bouillon und Rahm, fein püriert aus der Pfanne.",
       V{"kürbissuppe", "ingwer", "rezept"}, "Mit Kürbis vom Markt", none, V{}, false},
      {2, "kochen", "https://www.fooby.ch/de/rezepte/raclette-ideen",
       "Fooby · Raclette-Ideen für Gäste",
       "Ideen für Raclette mit Käse, Kartoffeln, Gemüse und Gewürzen für einen Znacht mit Gästen.",
       V{"raclette", "käse", "gäste"}, "", none, V{}, false},
      {2, "kochen", "https://www.kuechenprofi.ch/pfannen-test",
       "Küchenprofi · Pfannen im Vergleich",
       "Gusseisen, Edelstahl oder beschichtet: welche Pfanne für welches Rezept in der Küche "
       "passt.",
       V{"pfanne", "küche", "vergleich"}, "", none, V{}, true},

      // Rust (window 1 and 3)
      {3, "rust", "https://doc.rust-lang.org/book/ch04-01-what-is-ownership.html",
       "The Rust Book · Was ist Ownership?",
       "Ownership regelt in Rust, wem ein Wert gehört; der Compiler prüft die Regeln beim "
       "Übersetzen.",
       V{"rust", "ownership", "compiler"}, "Kapitel 4 nochmals lesen", 1, V{"Kestrova"}, true},
      {3, "rust", "https://doc.rust-lang.org/book/ch10-03-lifetime-syntax.html",
       "The Rust Book · Lifetimes",
       "Lifetimes beschreiben, wie lange Referenzen gültig sind, damit der Borrow Checker sie "
       "prüfen kann.",
       V{"lifetimes", "borrowing", "rust"}, "", none, V{"Kestrova"}, false},
      {3, "rust", "https://doc.rust-lang.org/cargo/guide/",
       "The Cargo Book · Erste Schritte mit Cargo",
       "Mit Cargo ein neues Crate anlegen, Abhängigkeiten eintragen, bauen und testen.",
       V{"cargo", "crate", "build"}, "", none, V{}, false},
      {3, "rust", "https://tokio.rs/tokio/tutorial", "Tokio · Tutorial für async Rust",
       "Das Tokio-Tutorial zeigt async Code in Rust mit Tasks, Channels und einem Mini-Redis.",
       V{"tokio", "async", "rust"}, "", none, V{"Kestrova"}, false},
      {3, "rust", "https://blog.rust-lang.org/2026/rust-release",
       "Rust Blog · Neue Rust-Version erschienen",
       "Die neue Rust-Version stabilisiert Sprachfunktionen und macht den Compiler schneller.",
       V{"release", "rust", "compiler"}, "", none, V{}, true},
      {3, "rust", "https://doc.rust-lang.org/book/ch10-02-traits.html",
       "The Rust Book · Traits und Generics",
       "Traits definieren gemeinsames Verhalten; mit Generics schreibt man Rust-Code für viele "
       "Typen.",
       V{"traits", "generics", "rust"}, "", none, V{"Kestrova"}, false},
      {3, "rust", "https://doc.rust-lang.org/book/ch09-00-error-handling.html",
       "The Rust Book · Fehlerbehandlung",
       "Fehler in Rust mit Result und dem Fragezeichen-Operator behandeln statt mit panic.",
       V{"result", "fehler", "rust"}, "", none, V{}, false},
      {3, "rust", "https://crates.io/crates/serde", "crates.io · serde",
       "Das Crate serde serialisiert und deserialisiert Rust-Datenstrukturen, etwa nach JSON.",
       V{"serde", "crate", "json"}, "", none, V{"Kestrova"}, false},
      {3, "rust", "https://rust-unofficial.github.io/too-many-lists/",
       "Too Many Lists · Verkettete Listen in Rust",
       "Verkettete Listen in Rust bauen und dabei Ownership, Box und unsafe Code verstehen.",
       V{"listen", "ownership", "rust"}, "", none, V{}, false},

      // Wohnung (window 2)
      {2, "wohnung", "https://www.homegate.ch/mieten/wohnung/zuerich-wiedikon",
       "Homegate · 3.5-Zimmer-Wohnung in Wiedikon",
       "Helle 3.5-Zimmer-Wohnung mit Balkon in Zürich-Wiedikon, Miete 2650 Franken inklusive "
       "Nebenkosten.",
       V{"wohnung", "wiedikon", "miete"}, "Besichtigung Samstag 10 Uhr", 4, V{"Umzug"}, false},
      {2, "wohnung", "https://www.flatfox.ch/de/wohnung/zuerich-oerlikon",
       "Flatfox · Wohnung in Oerlikon",
       "Wohnung mit 4 Zimmern in Oerlikon, nahe Bahnhof, Besichtigung nach Vereinbarung.",
       V{"wohnung", "oerlikon", "zimmer"}, "", none, V{"Umzug"}, false},
      {2, "wohnung", "https://www.mieterverband.ch/mietrecht/kaution",
       "Mieterverband · Mietkaution richtig anlegen",
       "Die Mietkaution beträgt höchstens drei Monatsmieten und gehört auf ein Sperrkonto.",
       V{"kaution", "miete", "mietrecht"}, "", none, V{"Umzug"}, true},
      {2, "wohnung", "https://www.stadt-zuerich.ch/umzug", "Stadt Zürich · Umzug melden",
       "Nach dem Umzug in Zürich die neue Wohnung innert 14 Tagen beim Kreisbüro melden.",
       V{"umzug", "zürich", "anmeldung"}, "", none, V{"Umzug"}, false},
      {2, "wohnung", "https://www.comparis.ch/immobilien/quartiere-zuerich",
       "Comparis · Quartiere in Zürich im Vergleich",
       "Zürcher Quartiere im Vergleich: Miete, Lärm, Schulen und Anbindung der Wohnung.",
       V{"quartier", "zürich", "miete"}, "", none, V{}, false},
      {2, "wohnung", "https://www.homegate.ch/ratgeber/besichtigung-checkliste",
       "Homegate · Checkliste für die Besichtigung",
       "Checkliste für die Wohnungsbesichtigung: Zimmer, Nebenkosten, Waschküche und Fragen an den "
       "Vermieter.",
       V{"besichtigung", "checkliste", "wohnung"}, "", none, V{"Umzug"}, false},
      {2, "wohnung", "https://www.umzugsofferten.ch/umzugsfirma-zuerich",
       "Umzugsofferten · Umzugsfirma in Zürich finden",
       "Offerten von Umzugsfirmen vergleichen und den Umzug der Wohnung planen.",
       V{"umzug", "offerten", "zürich"}, "", none, V{}, false},
      {2, "wohnung", "https://www.mieterverband.ch/mietrecht/nebenkosten",
       "Mieterverband · Nebenkosten prüfen",
       "Welche Nebenkosten der Vermieter zur Miete verrechnen darf und wie man die Abrechnung "
       "prüft.",
       V{"nebenkosten", "miete", "vermieter"}, "", none, V{}, true},
      {2, "wohnung", "https://www.ikea.ch/de/planer/kueche", "IKEA · Zimmer und Küche planen",
       "Mit dem Planer Zimmer und Küche der neuen Wohnung einrichten.",
       V{"planer", "zimmer", "einrichten"}, "", none, V{}, false},

      // Steuern (window 3)
      {3, "steuern", "https://www.zh.ch/de/steuern-finanzen/steuern/steuererklaerung.html",
       "Steueramt · Steuererklärung ausfüllen",
       "Die Steuererklärung online ausfüllen; die Frist beim Steueramt läuft Ende März ab.",
       V{"steuererklärung", "steueramt", "frist"}, "Frist verlängern?", 7, V{"Steuern 2026"},
       false},
      {3, "steuern", "https://www.estv.admin.ch/estv/de/home/saeule-3a.html",
       "ESTV · Säule 3a und Steuerabzug",
       "Einzahlungen in die Säule 3a sind bis zum Maximalbetrag vom Einkommen abziehbar.",
       V{"säule 3a", "abzüge", "vorsorge"}, "", none, V{"Steuern 2026"}, true},
      {3, "steuern", "https://www.comparis.ch/steuern/steuerrechner",
       "Comparis · Steuerrechner für Gemeinden",
       "Mit dem Steuerrechner Einkommen und Vermögen eingeben und die Steuern je Gemeinde "
       "vergleichen.",
       V{"steuerrechner", "gemeinde", "steuern"}, "", none, V{}, false},
      {3, "steuern", "https://www.zh.ch/de/steuern/abzuege/berufsauslagen.html",
       "Steueramt · Abzüge für Berufsauslagen",
       "Berufsauslagen wie Fahrkosten und Verpflegung als Abzüge in der Steuererklärung geltend "
       "machen.",
       V{"abzüge", "berufsauslagen", "steuern"}, "", none, V{"Steuern 2026"}, false},
      {3, "steuern", "https://www.vermoegenszentrum.ch/ratgeber/steuern-sparen",
       "VZ · Steuern sparen mit Abzügen",
       "Steuern sparen: Säule 3a, Weiterbildung und Spenden als Abzüge nutzen.",
       V{"steuern", "sparen", "abzüge"}, "", none, V{}, false},
      {3, "steuern", "https://www.zh.ch/de/steuern/belege.html",
       "Steueramt · Belege zur Steuererklärung",
       "Welche Belege zur Steuererklärung gehören: Lohnausweis, Bankauszüge und Bestätigungen.",
       V{"belege", "lohnausweis", "steuererklärung"}, "Lohnausweis fehlt noch", none,
       V{"Steuern 2026"}, false},
      {3, "steuern", "https://www.estv.admin.ch/estv/de/home/formulare.html",
       "ESTV · Formulare und Wegleitungen",
       "Formulare und Wegleitungen zur Steuererklärung des Bundes zum Herunterladen.",
       V{"formulare", "wegleitung", "steuern"}, "", none, V{}, true},
      {3, "steuern", "https://www.ch.ch/de/steuern-und-finanzen/steuerfristen",
       "ch.ch · Fristen für die Steuern",
       "Fristen und Fristverlängerung für die Steuererklärung in den Kantonen.",
       V{"frist", "fristverlängerung", "steuern"}, "", none, V{}, false},
      {3, "steuern", "https://www.treuhand-suisse.ch/steuerberatung",
       "Treuhand Suisse · Steuerberatung finden",
       "Eine Treuhänderin für die Steuererklärung finden, wenn Vermögen und Abzüge kompliziert "
       "werden.",
       V{"steuerberatung", "treuhand", "steuern"}, "", none, V{}, false},

      // Without a theme
      {1, "", "https://www.srf.ch/news/schweiz/abstimmung",
       "SRF News · Abstimmungssonntag im Überblick",
       "Die Resultate der eidgenössischen Abstimmung mit Analysen, Grafiken, Stimmbeteiligung, "
       "Hochrechnungen, Ständemehr und Reaktionen aus Parteien und Verbänden.",
       V{"abstimmung", "resultate", "politik"}, "", none, V{}, true},
      {1, "", "https://www.youtube.com/watch?v=dQw4w9WgXcQ", "YouTube · Achtziger-Hit",
       "Ein Videoclip aus den Achtzigerjahren mit Synthesizer, Tanzschritten, Trenchcoat, "
       "Regenschirm, Sonnenbrille und einem Ohrwurm.",
       V{"musik", "video"}, "", none, V{}, false},
      {2, "", "https://www.duden.de/rechtschreibung/Znueni", "Duden · Znüni",
       "Bedeutung des Wortes Znüni für den kleinen Imbiss am Vormittag, mit Mundart, Grammatik und "
       "Aussprache.",
       V{"znüni", "mundart", "bedeutung"}, "", none, V{}, false},
      {3, "", "https://www.zoo.ch/de/tiere/elefanten", "Zoo · Elefantenpark",
       "Im Elefantenpark wohnen asiatische Elefanten in einer grossen Halle mit Badebecken, "
       "Sandboden, Fütterung, Tierpflegern, Jungtieren und einem Dschungelpfad.",
       V{"zoo", "elefanten", "ausflug"}, "Mit den Kindern hin", 10, V{}, false},
      {3, "", "https://www.wikipedia.org/wiki/Matterhorn", "Wikipedia · Matterhorn",
       "Das Matterhorn ist ein 4478 Meter hoher Gipfel bei Zermatt im Wallis mit Erstbesteigung, "
       "Felswand, Steinschlag und Postkartenblick.",
       V{"matterhorn", "wallis", "postkarte"}, "", none, V{}, true},
  };
}

}  // namespace

const std::vector<DemoEntry>& entries() {
  static const std::vector<DemoEntry> table = makeEntries();
  return table;
}

const std::vector<std::string>& themes() {
  static const std::vector<std::string> keys = {"velo", "kochen", "rust", "wohnung", "steuern"};
  return keys;
}

std::string text(std::string_view url) {
  for (const DemoEntry& entry : entries()) {
    if (entry.url != url) {
      continue;
    }
    std::string out;
    const auto add = [&](const std::string& part) {
      if (part.empty()) {
        return;
      }
      if (!out.empty()) {
        out.push_back(' ');
      }
      out += part;
    };
    add(entry.title.empty() ? "" : entry.title + ".");
    add(entry.summary);
    if (auto it = themeTexts().find(entry.theme); it != themeTexts().end()) {
      add(it->second);
    }
    return out;
  }
  return "";
}

std::vector<SafariWindow> snapshot() {
  std::vector<SafariWindow> windows;
  for (int number = 1; number <= 3; ++number) {
    SafariWindow window;
    window.index = number;
    for (const DemoEntry& entry : entries()) {
      if (entry.window == number) {
        window.tabs.push_back(
            SafariTab{entry.title, entry.url, static_cast<std::int64_t>(window.tabs.size() + 1)});
      }
    }
    windows.push_back(std::move(window));
  }
  return windows;
}

int windowAgeInDays(int window) {
  return window == 1 ? 2 : window == 2 ? 9 : 16;
}

LibraryData library(Date now) {
  using std::chrono::hours;
  LibraryData data;
  const Date start = std::chrono::floor<std::chrono::seconds>(now);
  for (int number = 1; number <= 3; ++number) {
    const Date saved = start - hours(24 * windowAgeInDays(number));
    SavedWindow window{Uuid::random(), saved, SavedWindow::makeTitle(number, saved), {}};
    for (const DemoEntry& entry : entries()) {
      if (entry.window != number) {
        continue;
      }
      SavedTab tab = makeSavedTab({
          .id = Uuid::random(),
          .url = entry.url,
          .title = entry.title,
          .savedAt = saved,
          .windowId = window.id,
          .windowIndex = number,
          .tabIndex = static_cast<std::int64_t>(window.tabIds.size()),
          .text = text(entry.url),
          .summary = entry.summary,
          .note = entry.note,
          .projectTags = entry.projects,
          .tags = entry.tags,
          .readAt = entry.read ? std::optional<Date>(saved + hours(20)) : std::nullopt,
          .isDemo = true,
      });
      if (entry.reminderInDays) {
        tab.reminderAt = start + hours(24 * *entry.reminderInDays);
      }
      window.tabIds.push_back(tab.id);
      data.tabs.push_back(std::move(tab));
    }
    data.windows.push_back(std::move(window));
  }
  return data;
}

}  // namespace kestrova::DemoData
