#include "mcp_search.h"

#include <chrono>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace kestrova {
namespace {

using mcp::Json;

SavedTab tab(const char* id, std::string title, std::int64_t savedAt) {
  SavedTab t;
  t.id = *Uuid::parse(id);
  t.url = "https://example.org/x";
  t.domain = "example.org";
  t.title = std::move(title);
  t.savedAt = Date(std::chrono::seconds(savedAt));
  return t;
}

LibraryData library(int tabs) {
  LibraryData data;
  auto embedder = std::make_shared<Embedder>(false);
  data.embedderKind = embedder->kind();
  for (int i = 0; i < tabs; ++i) {
    char id[37];
    std::snprintf(id, sizeof id, "00000000-0000-4000-8000-%012d", i);
    data.tabs.push_back(tab(id, "Kaffee " + std::to_string(i), 1'800'000'000 + i));
    data.embeddings[data.tabs.back().id.string()] = std::vector<float>(256, 0.0f);
  }
  return data;
}

Json inner(const Json& result) {
  EXPECT_FALSE(result.value("isError", true)) << result.dump();
  return Json::parse(result["content"][0]["text"].get<std::string>());
}

TEST(McpSearchRoundedScore, HalvesAwayFromZero) {
  EXPECT_EQ(mcp::roundedScore(0.45f), 0.45);
  EXPECT_EQ(mcp::roundedScore(0.0625f), 0.063);  // 62.5 thousandths, exactly half
  EXPECT_EQ(mcp::roundedScore(0.3125f), 0.313);  // 312.5
  EXPECT_EQ(mcp::roundedScore(0.12344f), 0.123);
  EXPECT_EQ(mcp::roundedScore(1.0f), 1.0);
  EXPECT_EQ(mcp::roundedScore(0.04001f), 0.04);
}

TEST(McpSearchTabs, QueryMissingEmptyOrNotText) {
  auto embedder = std::make_shared<Embedder>(false);
  const LibraryData data = library(2);
  for (const Json& arguments :
       {Json::object(), Json{{"query", ""}}, Json{{"query", 5}}, Json{{"query", nullptr}}}) {
    const Json result = mcp::searchTabs(data, arguments, embedder);
    EXPECT_TRUE(result["isError"].get<bool>()) << arguments.dump();
    EXPECT_EQ(result["content"][0]["text"], "query fehlt");
  }
  // A query of blanks is text: it runs and finds nothing.
  EXPECT_EQ(inner(mcp::searchTabs(data, {{"query", "   "}}, embedder)), Json::array());
}

TEST(McpSearchTabs, LimitDefaultsAndWrongTypes) {
  auto embedder = std::make_shared<Embedder>(false);
  const LibraryData data = library(14);
  EXPECT_EQ(inner(mcp::searchTabs(data, {{"query", "Kaffee"}}, embedder)).size(), 10U);
  EXPECT_EQ(inner(mcp::searchTabs(data, {{"query", "Kaffee"}, {"limit", 3}}, embedder)).size(), 3U);
  EXPECT_EQ(inner(mcp::searchTabs(data, {{"query", "Kaffee"}, {"limit", "3"}}, embedder)).size(),
            10U);
  EXPECT_EQ(inner(mcp::searchTabs(data, {{"query", "Kaffee"}, {"limit", 2.5}}, embedder)).size(),
            10U);
  EXPECT_EQ(inner(mcp::searchTabs(data, {{"query", "Kaffee"}, {"limit", 0}}, embedder)).size(), 0U);
  EXPECT_EQ(inner(mcp::searchTabs(data, {{"query", "Kaffee"}, {"limit", -1}}, embedder)).size(),
            0U);
  EXPECT_EQ(inner(mcp::searchTabs(data, {{"query", "Kaffee"}, {"limit", 100}}, embedder)).size(),
            14U);
}

TEST(McpSearchTabs, BriefWithScoreNewestFirst) {
  auto embedder = std::make_shared<Embedder>(false);
  const LibraryData data = library(3);
  const Json list = inner(mcp::searchTabs(data, {{"query", "Kaffee"}}, embedder));
  ASSERT_EQ(list.size(), 3U);
  EXPECT_EQ(list[0]["title"], "Kaffee 2");
  EXPECT_EQ(list[2]["title"], "Kaffee 0");
  EXPECT_EQ(list[0]["score"].get<double>(), 0.45);
  EXPECT_EQ(list[0]["id"], "00000000-0000-4000-8000-000000000002");
  EXPECT_EQ(list[0]["read"], false);
  EXPECT_FALSE(list[0].contains("note"));
}

}  // namespace
}  // namespace kestrova
