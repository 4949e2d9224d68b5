#include <mutex>
#include <random>

#include <kestrova/uuid.h>

namespace kestrova {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

bool isDashPosition(std::size_t i) {
  return i == 8 || i == 13 || i == 18 || i == 23;
}

}  // namespace

Uuid Uuid::random() {
  // One generator seeded from the OS; new identifiers are the only random values in the system.
  static std::mutex mutex;
  static std::mt19937_64 engine{std::random_device{}()};
  std::array<std::uint8_t, 16> bytes{};
  {
    std::lock_guard lock(mutex);
    for (std::size_t i = 0; i < 16; i += 8) {
      std::uint64_t r = engine();
      for (std::size_t j = 0; j < 8; ++j) {
        bytes[i + j] = static_cast<std::uint8_t>(r >> (8 * j));
      }
    }
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) {
    return std::nullopt;
  }
  std::array<std::uint8_t, 16> bytes{};
  std::size_t byte = 0;
  for (std::size_t i = 0; i < 36;) {
    if (isDashPosition(i)) {
      if (text[i] != '-') {
        return std::nullopt;
      }
      ++i;
      continue;
    }
    int hi = hexValue(text[i]);
    int lo = hexValue(text[i + 1]);
    if (hi < 0 || lo < 0) {
      return std::nullopt;
    }
    bytes[byte++] = static_cast<std::uint8_t>(hi * 16 + lo);
    i += 2;
  }
  return Uuid(bytes);
}

std::string Uuid::string() const {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      out.push_back('-');
    }
    out.push_back(kDigits[bytes_[i] >> 4]);
    out.push_back(kDigits[bytes_[i] & 0x0F]);
  }
  return out;
}

}  // namespace kestrova
