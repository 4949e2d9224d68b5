// search_tabs through the real kestrova-cli mcp: scores, order, limits and failures on a library
// built for the test, read from its file by the running server.
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
using testing::McpProcess;
using testing::TestFolder;

constexpr const char* kCli = KESTROVA_CLI_PATH;

SavedTab tab(int n, std::string title, std::int64_t savedAt) {
  char id[37];
  std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", n);
  SavedTab t;
  t.id = *Uuid::parse(id);
  t.url = "https://example.org/seite-" + std::to_string(n);
  t.domain = "example.org";
  t.title = std::move(title);
  t.savedAt = Date(std::chrono::seconds(savedAt));
  return t;
}

// Six tabs that each reach "Kurse" another way, and one that does not. Every cached vector is
// zero except that of the tab whose vector is the query's own, so the scores are exact numbers.
LibraryData library() {
  Embedder embedder(false);
  LibraryData data;
  data.embedderKind = embedder.kind();
  SavedTab partial = tab(1, "Kursplan Herbst", 1'800'000'000);
  SavedTab semantic = tab(2, "Kurse am Abend", 1'800'000'000);
  SavedTab summary = tab(3, "Volkshochschule", 1'800'000'000);
  summary.summary = "Kurse für Erwachsene.";
  SavedTab text = tab(4, "Programm", 1'800'000'000);
  text.text = "Alle Kurse und Termine im Überblick.";
  SavedTab nothing = tab(5, "Gartenbau", 1'800'000'000);
  SavedTab newer = tab(6, "Kurse", 1'800'000'500);
  SavedTab older = tab(7, "Kurse", 1'800'000'100);
  data.tabs = {partial, semantic, summary, text, nothing, older, newer};
  for (const SavedTab& t : data.tabs)
    data.embeddings[t.id.string()] = std::vector<float>(256, 0.0f);
  data.embeddings[semantic.id.string()] = embedder.vector("Kurse");
  return data;
}

class SearchTabsPipe : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = folder_ / "library.json";
    LibraryStore(file_).save(library());
  }

  Json call(McpProcess& server, const Json& arguments) {
    const std::string reply =
        server.request(Json{{"jsonrpc", "2.0"},
                            {"id", ++id_},
                            {"method", "tools/call"},
                            {"params", {{"name", "search_tabs"}, {"arguments", arguments}}}}
                           .dump());
    const Json parsed = Json::parse(reply);
    EXPECT_EQ(parsed["id"], id_);
    return parsed["result"];
  }

  static Json inner(const Json& result) {
    EXPECT_FALSE(result["isError"].get<bool>()) << result.dump();
    return Json::parse(result["content"][0]["text"].get<std::string>());
  }

  TestFolder folder_;
  std::filesystem::path file_;
  int id_ = 0;
};

TEST_F(SearchTabsPipe, ScoresAndOrder) {
  McpProcess server(kCli, {"mcp", "--library", file_.string()});
  const std::string before = testing::readFile(file_);
  const Json hits = inner(call(server, {{"query", "Kurse"}}));
  std::vector<std::string> titles;
  std::vector<double> scores;
  for (const Json& hit : hits) {
    titles.push_back(hit["title"]);
    scores.push_back(hit["score"]);
  }
  EXPECT_EQ(titles, (std::vector<std::string>{"Kurse am Abend", "Kurse", "Kurse", "Volkshochschule",
                                              "Kursplan Herbst", "Programm"}));
  EXPECT_EQ(scores, (std::vector<double>{1.0, 0.45, 0.45, 0.36, 0.315, 0.18}));
  // Of the two equal "Kurse" tabs the newer comes first.
  EXPECT_EQ(hits[1]["savedAt"], "2027-01-15T08:08:20Z");
  EXPECT_EQ(hits[2]["savedAt"], "2027-01-15T08:01:40Z");
  // The reply shows scores with at most three decimals, and searching wrote nothing.
  const std::string text = call(server, {{"query", "Kurse"}})["content"][0]["text"];
  EXPECT_NE(text.find("\"score\": 0.315"), std::string::npos) << text;
  EXPECT_EQ(testing::readFile(file_), before);
}

TEST_F(SearchTabsPipe, LimitsAndFailures) {
  McpProcess server(kCli, {"mcp", "--library", file_.string()});
  EXPECT_EQ(inner(call(server, {{"query", "Kurse"}, {"limit", 3}})).size(), 3U);
  EXPECT_EQ(inner(call(server, {{"query", "Kurse"}, {"limit", "3"}})).size(), 6U);
  EXPECT_EQ(inner(call(server, {{"query", "Kurse"}, {"limit", 0}})).size(), 0U);
  EXPECT_EQ(inner(call(server, {{"query", "und"}})).size(), 0U);
  for (const Json& arguments : {Json::object(), Json{{"query", ""}}, Json{{"query", 3}}}) {
    const Json result = call(server, arguments);
    EXPECT_TRUE(result["isError"].get<bool>());
    EXPECT_EQ(result["content"][0]["text"], "query fehlt");
  }
}

TEST_F(SearchTabsPipe, EachCallReadsTheFileAfresh) {
  McpProcess server(kCli, {"mcp", "--library", file_.string()});
  EXPECT_EQ(inner(call(server, {{"query", "Gartenbau"}})).size(), 1U);
  LibraryData changed = library();
  changed.tabs.erase(changed.tabs.begin() + 4);
  LibraryStore(file_).save(changed);
  EXPECT_EQ(inner(call(server, {{"query", "Gartenbau"}})).size(), 0U);
}

}  // namespace
}  // namespace kestrova
