// The search_tabs tool on a library whose tabs all score alike: limits, failures and rounding.
#include "mcp_search.h"

#include <gtest/gtest.h>

#include "mcp_fixture.h"

namespace kestrova {
namespace {

using mcp::Json;

// Failures and the usual limits are checked through the binary in tests/integration.
TEST(McpSearchTabs, QueryLimitRoundingAndTheBriefNewestFirst) {
  const std::vector<std::pair<float, double>> scores = {{0.45f, 0.45},    {0.0625f, 0.063},
                                                        {0.3125f, 0.313}, {0.12344f, 0.123},
                                                        {1.0f, 1.0},      {0.04001f, 0.04}};
  for (const auto& [score, rounded] : scores) {  // halves away from zero
    EXPECT_EQ(mcp::roundedScore(score), rounded) << score;
  }
  // 14 tabs titled "Kaffee <i>", the later ones saved later, with zero vectors.
  auto embedder = std::make_shared<Embedder>(false);
  LibraryData data;
  data.embedderKind = embedder->kind();
  for (int i = 0; i < 14; ++i) {
    SavedTab t;
    t.id = Uuid::random();
    t.url = "https://example.org/x", t.domain = "example.org";
    t.title = "Kaffee " + std::to_string(i), t.savedAt = testing::at(1'800'000'000 + i);
    data.tabs.push_back(t);
    data.embeddings[t.id.string()] = std::vector<float>(256, 0.0f);
  }
  EXPECT_EQ(testing::failureText(mcp::searchTabs(data, {{"query", nullptr}}, embedder)),
            "query fehlt");
  // A query of blanks is text: it runs and finds nothing.
  EXPECT_EQ(testing::innerValue(mcp::searchTabs(data, {{"query", "   "}}, embedder)),
            Json::array());
  const std::vector<std::pair<Json, std::size_t>> limits = {
      {nullptr, 10}, {2.5, 10}, {-1, 0}, {1, 1}, {14, 14}};
  for (const auto& [limit, count] : limits) {
    Json arguments{{"query", "Kaffee"}};
    if (!limit.is_null()) {
      arguments["limit"] = limit;
    }
    Json list = testing::innerValue(mcp::searchTabs(data, arguments, embedder));
    ASSERT_EQ(list.size(), count) << limit.dump();
    if (count == 14) {
      EXPECT_EQ(list[13]["title"], "Kaffee 0");
      EXPECT_EQ(list[0]["id"], data.tabs[13].id.string());
      list[0].erase("id");
      EXPECT_EQ(list[0], Json::parse(R"({"title":"Kaffee 13","url":"https://example.org/x",
        "domain":"example.org","score":0.45,"savedAt":"2027-01-15T08:00:13Z","summary":"",
        "tags":[],"read":false})"));
    }
  }
}

}  // namespace
}  // namespace kestrova
