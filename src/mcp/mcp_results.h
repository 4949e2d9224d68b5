// Building blocks of the MCP tools: reading the call's arguments, the summary object in which
// every tool shows a tab, and the two result envelopes. Stateless; none of them throws for bad
// input.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include <kestrova/models.h>

namespace kestrova::mcp {

using Json = nlohmann::json;

// arguments[key] when it is a JSON string; no value when the key is missing or of another type.
std::optional<std::string> stringArgument(const Json& arguments, std::string_view key);

// arguments[key] when it is a JSON integer within 64 bits, or a finite number with an integral
// value in that range (3.0 reads as 3); no value for anything else (3.5, "3", true, missing).
std::optional<std::int64_t> integerArgument(const Json& arguments, std::string_view key);

// The index of the first tab whose id is arguments["id"] (a UUID in either case); no value when
// the id is missing, not a string, not a UUID or not in `data`.
std::optional<std::size_t> findTab(const Json& arguments, const LibraryData& data);

// A tab as the tools show it: id, title, url, domain, savedAt, summary, tags and read always;
// topic, window, note, reminderAt and projects only when there is something to show.
Json brief(const SavedTab& tab, const LibraryData& data);

// `value` as indented JSON with sorted keys and every "/" written as "\/"; "" when it cannot be
// written (nesting too deep to serialise safely).
std::string prettyJson(const Json& value);

// The successful result: one text item holding prettyJson(value), isError false.
Json textResult(const Json& value);

// The failed result: one text item holding `message`, isError true.
Json failResult(std::string_view message);

// True when `value` nests arrays and objects deeper than `limit` levels. Iterative, so it is safe
// for any depth; the serialiser itself recurses, so deeper values are not handed to it.
bool nestsDeeperThan(const Json& value, std::size_t limit);

// The nesting the serialiser is trusted with.
inline constexpr std::size_t kMaxSerialisedDepth = 512;

}  // namespace kestrova::mcp
