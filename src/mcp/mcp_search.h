// The search_tabs tool of the MCP server: the library's best hits for a query, each shown as the
// tools show a tab plus its score.
#pragma once

#include <memory>

#include <kestrova/embedder.h>
#include <kestrova/models.h>
#include <kestrova/search_index.h>

#include "mcp_results.h"

namespace kestrova::mcp {

// Searches `data` with `embedder` for arguments["query"], at most arguments["limit"] hits (10
// when missing or not an integer). Each hit is brief() with "score" rounded to three decimals.
// A missing or empty query fails with "query fehlt".
Json searchTabs(const LibraryData& data, const Json& arguments,
                const std::shared_ptr<Embedder>& embedder, SearchCache* cache = nullptr);

// `score` rounded to three decimals, halves away from zero: 0.1235 gives 0.124.
double roundedScore(float score);

}  // namespace kestrova::mcp
