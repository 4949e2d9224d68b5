#include "mcp_search.h"

#include <cmath>
#include <string>

#include <kestrova/search_index.h>

namespace kestrova::mcp {

namespace {
constexpr std::int64_t kDefaultLimit = 10;
}  // namespace

double roundedScore(float score) {
  // The product is formed in float like the score itself; std::round takes halves away from
  // zero. The division is done in double so that the number written is the short decimal.
  const float thousandths = std::round(score * 1000.0f);
  return static_cast<double>(thousandths) / 1000.0;
}

Json searchTabs(const LibraryData& data, const Json& arguments,
                const std::shared_ptr<Embedder>& embedder, SearchCache* cache) {
  const std::string query = stringArgument(arguments, "query").value_or("");
  if (query.empty()) {
    return failResult("query fehlt");
  }
  const std::int64_t limit = integerArgument(arguments, "limit").value_or(kDefaultLimit);
  Json list = Json::array();
  for (const SearchHit& hit : SearchIndex(embedder).hits(query, data, limit, cache)) {
    Json entry = brief(hit.tab, data);
    entry["score"] = roundedScore(hit.score);
    list.push_back(std::move(entry));
  }
  return textResult(list);
}

}  // namespace kestrova::mcp
