#include "library_generator.h"

#include <array>
#include <cmath>
#include <string>
#include <string_view>
#include <vector>

namespace kestrova::bench {
namespace {

// splitmix64: small, fast and identical everywhere.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  std::size_t below(std::size_t n) { return static_cast<std::size_t>(next() % n); }
  bool chance(int percent) { return below(100) < static_cast<std::size_t>(percent); }
  float unit() { return static_cast<float>(next() >> 40) / static_cast<float>(1ULL << 24); }
  Uuid uuid() {
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < 16; i += 8) {
      const std::uint64_t r = next();
      for (std::size_t j = 0; j < 8; ++j) {
        bytes[i + j] = static_cast<std::uint8_t>(r >> (8 * j));
      }
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
    return Uuid(bytes);
  }
  template <typename T>
  const T& pick(const std::vector<T>& items) {
    return items[below(items.size())];
  }

 private:
  std::uint64_t state_;
};

struct Theme {
  std::string name;
  std::string domain;
  std::vector<std::string> words;
};

const std::vector<Theme>& themes() {
  static const std::vector<Theme> all = [] {
    const char* raw[][3] = {
        {"Rust", "doc.rust-lang.org",
         "Rust Ownership Borrowing Lifetimes Compiler Traits Cargo Crate Module Speicher "
         "Sicherheit Typen Fehlerbehandlung async Iterator"},
        {"Kochen", "swissmilk.ch",
         "Rezept Risotto Käse Zwiebeln Bouillon Pfanne backen Ofen Rösti Zürcher Geschnetzeltes "
         "Älplermagronen Butter Rahm Gewürze"},
        {"Velotour", "schweizmobil.ch",
         "Velo Route Etappe Pass Höhenmeter Gotthard Furka Grimsel Strecke Karte Übernachtung "
         "Bahnhof Gepäck Tourenvelo Wetter"},
        {"Steuern", "estv.admin.ch",
         "Steuererklärung Abzüge Säule Vorsorge Einkommen Vermögen Kanton Gemeinde Frist Formular "
         "Belege Berufsauslagen Quellensteuer"},
        {"Datenbanken", "postgresql.org",
         "Datenbank Index Abfrage Transaktion Tabelle Schema Replikation Backup Performance Query "
         "Planner Vacuum Sperren Isolation"},
        {"Wohnen", "homegate.ch",
         "Wohnung Miete Zimmer Balkon Besichtigung Vermieter Kaution Nebenkosten Umzug Quartier "
         "Grundriss Küche Waschturm"},
        {"Machine Learning", "arxiv.org",
         "Modell Training Daten Netzwerk Transformer Embedding Vektor Gradient Verlust Genauigkeit "
         "Datensatz Inferenz Attention"},
        {"Fotografie", "fotointern.ch",
         "Kamera Objektiv Blende Belichtung Sensor Brennweite Bildstabilisator Porträt Landschaft "
         "Licht Stativ Bearbeitung"},
        {"Garten", "gartenjournal.net",
         "Garten Tomaten Beet Kompost Saatgut Pflanzen Rasen Bewässerung Hochbeet Schnecken Dünger "
         "Kräuter Obstbaum"},
        {"Französisch", "lemonde.fr",
         "français cuisine voyage politique économie culture musée exposition littérature roman "
         "librairie théâtre cinéma"},
        {"Laufen", "runnersworld.de",
         "Laufen Marathon Training Intervall Puls Schuhe Halbmarathon Tempo Regeneration Dehnen "
         "Wettkampf Strecke"},
        {"Kubernetes", "kubernetes.io",
         "Cluster Pod Deployment Service Ingress Container Helm Namespace Knoten Skalierung "
         "Konfiguration Secret"},
        {"Ferien", "myswitzerland.com",
         "Ferien Hotel Berge Wandern Engadin Tessin Seen Zugfahrt Ausflug Aussicht Gondel Sommer "
         "Winter Skifahren"},
        {"Finanzen", "finews.ch",
         "Aktien Fonds ETF Zinsen Inflation Börse Portfolio Rendite Risiko Dividende Anleihen "
         "Nationalbank Franken"},
        {"Swift", "swift.org",
         "Swift Concurrency Actor SwiftUI Protocol Struct Optional Closure Xcode Package Generics "
         "Macro Sendable"},
        {"Gesundheit", "gesundheit.ch",
         "Schlaf Ernährung Vitamine Bewegung Stress Rücken Arzt Krankenkasse Prävention Allergie "
         "Impfung Blutdruck"},
        {"Musik", "srf.ch",
         "Konzert Album Jazz Klavier Orchester Festival Tickets Playlist Gitarre Komponist Bühne "
         "Aufnahme"},
        {"Kinder", "elternwissen.ch",
         "Kinder Schule Kita Spielplatz Erziehung Hausaufgaben Ferienbetreuung Geburtstag Spiele "
         "Lesen Schlafenszeit"},
        {"Elektroauto", "tcs.ch",
         "Elektroauto Ladestation Batterie Reichweite Wallbox Strompreis Förderung Occasion "
         "Leasing Winterreifen"},
        {"Philosophie", "plato.stanford.edu",
         "Ethik Erkenntnis Kant Freiheit Bewusstsein Argument Vernunft Moral Sprache Wahrheit "
         "Existenz Logik"},
        {"Design", "smashingmagazine.com",
         "Typografie Farbe Layout Raster Komponenten Barrierefreiheit Kontrast Schrift Prototyp "
         "Nutzer Interface"},
        {"Klima", "meteoschweiz.admin.ch",
         "Klima Gletscher Temperatur Niederschlag Hitzewelle Emissionen Wetter Prognose Messung "
         "Schnee Föhn"},
        {"Geschichte", "hls-dhs-dss.ch",
         "Eidgenossenschaft Mittelalter Reformation Zwingli Bundesstaat Kantone Industrialisierung "
         "Archiv Quelle"},
        {"Linux", "wiki.debian.org",
         "Kernel Paket Shell Systemd Terminal Dateisystem Berechtigungen Netzwerk Treiber "
         "Konfiguration Update"},
        {"Japanisch", "nhk.or.jp",
         "日本語 漢字 ひらがな 東京 寿司 旅行 Sprache Kurs Vokabeln Grammatik Schrift Aussprache"},
        {"Bergsteigen", "sac-cas.ch",
         "Hochtour Gletscher Seil Steigeisen Hütte Gipfel Route Lawinen Ausrüstung Klettern "
         "Sicherung Tourenplanung"},
        {"Kaffee", "kaffeezentrale.ch",
         "Kaffee Espresso Mühle Bohnen Röstung Siebträger Milchschaum Crema Extraktion Barista "
         "Entkalken"},
        {"Recht", "admin.ch",
         "Vertrag Mietrecht Arbeitsrecht Kündigung Frist Gesetz Artikel Gericht Anwalt Haftung "
         "Versicherung"},
        {"Web", "developer.mozilla.org",
         "JavaScript HTML CSS Browser Fetch Promise Event Element Selector Grid Flexbox "
         "Performance Accessibility"},
        {"Lesen", "orellfuessli.ch",
         "Buch Roman Autorin Krimi Sachbuch Lesung Rezension Bestseller Kapitel Verlag Taschenbuch "
         "Hörbuch"},
        {"Russisch", "ru.wikipedia.org",
         "Москва язык литература Пушкин история Grammatik Alphabet Kyrillisch Übersetzung "
         "Wortschatz"},
        {"Yoga", "yogajournal.com",
         "Yoga Atmung Meditation Asana Flexibilität Entspannung Achtsamkeit Haltung Matte Kurs "
         "Morgenroutine"},
        {"Bahn", "sbb.ch",
         "Zug Fahrplan Halbtax Generalabonnement Verbindung Anschluss Perron Gleis Nachtzug "
         "Sparbillett Verspätung"},
        {"Hunde", "hundeschule.ch",
         "Hund Welpe Erziehung Leine Futter Tierarzt Spaziergang Rasse Training Belohnung Impfung"},
        {"Sicherheit", "ncsc.admin.ch",
         "Passwort Phishing Verschlüsselung Update Firewall Backup Zwei-Faktor Angriff "
         "Schwachstelle Patch"},
        {"Griechisch", "el.wikipedia.org",
         "Αθήνα ελληνικά ιστορία θάλασσα Sprache Mythologie Alphabet Inseln Philosophie Akropolis"},
        {"Brot", "brotbackforum.de",
         "Sauerteig Mehl Hefe Teig Gare Kruste Backofen Roggen Dinkel Zopf Knetmaschine "
         "Temperatur"},
        {"Startups", "startupticker.ch",
         "Gründung Investoren Finanzierung Produkt Markt Team Pitch Skalierung Umsatz Kunden "
         "Strategie"},
        {"Astronomie", "nasa.gov",
         "Teleskop Planet Galaxie Stern Mond Umlaufbahn Sonnensystem Nebel Beobachtung Komet "
         "Raumfahrt"},
        {"Handwerk", "hornbach.ch",
         "Werkzeug Bohrmaschine Holz Schrauben Regal Farbe Renovation Boden Fliesen Dübel "
         "Schleifen"},
    };
    std::vector<Theme> out;
    for (const auto& row : raw) {
      Theme theme{row[0], row[1], {}};
      std::string_view words = row[2];
      while (!words.empty()) {
        const auto space = words.find(' ');
        theme.words.emplace_back(words.substr(0, space));
        words = space == std::string_view::npos ? "" : words.substr(space + 1);
      }
      out.push_back(std::move(theme));
    }
    return out;
  }();
  return all;
}

const std::vector<std::string>& fillers() {
  static const std::vector<std::string> all = {
      "der",    "die",       "das",       "und",       "mit",        "für",         "über",
      "eine",   "nicht",     "auch",      "wird",      "sind",       "heute",       "wichtig",
      "neue",   "einfach",   "schnell",   "besser",    "zwischen",   "während",     "dabei",
      "the",    "and",       "with",      "this",      "guide",      "how",         "to",
      "using",  "simple",    "better",    "works",     "les",        "des",         "pour",
      "avec",   "très",      "été",       "où",        "déjà",       "Übersicht",   "Beispiel",
      "Tipps",  "Anleitung", "Erfahrung", "Vergleich", "Grundlagen", "Hintergrund", "Schritt",
      "Lösung", "Zürich",    "Bern",      "Basel",     "Luzern",     "Genève",      "2024",
      "2025",   "2026",      "10",        "42"};
  return all;
}

const std::vector<std::string>& emoji() {
  static const std::vector<std::string> all = {"🙂",     "🚲",  "🏔️",    "☕",
                                               "👍🏽", "🇨🇭", "👩‍💻"};
  return all;
}

std::string sentence(Random& random, const Theme& theme, std::size_t words) {
  std::string out;
  for (std::size_t i = 0; i < words; ++i) {
    const std::string& word = random.chance(45) ? random.pick(theme.words) : random.pick(fillers());
    if (!out.empty()) {
      out += random.chance(6) ? ", " : " ";
    }
    out += word;
  }
  if (!out.empty() && out[0] >= 'a' && out[0] <= 'z') {
    out[0] = static_cast<char>(out[0] - 'a' + 'A');
  }
  if (random.chance(3)) {
    out += " " + random.pick(emoji());
  }
  out += random.chance(10) ? "?" : ".";
  return out;
}

std::string pageText(Random& random, const Theme& theme) {
  const std::size_t target = 2000 + random.below(4000);
  std::string out;
  while (out.size() < target) {
    out += sentence(random, theme, 8 + random.below(12));
    out += random.chance(20) ? "\n" : " ";
  }
  return out;
}

std::vector<float> themedVector(Random& random, std::size_t themeIndex) {
  std::vector<float> v(256);
  double sum = 0;
  for (std::size_t i = 0; i < v.size(); ++i) {
    float x = random.unit() - 0.5f;
    if ((i * 7 + themeIndex * 13) % 40 < 6) {
      x += 1.5f;  // a few buckets carry each theme, as shared words would
    }
    v[i] = x;
    sum += static_cast<double>(x) * x;
  }
  const auto norm = static_cast<float>(std::sqrt(sum));
  for (float& x : v) {
    x /= norm;
  }
  return v;
}

}  // namespace

LibraryData generateLibrary(std::size_t tabs, std::uint64_t seed) {
  Random random(seed);
  LibraryData data;
  data.embedderKind = "none-0+bow256";
  // 2026-06-01T00:00:00Z, then spread back over about a year.
  const Date base = Date(std::chrono::seconds(1780272000));
  std::vector<Topic> topics;
  for (std::size_t t = 0; t < themes().size(); ++t) {
    topics.push_back(
        Topic{random.uuid(), themes()[t].name, TopicPalette::colors[t % 12], {}, false});
  }
  data.tabs.reserve(tabs);
  SavedWindow window;
  for (std::size_t i = 0; i < tabs; ++i) {
    if (i % 12 == 0) {
      if (!window.tabIds.empty()) {
        data.windows.push_back(window);
      }
      window = SavedWindow{random.uuid(), base - std::chrono::hours(i / 12 * 7), "", {}};
      window.title = "Fenster " + std::to_string(data.windows.size() + 1);
    }
    const std::size_t themeIndex = random.below(themes().size());
    const Theme& theme = themes()[themeIndex];
    SavedTab tab;
    tab.id = random.uuid();
    const std::string slug = random.pick(theme.words) + "-" + std::to_string(i);
    tab.url = "https://www." + theme.domain + "/artikel/" + slug + "?ref=kestrova";
    tab.domain = SavedTab::domainOf(tab.url);
    tab.title = theme.name + " · " + sentence(random, theme, 4 + random.below(5));
    tab.savedAt = base - std::chrono::minutes(random.below(525600));
    tab.windowId = window.id;
    tab.windowIndex = static_cast<std::int64_t>(data.windows.size());
    tab.tabIndex = static_cast<std::int64_t>(window.tabIds.size());
    tab.text = pageText(random, theme);
    tab.summary = sentence(random, theme, 10 + random.below(8));
    tab.topicId = topics[themeIndex].id;
    if (random.chance(10)) {
      tab.note = "Später genauer lesen: " + random.pick(theme.words);
    }
    if (random.chance(5)) {
      tab.reminderAt = base + std::chrono::hours(random.below(2000));
    }
    if (random.chance(15)) {
      tab.projectTags = {"Projekt " + theme.name};
    }
    tab.tags = {random.pick(theme.words), random.pick(theme.words), random.pick(theme.words)};
    if (random.chance(20)) {
      tab.readAt = tab.savedAt + std::chrono::hours(3);
    }
    window.tabIds.push_back(tab.id);
    topics[themeIndex].tabIds.push_back(tab.id);
    data.embeddings[tab.id.string()] = themedVector(random, themeIndex);
    data.tabs.push_back(std::move(tab));
  }
  if (!window.tabIds.empty()) {
    data.windows.push_back(window);
  }
  for (Topic& topic : topics) {
    if (!topic.tabIds.empty()) {
      data.topics.push_back(std::move(topic));
    }
  }
  return data;
}

}  // namespace kestrova::bench
