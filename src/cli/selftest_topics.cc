// Self-test checks of topics, search and the chat on the demo library.
#include <algorithm>
#include <map>
#include <set>

#include <kestrova/chat.h>
#include <kestrova/demo_data.h>
#include <kestrova/search_index.h>
#include <kestrova/topic_clusterer.h>

#include "selftest_checks.h"

namespace kestrova::cli {
namespace {

// A topic as the user sees it, without its random id: name, colour and the addresses of its tabs.
using TopicView = std::tuple<std::string, std::string, bool, std::set<std::string>>;

std::vector<TopicView> view(const LibraryData& data) {
  std::vector<TopicView> out;
  for (const Topic& topic : data.topics) {
    std::set<std::string> urls;
    for (const SavedTab& tab : data.tabsIn(topic)) {
      urls.insert(tab.url);
    }
    out.emplace_back(topic.name, topic.color, topic.isUnsorted, urls);
  }
  return out;
}

LibraryData clustered(LibraryData data, SelftestContext& context) {
  context.embedder->ensureEmbeddings(data);
  TopicClusterer(context.embedder).cluster(data, true);
  return data;
}

}  // namespace

std::string demoTheme(const SavedTab& tab) {
  for (const DemoEntry& entry : DemoData::entries()) {
    if (entry.url == tab.url) {
      return entry.theme;
    }
  }
  return "";
}

void checkTopics(Report& report, SelftestContext& context) {
  report.section("Themen");
  const LibraryData data = clustered(context.demo, context);

  // Purity: the share of themed tabs in a topic whose most common theme is their own.
  int themed = 0;
  int majority = 0;
  std::set<std::string> themesLeading;
  for (const Topic& topic : data.topics) {
    if (topic.isUnsorted) {
      continue;
    }
    std::map<std::string, int> counts;
    for (const SavedTab& tab : data.tabsIn(topic)) {
      if (const std::string theme = demoTheme(tab); !theme.empty()) {
        ++counts[theme];
        ++themed;
      }
    }
    auto best = std::max_element(counts.begin(), counts.end(),
                                 [](const auto& a, const auto& b) { return a.second < b.second; });
    if (best != counts.end()) {
      majority += best->second;
      themesLeading.insert(best->first);
    }
  }
  const double purity = themed == 0 ? 0.0 : static_cast<double>(majority) / themed;
  report.check("Themen trennen die fünf Demo-Themen (Reinheit mindestens 80 %)",
               purity >= 0.8 && themesLeading.size() == DemoData::themes().size(),
               "Reinheit >= 0.80, 5 Themen erkannt",
               "Reinheit " + std::to_string(purity) + ", " + std::to_string(themesLeading.size()) +
                   " Themen erkannt");

  LibraryData shuffled = context.demo;
  std::reverse(shuffled.tabs.begin(), shuffled.tabs.end());
  std::rotate(shuffled.tabs.begin(), shuffled.tabs.begin() + 17, shuffled.tabs.end());
  const auto first = view(data);
  const auto second = view(clustered(shuffled, context));
  report.check("Themen sind bei gleichen Daten gleich (deterministisch)", first == second,
               std::to_string(first.size()) + " gleiche Themen",
               std::to_string(second.size()) + " Themen, abweichend");
}

void checkSearchAndChat(Report& report, SelftestContext& context) {
  report.section("Suche und Chat");
  LibraryData data = context.demo;
  context.embedder->ensureEmbeddings(data);
  const SearchIndex index(context.embedder);
  const auto hits = index.hits("Velotour über den Pass", data, 5);
  const std::string best = hits.empty() ? "keine Treffer" : hits.front().tab.title;
  report.check("Suche «Velotour über den Pass» findet zuerst eine Velo-Seite",
               !hits.empty() && demoTheme(hits.front().tab) == "velo", "eine Velo-Seite", best);

  const Chat chat(context.embedder);
  const ChatAnswer answer = chat.answer("Welche Rezepte mit Käse habe ich gespeichert?", data);
  const bool cardsOk = !answer.cards.empty() && answer.cards.size() <= 8 &&
                       demoTheme(answer.cards.front().tab) == "kochen";
  report.check("Chat-Frage nach Rezepten mit Käse bringt Koch-Seiten",
               cardsOk && !answer.text.empty(), "Antwort mit Koch-Seiten",
               answer.cards.empty() ? "keine Karten" : answer.cards.front().tab.title);
}

}  // namespace kestrova::cli
