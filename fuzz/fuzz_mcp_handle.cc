// Fuzz target: one MCP line through MCPServer::handle, against a small library in a temporary
// folder. Every line gets no reply or one reply line that is a JSON-RPC 2.0 object; nothing
// crashes, and the library file is a readable document afterwards.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>
#include <stdlib.h>
#include <unistd.h>

#include <kestrova/mcp_server.h>
#include <kestrova/store.h>

#include "library_codec.h"

namespace {

namespace fs = std::filesystem;
using kestrova::Date;
using kestrova::Uuid;

[[noreturn]] void fail(const char* what, std::string_view detail) {
  std::fprintf(stderr, "mcp handle: %s\n%.*s\n", what, static_cast<int>(detail.size()),
               detail.data());
  std::abort();
}

Date at(std::int64_t seconds) {
  return Date(std::chrono::seconds(seconds));
}

// Three tabs in one window and one topic; ids the dictionary knows.
kestrova::LibraryData sampleLibrary() {
  kestrova::LibraryData data;
  const Uuid window = *Uuid::parse("11111111-1111-4111-8111-111111111111");
  const Uuid topic = *Uuid::parse("22222222-2222-4222-8222-222222222222");
  const char* ids[] = {"AAAAAAAA-0000-4000-8000-000000000001",
                       "AAAAAAAA-0000-4000-8000-000000000002",
                       "AAAAAAAA-0000-4000-8000-000000000003"};
  const char* titles[] = {"Kaffee rösten zu Hause", "Rust Ownership erklärt", "Wandern im Jura"};
  const char* urls[] = {"https://kaffee.example.ch/roesten", "https://doc.example.org/rust/own",
                        "https://www.jura.example.ch/wege?x=1&y=2"};
  for (int i = 0; i < 3; ++i) {
    kestrova::SavedTab tab;
    tab.id = *Uuid::parse(ids[i]);
    tab.url = urls[i];
    tab.title = titles[i];
    tab.domain = kestrova::SavedTab::domainOf(tab.url);
    tab.savedAt = at(1'790'000'000 + i * 3600);
    tab.windowId = window;
    tab.tabIndex = i;
    tab.text = std::string(titles[i]) + ". Ein längerer Text über das Thema, mit Wörtern.";
    tab.summary = titles[i];
    tab.tags = {"eins", "zwei"};
    if (i == 1) {
      tab.topicId = topic;
      tab.note = "Später lesen";
      tab.reminderAt = at(1'790'086'400);
    }
    data.tabs.push_back(tab);
  }
  data.windows = {kestrova::SavedWindow{window,
                                        at(1'790'000'000),
                                        "Fenster 1 · 01.09. 10:00",
                                        {data.tabs[0].id, data.tabs[1].id, data.tabs[2].id}}};
  data.topics = {kestrova::Topic{topic, "Programmieren", "blau", {data.tabs[1].id}, false}};
  return data;
}

struct Fixture {
  fs::path folder;
  fs::path file;
  std::string document;
  kestrova::MCPServer* server = nullptr;
};

Fixture* fixture = nullptr;

void removeFolder() {
  if (fixture != nullptr) {
    std::error_code ec;
    fs::remove_all(fixture->folder, ec);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ::setenv("KESTROVA_NO_AI", "1", 1);
  // Saves flush to disk; a memory file system keeps the fuzzer fast where one is available.
  fs::path base = fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
  std::string pattern = (base / "kestrova-fuzz-mcp-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    fail("cannot make a temporary folder", pattern);
  }
  fixture = new Fixture;
  fixture->folder = pattern;
  fixture->file = fixture->folder / "library.json";
  fixture->document = kestrova::codec::encodeLibrary(sampleLibrary());
  fixture->server = new kestrova::MCPServer(kestrova::LibraryStore(fixture->file));
  std::atexit(removeFolder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Every input starts from the same library, so that a finding replays alone.
  {
    std::ofstream out(fixture->file, std::ios::binary | std::ios::trunc);
    out << fixture->document;
  }
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  const std::optional<std::string> reply = fixture->server->handle(line);
  if (reply) {
    if (reply->find('\n') != std::string::npos) {
      fail("a reply spans more than one line", *reply);
    }
    const nlohmann::json parsed = nlohmann::json::parse(*reply, nullptr, false);
    if (!parsed.is_object() || parsed.value("jsonrpc", "") != "2.0" || !parsed.contains("id") ||
        parsed.contains("result") == parsed.contains("error")) {
      fail("the reply is not a JSON-RPC response", *reply);
    }
  }
  // Whatever the line did, the file must still be a library document.
  std::ifstream in(fixture->file, std::ios::binary);
  const std::string after((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!kestrova::codec::decodeLibrary(after)) {
    fail("the library file no longer decodes", after);
  }
  return 0;
}
