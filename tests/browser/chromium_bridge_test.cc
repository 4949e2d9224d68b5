// ChromiumBridge against a stand-in DevTools server on loopback that answers each command as a
// test says, well or badly.
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
  std::string out(1, static_cast<char>(0x80 | opcode));
  size = size == UINT64_MAX ? payload.size() : size;
  if (size < 126) {
    out += static_cast<char>(size);
  } else {
    out += static_cast<char>(127);
    for (int shift = 56; shift >= 0; shift -= 8)
      out += static_cast<char>((size >> shift) & 0xFF);
  }
  return out + payload;
}

// Answers each command by method: the bytes to send back for the command's id ("" closes).
using Script = std::map<std::string, std::function<std::string(std::int64_t id, const json&)>>;

class FakeDevTools {
 public:
  explicit FakeDevTools(Script script, std::string handshake = "HTTP/1.1 101 Switching\r\n\r\n")
      : script_(std::move(script)), handshake_(std::move(handshake)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
    ::listen(listener_, 8);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeDevTools() {
    ::shutdown(listener_, SHUT_RDWR);
    ::close(listener_);
    thread_.join();
  }
  DevToolsAddress address() const { return {"127.0.0.1", port_, "/devtools/browser/x"}; }
  std::vector<std::string> closed;

 private:
  void serve() {
    for (int client; (client = ::accept(listener_, nullptr, nullptr)) >= 0; ::close(client)) {
      std::string in;
      char buffer[65536];
      for (ssize_t n; in.find("\r\n\r\n") == std::string::npos &&
                      (n = ::recv(client, buffer, sizeof buffer, 0)) > 0;) {
        in.append(buffer, static_cast<std::size_t>(n));
      }
      in.erase(0, in.find("\r\n\r\n") + 4);
      ::send(client, handshake_.data(), handshake_.size(), MSG_NOSIGNAL);
      while (answer(client, in)) {
        const ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
        if (n <= 0)
          break;
        in.append(buffer, static_cast<std::size_t>(n));
      }
    }
  }
  // Answers every whole client frame in `in`; false once the connection is to be closed.
  bool answer(int client, std::string& in) {
    while (in.size() >= 6) {
      const auto at = [&](std::size_t i) { return static_cast<unsigned char>(in[i]); };
      std::size_t size = at(1) & 0x7F, head = 2;
      if (size == 126)
        size = (at(2) << 8) | at(3), head = 4;
      if (in.size() < head + 4 + size)
        return true;
      std::string payload = in.substr(head + 4, size);
      for (std::size_t i = 0; i < size; ++i)
        payload[i] = static_cast<char>(payload[i] ^ in[head + i % 4]);
      const bool text = (at(0) & 0x0F) == 1;  // a pong to our ping is no command
      in.erase(0, head + 4 + size);
      if (!text)
        continue;
      const json command = json::parse(payload);
      const std::string method = command["method"];
      if (method == "Target.closeTarget")
        closed.push_back(command["params"]["targetId"]);
      const std::string reply = script_.at(method)(command["id"], command["params"]);
      if (reply.empty())
        return false;
      ::send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
    }
    return true;
  }

  Script script_;
  std::string handshake_;
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

std::string result(std::int64_t id, const json& value) {
  return frame(json{{"id", id}, {"result", value}}.dump());
}

const json kTargets = {
    {"targetInfos",
     {{{"targetId", "A"}, {"type", "page"}, {"title", "Eins"}, {"url", "https://a.ch/"}},
      {{"targetId", "B"}, {"type", "page"}, {"title", ""}, {"url", "https://b.ch/"}},
      {{"targetId", "C"}, {"type", "page"}, {"title", "Neu"}, {"url", "chrome://newtab/"}},
      {{"targetId", "W"}, {"type", "service_worker"}, {"url", "https://a.ch/sw.js"}},
      {{"targetId", "D"}, {"type", "page"}, {"title", "Drei"}, {"url", "https://d.ch/"}}}}};

Script working() {
  return {{"Target.getTargets",
           [](std::int64_t id, const json&) {
             // An event and a ping come first; the bridge must skip the one and answer the other.
             return frame(R"({"method":"Target.targetCreated"})") + frame("hallo", 9) +
                    result(id, kTargets);
           }},
          {"Browser.getWindowForTarget",
           [](std::int64_t id, const json& params) {
             return result(id, {{"windowId", params["targetId"] == "B" ? 7 : 3}});
           }},
          {"Target.closeTarget",
           [](std::int64_t id, const json&) { return result(id, json::object()); }}};
}

TEST(ChromiumBridge, TabsByWindowAndOnlyTheSnapshotsPagesClosed) {
  FakeDevTools fake(working());
  ChromiumBridge bridge(fake.address());
  const std::vector<SafariWindow> windows = bridge.snapshotWindows();
  EXPECT_EQ(windows, (std::vector<SafariWindow>{
                         {1, {{"Eins", "https://a.ch/", 1}, {"Drei", "https://d.ch/", 2}}},
                         {2, {{"https://b.ch/", "https://b.ch/", 1}}}}));
  EXPECT_EQ(bridge.closeAllTabs(windows, true, {"D.CH"}), 2);
  EXPECT_EQ(fake.closed, (std::vector<std::string>{"A", "B"}));
}

TEST(ChromiumBridge, AnswersOutsideTheProtocolAreGermanErrorsNeverCrashes) {
  // The reply to the command: `payload` with the command's id for $ID; opcode 0 closes.
  struct Case {
    std::string payload;
    std::string message;
    int opcode = 1;
    std::uint64_t size = UINT64_MAX;
    std::string handshake = "HTTP/1.1 101 Switching\r\n\r\n";
  };
  const std::vector<Case> cases = {
      {R"({"id":$ID,"result":{}})", "(Target.getTargets ohne targetInfos)"},
      {R"({"id":$ID,"result":{"targetInfos":7}})", "(Target.getTargets ohne targetInfos)"},
      {"kein json", "(kein JSON-Objekt)"},
      {R"({"id":$ID,"result":[]})", "(Target.getTargets ohne Ergebnis)"},
      {R"({"id":$ID,"error":{"message":"Nein"}})", "«Target.getTargets» abgelehnt: Nein."},
      {"x", "(Nachricht zu gross)", 1, std::uint64_t{1} << 62},
      {"", "(Verbindung vom Browser geschlossen)", 8},
      {"?", "(unbekannte WebSocket-Nachricht)", 5},
      {"", "(Verbindung beendet oder keine Antwort in der Zeit)", 0},
      {"", "(HTTP/1.1 404 Not Found)", 0, UINT64_MAX, "HTTP/1.1 404 Not Found\r\n\r\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    const auto reply = [&c](std::int64_t id, const json&) {
      std::string payload = c.payload;
      if (const std::size_t at = payload.find("$ID"); at != std::string::npos) {
        payload.replace(at, 3, std::to_string(id));
      }
      return c.opcode == 0 ? std::string() : frame(payload, c.opcode, c.size);
    };
    FakeDevTools fake({{"Target.getTargets", reply}}, c.handshake);
    try {
      ChromiumBridge(fake.address(), std::chrono::seconds(2)).snapshotWindows();
      ADD_FAILURE() << "no error";
    } catch (const BrowserError& error) {
      EXPECT_EQ(error.kind(), BrowserError::Kind::protocol);
      EXPECT_NE(std::string(error.what()).find(c.message), std::string::npos) << error.what();
    }
  }
}

TEST(ChromiumBridge, NothingListeningIsABrowserThatDoesNotRun) {
  const int port = [] {
    FakeDevTools gone(Script{});
    return gone.address().port;
  }();
  try {
    ChromiumBridge({"127.0.0.1", port, ""}, std::chrono::seconds(2)).snapshotWindows();
    ADD_FAILURE() << "no error";
  } catch (const BrowserError& error) {
    EXPECT_EQ(error.kind(), BrowserError::Kind::notRunning);
    EXPECT_EQ(std::string(error.what()),
              "Der Browser antwortet nicht auf 127.0.0.1:" + std::to_string(port) +
                  ". Starte ihn mit --remote-debugging-port=" + std::to_string(port) +
                  " und versuche es nochmals.");
  }
}

TEST(ChromiumBridge, DevToolsAddresses) {
  const std::pair<const char*, std::optional<DevToolsAddress>> rows[] = {
      {"9222", DevToolsAddress{"127.0.0.1", 9222, ""}},
      {"localhost:1", DevToolsAddress{"localhost", 1, ""}},
      {"[::1]:65535", DevToolsAddress{"::1", 65535, ""}},
      {"0", std::nullopt},
      {"65536", std::nullopt},
      {":9222", std::nullopt},
      {"9222x", std::nullopt},
      {"", std::nullopt},
      {"[::1]9222", std::nullopt}};
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(parseDevToolsAddress(text), expected) << text;
  }
}

}  // namespace
}  // namespace kestrova
