// Uuid: a 16-byte identifier value. Parses canonical text in either case and prints upper case,
// the form the library document and the MCP tools use.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

class Uuid {
 public:
  // The nil UUID (all zero bytes).
  constexpr Uuid() = default;
  explicit constexpr Uuid(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

  // A new random (version 4) UUID from the operating system's random source.
  static Uuid random();

  // Parses the 36-character form 8-4-4-4-12 of hexadecimal digits in either case; anything else
  // (braces, missing dashes, blanks) gives no value.
  static std::optional<Uuid> parse(std::string_view text);

  // Canonical upper-case text, for example "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
  std::string string() const;

  const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }

  friend bool operator==(const Uuid&, const Uuid&) = default;
  friend auto operator<=>(const Uuid&, const Uuid&) = default;

 private:
  std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace kestrova

template <>
struct std::hash<kestrova::Uuid> {
  std::size_t operator()(const kestrova::Uuid& id) const noexcept {
    std::uint64_t a = 0;
    std::uint64_t b = 0;
    for (int i = 0; i < 8; ++i) {
      a = (a << 8) | id.bytes()[static_cast<std::size_t>(i)];
      b = (b << 8) | id.bytes()[static_cast<std::size_t>(i + 8)];
    }
    return static_cast<std::size_t>(a ^ (b * 0x9E3779B97F4A7C15ULL));
  }
};
