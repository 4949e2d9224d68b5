#include "devtools_client.h"

#include <random>

namespace kestrova::devtools {
namespace {

// Messages of the DevTools protocol are JSON texts; a target list of a huge session is a few
// megabytes. Anything far beyond is not a browser talking.
constexpr std::size_t kMaxMessage = 256u << 20;

std::string base64(const unsigned char* data, std::size_t size) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (std::size_t i = 0; i < size; i += 3) {
    const std::uint32_t n = (static_cast<std::uint32_t>(data[i]) << 16) |
                            (i + 1 < size ? static_cast<std::uint32_t>(data[i + 1]) << 8 : 0) |
                            (i + 2 < size ? data[i + 2] : 0);
    out += kDigits[(n >> 18) & 63];
    out += kDigits[(n >> 12) & 63];
    out += i + 1 < size ? kDigits[(n >> 6) & 63] : '=';
    out += i + 2 < size ? kDigits[n & 63] : '=';
  }
  return out;
}

BrowserError notAnswering(const std::string& host, int port) {
  return BrowserError(BrowserError::Kind::notRunning,
                      "Der Browser antwortet nicht auf " + host + ":" + std::to_string(port) +
                          ". Starte ihn mit --remote-debugging-port=" + std::to_string(port) +
                          " und versuche es nochmals.");
}

TcpStream open(const std::string& host, int port, std::chrono::milliseconds timeout) {
  std::optional<TcpStream> stream = TcpStream::connect(host, port, timeout);
  if (!stream) {
    throw notAnswering(host, port);
  }
  return std::move(*stream);
}

// Reads until the blank line after the headers; returns the headers, leaves the rest in `buffer`.
std::string readHead(TcpStream& stream, std::string& buffer, std::chrono::milliseconds timeout) {
  std::size_t end = 0;
  while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
    if (buffer.size() > 65536 || !stream.receive(buffer, timeout)) {
      throw unexpected("keine vollständige HTTP-Antwort");
    }
  }
  std::string head = buffer.substr(0, end);
  buffer.erase(0, end + 4);
  return head;
}

}  // namespace

BrowserError unexpected(const std::string& what) {
  return BrowserError(BrowserError::Kind::protocol,
                      "Der Browser hat unerwartet geantwortet (" + what + ").");
}

std::string httpGet(const std::string& host, int port, const std::string& path,
                    std::chrono::milliseconds timeout) {
  TcpStream stream = open(host, port, timeout);
  const std::string request = "GET " + path + " HTTP/1.1\r\nHost: " + host + ":" +
                              std::to_string(port) + "\r\nConnection: close\r\n\r\n";
  if (!stream.send(request, timeout)) {
    throw notAnswering(host, port);
  }
  std::string body;
  const std::string head = readHead(stream, body, timeout);
  if (head.rfind("HTTP/1.1 200", 0) != 0 && head.rfind("HTTP/1.0 200", 0) != 0) {
    throw unexpected(head.substr(0, head.find('\r')));
  }
  while (body.size() <= kMaxMessage && stream.receive(body, timeout)) {
  }
  if (body.size() > kMaxMessage) {
    throw unexpected("Antwort zu gross");
  }
  return body;
}

std::string clientFrame(std::uint8_t opcode, std::string_view payload, std::uint32_t mask) {
  std::string frame;
  frame += static_cast<char>(0x80 | opcode);
  const std::uint64_t size = payload.size();
  if (size < 126) {
    frame += static_cast<char>(0x80 | size);
  } else if (size <= 0xFFFF) {
    frame += static_cast<char>(0x80 | 126);
    frame += static_cast<char>(size >> 8);
    frame += static_cast<char>(size & 0xFF);
  } else {
    frame += static_cast<char>(0x80 | 127);
    for (int shift = 56; shift >= 0; shift -= 8) {
      frame += static_cast<char>((size >> shift) & 0xFF);
    }
  }
  const char key[4] = {static_cast<char>(mask >> 24), static_cast<char>(mask >> 16),
                       static_cast<char>(mask >> 8), static_cast<char>(mask)};
  frame.append(key, 4);
  for (std::size_t i = 0; i < payload.size(); ++i) {
    frame += static_cast<char>(payload[i] ^ key[i % 4]);
  }
  return frame;
}

Client::Client(const std::string& host, int port, const std::string& path,
               std::chrono::milliseconds timeout)
    : stream_(open(host, port, timeout)), timeout_(timeout) {
  std::random_device random;
  unsigned char nonce[16];
  for (unsigned char& byte : nonce) {
    byte = static_cast<unsigned char>(random());
  }
  // No Origin header: the browser accepts a local client without one, and refuses foreign ones.
  const std::string request = "GET " + path + " HTTP/1.1\r\nHost: " + host + ":" +
                              std::to_string(port) +
                              "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                              "Sec-WebSocket-Key: " +
                              base64(nonce, sizeof nonce) + "\r\nSec-WebSocket-Version: 13\r\n\r\n";
  if (!stream_.send(request, timeout_)) {
    throw notAnswering(host, port);
  }
  const std::string head = readHead(stream_, buffer_, timeout_);
  if (head.rfind("HTTP/1.1 101", 0) != 0) {
    throw unexpected(head.substr(0, head.find('\r')));
  }
}

void Client::fill() {
  if (!stream_.receive(buffer_, timeout_)) {
    throw unexpected("Verbindung beendet oder keine Antwort in der Zeit");
  }
}

std::string Client::nextMessage() {
  std::string message;
  for (;;) {
    while (buffer_.size() < 2) {
      fill();
    }
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(buffer_[i]); };
    const bool fin = (byte(0) & 0x80) != 0;
    const std::uint8_t opcode = byte(0) & 0x0F;
    const bool masked = (byte(1) & 0x80) != 0;
    std::uint64_t size = byte(1) & 0x7F;
    std::size_t header = 2;
    if (size >= 126) {
      const std::size_t extra = size == 126 ? 2 : 8;
      while (buffer_.size() < header + extra) {
        fill();
      }
      size = 0;
      for (std::size_t i = 0; i < extra; ++i) {
        size = (size << 8) | byte(header + i);
      }
      header += extra;
    }
    if (size > kMaxMessage || message.size() + size > kMaxMessage) {
      throw unexpected("Nachricht zu gross");
    }
    const std::size_t maskAt = header;
    header += masked ? 4 : 0;
    while (buffer_.size() < header + size) {
      fill();
    }
    std::string payload = buffer_.substr(header, static_cast<std::size_t>(size));
    if (masked) {
      for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(payload[i] ^ buffer_[maskAt + i % 4]);
      }
    }
    buffer_.erase(0, header + static_cast<std::size_t>(size));
    switch (opcode) {
      case 0x0:
      case 0x1:
      case 0x2:
        message += payload;
        if (fin) {
          return message;
        }
        break;
      case 0x8:
        throw unexpected("Verbindung vom Browser geschlossen");
      case 0x9:
        stream_.send(clientFrame(0xA, payload, 0x5A17C0DE), timeout_);
        break;
      case 0xA:
        break;
      default:
        throw unexpected("unbekannte WebSocket-Nachricht");
    }
  }
}

nlohmann::json Client::call(const std::string& method, nlohmann::json params) {
  const std::int64_t id = nextId_++;
  const nlohmann::json command = {{"id", id}, {"method", method}, {"params", std::move(params)}};
  std::random_device random;
  if (!stream_.send(clientFrame(0x1, command.dump(), static_cast<std::uint32_t>(random())),
                    timeout_)) {
    throw unexpected("Befehl nicht gesendet");
  }
  for (;;) {
    const nlohmann::json reply = nlohmann::json::parse(nextMessage(), nullptr, false);
    if (!reply.is_object()) {
      throw unexpected("kein JSON-Objekt");
    }
    const auto replyId = reply.find("id");
    if (replyId == reply.end()) {
      continue;  // an event, not a reply
    }
    if (!replyId->is_number_integer() || replyId->get<std::int64_t>() != id) {
      continue;
    }
    if (const auto error = reply.find("error"); error != reply.end()) {
      const std::string text =
          error->is_object() && error->value("message", nlohmann::json()).is_string()
              ? (*error)["message"].get<std::string>()
              : error->dump();
      throw BrowserError(BrowserError::Kind::protocol,
                         "Der Browser hat «" + method + "» abgelehnt: " + text + ".");
    }
    const auto result = reply.find("result");
    if (result == reply.end() || !result->is_object()) {
      throw unexpected(method + " ohne Ergebnis");
    }
    return *result;
  }
}

}  // namespace kestrova::devtools
