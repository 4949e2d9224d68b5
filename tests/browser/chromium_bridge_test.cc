// ChromiumBridge against a stand-in DevTools server on loopback that answers as a test says.
#include <functional>
#include <map>
#include <thread>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <unistd.h>

#include <kestrova/chromium_bridge.h>

namespace kestrova {
namespace {

using nlohmann::json;

// A server frame (unmasked) of `opcode` with `payload`; `size` overrides the stated length.
std::string frame(const std::string& payload, int opcode = 1, std::uint64_t size = UINT64_MAX) {
  size = size == UINT64_MAX ? payload.size() : size;
  std::string out{static_cast<char>(0x80 | opcode), static_cast<char>(size < 126 ? size : 127)};
  for (int shift = 56; size >= 126 && shift >= 0; shift -= 8)
    out += static_cast<char>((size >> shift) & 0xFF);
  return out + payload;
}

// Answers each command by method: the bytes to send back for the command's id ("" closes).
using Script = std::map<std::string, std::function<std::string(std::int64_t id, const json&)>>;

struct FakeDevTools {
  explicit FakeDevTools(Script answers, std::string upgrade = "HTTP/1.1 101 Switching\r\n\r\n")
      : script(std::move(answers)), handshake(std::move(upgrade)) {
    sockaddr_in address{};
    address.sin_family = AF_INET, address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), size);
    ::listen(listener, 8);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.sin_port);
    thread = std::thread([this] { serve(); });
  }
  ~FakeDevTools() { ::shutdown(listener, SHUT_RDWR), ::close(listener), thread.join(); }
  DevToolsAddress address() const { return {"127.0.0.1", port, "/devtools/browser/x"}; }

  // The client sends nothing after its upgrade request until it has the answer, and its frames
  // here are all short (a length in the second byte) and masked.
  void serve() {
    char buffer[65536];
    for (int client; (client = ::accept(listener, nullptr, nullptr)) >= 0; ::close(client)) {
      std::string in;
      bool upgraded = false, open = true;
      for (ssize_t n; open && (n = ::recv(client, buffer, sizeof buffer, 0)) > 0;) {
        in.append(buffer, static_cast<std::size_t>(n));
        if (!upgraded && in.find("\r\n\r\n") != std::string::npos) {
          in.clear(), upgraded = true;
          ::send(client, handshake.data(), handshake.size(), MSG_NOSIGNAL);
        }
        for (std::size_t size;
             open && upgraded && in.size() >= 6 && in.size() >= 6 + (size = in[1] & 0x7F);) {
          std::string payload = in.substr(6, size);
          for (std::size_t i = 0; i < size; ++i)
            payload[i] = static_cast<char>(payload[i] ^ in[2 + i % 4]);
          const bool text = (in[0] & 0x0F) == 1;  // a pong to our ping is no command
          in.erase(0, 6 + size);
          if (!text)
            continue;
          const json command = json::parse(payload);
          const std::string reply = script.at(command["method"])(command["id"], command["params"]);
          open = !reply.empty();
          ::send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
      }
    }
  }

  Script script;
  std::string handshake;
  int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  int port = 0;
  std::thread thread;
};

std::string result(std::int64_t id, const json& value) {
  return frame(json{{"id", id}, {"result", value}}.dump());
}

// The kind and message of the BrowserError `f` throws; no kind when it throws none.
template <typename F>
std::pair<std::optional<BrowserError::Kind>, std::string> thrown(F&& f) try {
  f();
  return {};
} catch (const BrowserError& error) {
  return {error.kind(), error.what()};
}

TEST(ChromiumBridge, TabsByWindowAndOnlyTheSnapshotsPagesClosed) {
  const json targets = {
      {"targetInfos",
       {{{"targetId", "A"}, {"type", "page"}, {"title", "Eins"}, {"url", "https://a.ch/"}},
        {{"targetId", "B"}, {"type", "page"}, {"title", ""}, {"url", "https://b.ch/"}},
        {{"targetId", "C"}, {"type", "page"}, {"title", "Neu"}, {"url", "chrome://newtab/"}},
        {{"targetId", "W"}, {"type", "service_worker"}, {"url", "https://a.ch/sw.js"}},
        {{"targetId", "D"}, {"type", "page"}, {"title", "Drei"}, {"url", "https://d.ch/"}}}}};
  std::vector<std::string> closed;
  Script script;
  // An event and a ping come first; the bridge must skip the one and answer the other.
  script["Target.getTargets"] = [&](std::int64_t id, const json&) {
    return frame(R"({"method":"Target.targetCreated"})") + frame("hallo", 9) + result(id, targets);
  };
  script["Browser.getWindowForTarget"] = [](std::int64_t id, const json& params) {
    return result(id, {{"windowId", params["targetId"] == "B" ? 7 : 3}});
  };
  script["Target.closeTarget"] = [&](std::int64_t id, const json& params) {
    closed.push_back(params["targetId"]);
    return result(id, json::object());
  };
  FakeDevTools fake(script);
  ChromiumBridge bridge(fake.address());
  const std::vector<SafariWindow> windows = bridge.snapshotWindows();
  EXPECT_EQ(windows, (std::vector<SafariWindow>{
                         {1, {{"Eins", "https://a.ch/", 1}, {"Drei", "https://d.ch/", 2}}},
                         {2, {{"https://b.ch/", "https://b.ch/", 1}}}}));
  EXPECT_EQ(bridge.closeAllTabs(windows, true, {"D.CH"}), 2);
  EXPECT_EQ(closed, (std::vector<std::string>{"A", "B"}));
}

TEST(ChromiumBridge, AnswersOutsideTheProtocolAreGermanErrorsNeverCrashes) {
  // The reply to the command: `payload`, after its id when it starts with '"'; opcode 0 closes.
  struct Case {
    std::string payload, message;
    int opcode = 1;
    std::uint64_t size = UINT64_MAX;
    std::string handshake = "HTTP/1.1 101 Switching\r\n\r\n";
  };
  const std::vector<Case> cases = {
      {R"("result":{})", "(Target.getTargets ohne targetInfos)"},
      {R"("result":{"targetInfos":7})", "(Target.getTargets ohne targetInfos)"},
      {"kein json", "(kein JSON-Objekt)"},
      {R"("result":[])", "(Target.getTargets ohne Ergebnis)"},
      {R"("error":{"message":"Nein"})", "«Target.getTargets» abgelehnt: Nein."},
      {"x", "(Nachricht zu gross)", 1, std::uint64_t{1} << 62},
      {"", "(Verbindung vom Browser geschlossen)", 8},
      {"?", "(unbekannte WebSocket-Nachricht)", 5},
      {"", "(Verbindung beendet oder keine Antwort in der Zeit)", 0},
      {"", "(HTTP/1.1 404 Not Found)", 0, UINT64_MAX, "HTTP/1.1 404 Not Found\r\n\r\n"}};
  for (const Case& c : cases) {
    const auto reply = [&c](std::int64_t id, const json&) {
      const std::string payload = c.payload[0] == '"'
                                      ? R"({"id":)" + std::to_string(id) + "," + c.payload + "}"
                                      : c.payload;
      return c.opcode == 0 ? std::string() : frame(payload, c.opcode, c.size);
    };
    FakeDevTools fake({{"Target.getTargets", reply}}, c.handshake);
    const auto [kind, message] =
        thrown([&] { ChromiumBridge(fake.address(), std::chrono::seconds(2)).snapshotWindows(); });
    EXPECT_EQ(kind, BrowserError::Kind::protocol) << c.message;
    EXPECT_NE(message.find(c.message), std::string::npos) << message;
  }
}

TEST(ChromiumBridge, NothingListeningIsABrowserThatDoesNotRun) {
  const int port = FakeDevTools(Script{}).address().port;
  const std::string p = std::to_string(port);
  const auto [kind, message] = thrown([&] {
    ChromiumBridge({"127.0.0.1", port, ""}, std::chrono::seconds(2)).snapshotWindows();
  });
  EXPECT_EQ(kind, BrowserError::Kind::notRunning);
  EXPECT_EQ(message, "Der Browser antwortet nicht auf 127.0.0.1:" + p +
                         ". Starte ihn mit --remote-debugging-port=" + p +
                         " und versuche es nochmals.");
}

TEST(ChromiumBridge, DevToolsAddresses) {
  EXPECT_EQ(parseDevToolsAddress("9222"), (DevToolsAddress{"127.0.0.1", 9222, ""}));
  EXPECT_EQ(parseDevToolsAddress("localhost:1"), (DevToolsAddress{"localhost", 1, ""}));
  EXPECT_EQ(parseDevToolsAddress("[::1]:65535"), (DevToolsAddress{"::1", 65535, ""}));
  for (const char* text : {"0", "65536", ":9222", "9222x", "", "[::1]9222"})
    EXPECT_EQ(parseDevToolsAddress(text), std::nullopt) << text;
}

}  // namespace
}  // namespace kestrova
