// search_tabs through the real kestrova-cli mcp: exact scores and order on a library built for the
// test, read from its file by the running server.
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <kestrova/embedder.h>
#include <kestrova/store.h>

#include "support/mcp_process.h"
#include "support/test_folder.h"

namespace kestrova {
namespace {

using Json = nlohmann::json;

SavedTab tab(int n, std::string title, std::int64_t savedAt) {
  SavedTab t;
  t.id = *Uuid::parse("00000000-0000-4000-8000-00000000000" + std::to_string(n));
  t.url = "https://example.org/seite-" + std::to_string(n), t.domain = "example.org";
  t.title = std::move(title), t.savedAt = Date(std::chrono::seconds(savedAt));
  return t;
}

// Six tabs that each reach "Kurse" another way, and one that does not. Every cached vector is
// zero except that of the tab whose vector is the query's own, so the scores are exact numbers.
LibraryData library() {
  Embedder embedder(false);
  LibraryData data;
  data.embedderKind = embedder.kind();
  data.tabs = {tab(1, "Kursplan Herbst", 1'800'000'000),
               tab(2, "Kurse am Abend", 1'800'000'000),
               tab(3, "Volkshochschule", 1'800'000'000),
               tab(4, "Programm", 1'800'000'000),
               tab(5, "Gartenbau", 1'800'000'000),
               tab(7, "Kurse", 1'800'000'100),
               tab(6, "Kurse", 1'800'000'500)};
  data.tabs[2].summary = "Kurse für Erwachsene.";
  data.tabs[3].text = "Alle Kurse und Termine im Überblick.";
  for (const SavedTab& t : data.tabs)
    data.embeddings[t.id.string()] = std::vector<float>(256, 0.0f);
  data.embeddings[data.tabs[1].id.string()] = embedder.vector("Kurse");
  return data;
}

// Scores and order; then, as the server keeps its document only while the file is unchanged, a
// search after the file changed sees the change.
TEST(SearchTabsPipe, ScoresAndOrderOfTheFileAsItIsNow) {
  testing::TestFolder folder;
  const std::filesystem::path file = folder / "library.json";
  LibraryStore(file).save(library());
  const std::string before = testing::readFile(file);
  testing::McpProcess server(KESTROVA_CLI_PATH, {"mcp", "--library", file.string()});
  auto search = [&](const std::string& query) -> std::string {
    const Json reply = Json::parse(server.request(
        Json{{"jsonrpc", "2.0"},
             {"id", 1},
             {"method", "tools/call"},
             {"params", {{"name", "search_tabs"}, {"arguments", {{"query", query}}}}}}
            .dump()));
    return reply["result"]["content"][0]["text"];
  };
  const std::string text = search("Kurse");
  std::vector<std::pair<std::string, double>> hits;
  for (const Json& hit : Json::parse(text))
    hits.emplace_back(hit["title"], hit["score"]);
  EXPECT_EQ(hits, (std::vector<std::pair<std::string, double>>{{"Kurse am Abend", 1.0},
                                                               {"Kurse", 0.45},
                                                               {"Kurse", 0.45},
                                                               {"Volkshochschule", 0.36},
                                                               {"Kursplan Herbst", 0.315},
                                                               {"Programm", 0.18}}));
  // Of the two equal "Kurse" tabs the newer comes first.
  EXPECT_EQ(Json::parse(text)[1]["savedAt"], "2027-01-15T08:08:20Z");
  // The reply shows scores with at most three decimals, and searching wrote nothing.
  EXPECT_NE(text.find("\"score\": 0.315"), std::string::npos) << text;
  EXPECT_EQ(testing::readFile(file), before);

  EXPECT_EQ(Json::parse(search("Gartenbau")).size(), 1U);
  LibraryData changed = library();
  changed.tabs.erase(changed.tabs.begin() + 4);
  LibraryStore(file).save(changed);
  EXPECT_EQ(Json::parse(search("Gartenbau")).size(), 0U);
}

}  // namespace
}  // namespace kestrova
