// Helpers for the MCP server tests: a small library on disk and JSON-RPC lines to send.
#pragma once

#include <chrono>
#include <string>

#include <nlohmann/json.hpp>

#include <kestrova/mcp_server.h>
#include <kestrova/store.h>

#include "support/test_folder.h"

namespace kestrova::testing {

using Json = nlohmann::json;

inline const Uuid kWindowId = *Uuid::parse("11111111-1111-4111-8111-111111111111");
inline const Uuid kTopicId = *Uuid::parse("22222222-2222-4222-8222-222222222222");
inline const Uuid kPlainTabId = *Uuid::parse("AAAAAAAA-0000-4000-8000-000000000001");
inline const Uuid kFullTabId = *Uuid::parse("AAAAAAAA-0000-4000-8000-000000000002");

inline Date at(std::int64_t seconds) {
  return Date(std::chrono::seconds(seconds));
}
// Two tabs: one with nothing optional (its window and topic do not exist), one with everything.
inline LibraryData sampleLibrary() {
  LibraryData data;
  SavedTab plain;
  plain.id = kPlainTabId, plain.title = "Schlicht", plain.savedAt = at(1'790'000'000);
  plain.url = "https://example.org/a/b", plain.domain = "example.org";
  plain.windowId = *Uuid::parse("99999999-9999-4999-8999-999999999999");
  plain.text = "Kurzer Text.", plain.summary = "Eine Seite.", plain.tags = {"eins"};
  SavedTab full = plain;
  full.id = kFullTabId, full.title = "Voll", full.projectTags = {"Garten"};
  full.windowId = kWindowId, full.topicId = kTopicId, full.note = "Später lesen";
  full.reminderAt = at(1'790'086'400), full.readAt = at(1'790'000'200);
  data.tabs = {plain, full};
  data.windows = {SavedWindow{
      kWindowId, at(1'790'000'000), "Fenster 1 · 01.09. 10:00", {kFullTabId, kPlainTabId}}};
  data.topics = {Topic{kTopicId, "Wissen", "blau", {kFullTabId}, false}};
  return data;
}

// The parsed inner JSON of a successful tool result; fails the test for an error result.
inline Json innerValue(const Json& result) {
  EXPECT_FALSE(result.value("isError", true)) << result.dump();
  return Json::parse(result["content"][0].value("text", "null"));
}

// The message of a failed tool result.
inline std::string failureText(const Json& result) {
  EXPECT_TRUE(result.value("isError", false)) << result.dump();
  return result["content"][0].value("text", "");
}

}  // namespace kestrova::testing
