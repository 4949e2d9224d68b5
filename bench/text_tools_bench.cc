// Throughput of the text tools on deterministic German/English text and on large pages, among
// them hostile ones. The "Floor" benchmarks are a plain byte loop that only lower-cases ASCII and
// splits on everything else: the speed words() is measured against. Texts: mostly-ASCII (0),
// mixed with umlauts, accents and emoji (1), and the page texts of a generated library (2).
// With KESTROVA_BENCH_FIGURES set it also prints the figure lines bench/run collects.
#include <map>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <kestrova/text_tools.h>

#include "bench_timer.h"
#include "library_generator.h"

namespace kestrova {
namespace {

constexpr std::string_view kAsciiWords[] = {
    "the",   "Bahn",      "library",     "und",      "search",  "Projekt", "data",      "Zeitung",
    "for",   "Datenbank", "with",        "Schweiz",  "release", "Version", "Bern",      "notes",
    "eine",  "Test",      "server",      "Kanton",   "update",  "Wetter",  "API",       "Rezept",
    "2024",  "Seite",     "summary",     "is",       "Vortrag", "network", "die",       "Sprache",
    "model", "Tabelle",   "open-source", "Dokument", "E-Mail",  "config",  "Anleitung", "HTTP"};
constexpr std::string_view kUmlautWords[] = {"für",  "über",  "Grüsse", "Zürich",    "Ärger",
                                             "Käse", "schön", "Brötli", "Übersicht", "können"};
constexpr std::string_view kFrenchWords[] = {"café", "Élan", "déjà", "crème", "Genève"};
constexpr std::string_view kEmoji[] = {"👍", "🇨🇭", "👨‍👩‍👧", "😀", "❤️"};
constexpr std::string_view kPunctuation[] = {" ", " ", " ", " ", " ", ", ", ". ", "\n", ": "};

// About `bytes` of text; `mixed` adds umlauts (one word in eight), French accents (one in
// forty) and an emoji now and then.
std::string generateText(std::size_t bytes, bool mixed, unsigned seed) {
  std::mt19937 random(seed);
  auto pick = [&random](const auto& list) -> std::string_view {
    return list[std::uniform_int_distribution<std::size_t>(0, std::size(list) - 1)(random)];
  };
  std::string text;
  text.reserve(bytes + 64);
  std::uniform_int_distribution<int> percent(0, 999);
  while (text.size() < bytes) {
    const int roll = percent(random);
    if (mixed && roll < 125) {
      text.append(pick(kUmlautWords));
    } else if (mixed && roll < 150) {
      text.append(pick(kFrenchWords));
    } else if (mixed && roll < 155) {
      text.append(pick(kEmoji));
    } else {
      text.append(pick(kAsciiWords));
    }
    text.append(pick(kPunctuation));
  }
  return text;
}

const std::string& asciiText() {
  static const std::string text = generateText(1 << 20, false, 1);
  return text;
}
const std::string& mixedText() {
  static const std::string text = generateText(1 << 20, true, 2);
  return text;
}
// About 1 MB of page texts of a generated library, one page after the other.
const std::string& libraryText() {
  static const std::string text = [] {
    std::string out;
    for (const SavedTab& tab : bench::generateLibrary(300, 7).tabs) {
      out += tab.text;
      out += "\n";
      if (out.size() >= (1 << 20)) {
        break;
      }
    }
    return out;
  }();
  return text;
}
const std::string& textFor(const benchmark::State& state) {
  switch (state.range(0)) {
    case 0:
      return asciiText();
    case 1:
      return mixedText();
    default:
      return libraryText();
  }
}
void label(benchmark::State& state, const std::string& text) {
  static constexpr const char* kLabels[] = {"ascii", "mixed", "library"};
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.SetLabel(kLabels[state.range(0)]);
}

char floorLower(unsigned char c) {
  if (c >= 'A' && c <= 'Z') {
    return static_cast<char>(c + ('a' - 'A'));
  }
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ? static_cast<char>(c) : 0;
}

// The floor: lower-case ASCII, split on every other byte, words of at least 2 bytes.
std::vector<std::string> floorWords(std::string_view text) {
  std::vector<std::string> out;
  out.reserve(text.size() / 8);
  std::string current;
  for (unsigned char c : text) {
    const char lower = floorLower(c);
    if (lower != 0) {
      current.push_back(lower);
    } else {
      if (current.size() >= 2) {
        out.push_back(current);
      }
      current.clear();
    }
  }
  if (current.size() >= 2) {
    out.push_back(current);
  }
  return out;
}

// The floor without building strings: hands each word to a visitor, like forEachWord.
template <typename Visitor>
void floorVisit(std::string_view text, Visitor&& visit) {
  std::size_t start = 0;
  std::size_t length = 0;
  char buffer[256];
  for (std::size_t i = 0; i <= text.size(); ++i) {
    const char lower = i < text.size() ? floorLower(static_cast<unsigned char>(text[i])) : 0;
    if (lower != 0) {
      if (length == 0) {
        start = i;
      }
      if (length < sizeof buffer) {
        buffer[length] = lower;
      }
      ++length;
    } else {
      if (length >= 2) {
        visit(length <= sizeof buffer ? std::string_view(buffer, length)
                                      : text.substr(start, length));
      }
      length = 0;
    }
  }
}

void BM_FloorVisit(benchmark::State& state) {
  const std::string& text = textFor(state);
  for (auto _ : state) {
    std::size_t total = 0;
    floorVisit(text, [&total](std::string_view w) { total += w.size(); });
    benchmark::DoNotOptimize(total);
  }
  label(state, text);
}
BENCHMARK(BM_FloorVisit)->Arg(0)->Arg(1)->Arg(2);

void BM_FloorWords(benchmark::State& state) {
  const std::string& text = textFor(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(floorWords(text));
  }
  label(state, text);
}
BENCHMARK(BM_FloorWords)->Arg(0)->Arg(1)->Arg(2);

void BM_Words(benchmark::State& state) {
  const std::string& text = textFor(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(TextTools::words(text, true));
  }
  label(state, text);
}
BENCHMARK(BM_Words)->Arg(0)->Arg(1)->Arg(2);

void BM_WordsWithoutStopWords(benchmark::State& state) {
  const std::string& text = textFor(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(TextTools::words(text, false));
  }
  label(state, text);
}
BENCHMARK(BM_WordsWithoutStopWords)->Arg(0)->Arg(1)->Arg(2);

void BM_ForEachWord(benchmark::State& state) {
  const std::string& text = textFor(state);
  for (auto _ : state) {
    std::size_t total = 0;
    TextTools::forEachWord(text, false, [&total](std::string_view w) { total += w.size(); });
    benchmark::DoNotOptimize(total);
  }
  label(state, text);
}
BENCHMARK(BM_ForEachWord)->Arg(0)->Arg(1)->Arg(2);

std::vector<std::string> pieces(const std::string& text, std::size_t size) {
  std::vector<std::string> result;
  for (std::size_t pos = 0; pos < text.size(); pos += size) {
    result.push_back(text.substr(pos, size));
  }
  return result;
}

void BM_TopKeywords(benchmark::State& state) {
  const std::string& text = textFor(state);
  const std::vector<std::string> texts = pieces(text, 4096);
  for (auto _ : state) {
    benchmark::DoNotOptimize(TextTools::topKeywords(texts, 8, 3));
  }
  label(state, text);
}
BENCHMARK(BM_TopKeywords)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_KeywordCounts(benchmark::State& state) {
  const std::string& text = textFor(state);
  const std::vector<std::string> texts = pieces(text, 4096);
  for (auto _ : state) {
    benchmark::DoNotOptimize(TextTools::keywordCounts(texts, 3));
  }
  label(state, text);
}
BENCHMARK(BM_KeywordCounts)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

std::string repeat(std::string_view piece, std::size_t bytes) {
  std::string out;
  out.reserve(bytes + piece.size());
  while (out.size() < bytes) {
    out.append(piece);
  }
  return out;
}

// A well-formed news page of about 1 MB: navigation, scripts, a cookie banner, a long article.
std::string wellFormedPage() {
  std::string page =
      "<!DOCTYPE html><html><head><title>Neue Bahnlinie &ndash; Tagesblatt</title>"
      "<script>var a = 1; if (a < 2) { load('<p>'); }</script><style>p { margin: 0 }</style>"
      "</head><body><div id=\"cookie\"><p>Wir verwenden Cookies.</p><button>OK</button></div>"
      "<header><nav><ul><li><a href=\"/\">Start</a></li><li><a href=\"/x\">Schweiz</a></li>"
      "</ul></nav></header><!-- Werbung --><article class=\"story\"><h1>Titel</h1>";
  const std::string body = generateText(1 << 20, true, 3);
  std::size_t pos = 0;
  while (pos < body.size()) {
    const std::size_t end = std::min(body.size(), pos + 600);
    page += "<p class=\"text\">" + body.substr(pos, end - pos) +
            " <a href=\"/link\">Link</a> &amp; <em>mehr</em></p>\n";
    if (pos % 6000 == 0) {
      page += "<script>track(" + std::to_string(pos) + ");</script><aside>Anzeige</aside>";
    }
    pos = end;
  }
  page += "</article><footer>&copy; 2024</footer></body></html>";
  return page;
}

std::string hostilePage(int kind) {
  switch (kind) {
    case 0:
      return "<title>x</title>" + repeat("<script>var x = 1; ", 1 << 20);
    case 1:
      return "<p>Inhalt</p>" + repeat("<!-- offen ", 1 << 20);
    case 2:
      return "<html><body><article>" + repeat("<p>Absatz ohne Ende &amp; mehr ", 5 << 20);
    case 3:
      return repeat("<div><span class=\"a\">", 1 << 20) + "Tief" + repeat("</span></div>", 1 << 20);
    case 4:
      return "<title>Ohne Ende " + repeat("<p>Text &uuml; ", 1 << 20);
    default:
      return repeat("<style <nav <form <article> <main> <br <&#&amp", 1 << 20);
  }
}

void BM_ReadableTextWellFormed(benchmark::State& state) {
  const std::string page = wellFormedPage();
  for (auto _ : state) {
    benchmark::DoNotOptimize(TextTools::readableText(page, 6000));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * page.size()));
}
BENCHMARK(BM_ReadableTextWellFormed)->Unit(benchmark::kMillisecond);

void BM_ReadableTextHostile(benchmark::State& state) {
  static constexpr const char* kNames[] = {"unclosed scripts",  "unclosed comments",
                                           "5 MB, no end tags", "deeply nested",
                                           "title without end", "many openings"};
  const std::string page = hostilePage(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(TextTools::readableText(page, 6000));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * page.size()));
  state.SetLabel(kNames[state.range(0)]);
}
BENCHMARK(BM_ReadableTextHostile)->DenseRange(0, 5)->Unit(benchmark::kMillisecond);

void BM_FirstSentence(benchmark::State& state) {
  const std::string& text = mixedText();
  for (auto _ : state) {
    benchmark::DoNotOptimize(TextTools::firstSentence(text, 200));
  }
}
BENCHMARK(BM_FirstSentence)->Unit(benchmark::kMicrosecond);

// The console table, plus the throughput of every run kept by name for the figure lines.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  explicit RecordingReporter(OutputOptions options) : ConsoleReporter(options) {}

  void ReportRuns(const std::vector<Run>& reports) override {
    ConsoleReporter::ReportRuns(reports);
    for (const Run& run : reports) {
      const auto rate = run.counters.find("bytes_per_second");
      if (rate != run.counters.end()) {
        megabytesPerSecond[run.benchmark_name()] = rate->second.value / 1e6;
      }
    }
  }
  std::map<std::string, double> megabytesPerSecond;
};

void reportFigures(const std::map<std::string, double>& speed) {
  auto get = [&speed](const std::string& name) {
    const auto found = speed.find(name);
    return found == speed.end() ? 0.0 : found->second;
  };
  static constexpr const char* kTexts[] = {"mostly-ASCII text", "mixed text", "library pages"};
  for (int text = 0; text < 3; ++text) {
    std::string arg = "/";
    arg += std::to_string(text);
    const double words = get("BM_Words" + arg);
    const double floor = get("BM_FloorWords" + arg);
    if (words == 0) {
      continue;
    }
    bench::Figure figure{"words", kTexts[text], bench::format("%.0f MB/s", words),
                         bench::format("%.0f MB/s byte loop", floor),
                         bench::ratioText(words, floor)};
    if (text == 0) {
      figure.target = ">= 0.33x";
      figure.met = bench::metText(3 * words >= floor);
    } else {
      figure.target = ">= 100 MB/s";
      figure.met = bench::metText(words >= 100);
    }
    bench::report(figure);
  }
  if (const double page = get("BM_ReadableTextWellFormed"); page > 0) {
    bench::report({"readableText", "1 MB news page", bench::format("%.0f MB/s", page)});
  }
  if (const double page = get("BM_ReadableTextHostile/2"); page > 0) {
    bench::report({"readableText", "5 MB, no end tags", bench::format("%.0f MB/s", page)});
  }
}

}  // namespace
}  // namespace kestrova

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  // Colours only on a terminal: a log file gets the plain table.
  kestrova::RecordingReporter reporter(::isatty(1) != 0
                                           ? benchmark::ConsoleReporter::OO_ColorTabular
                                           : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  kestrova::reportFigures(reporter.megabytesPerSecond);
  return 0;
}
