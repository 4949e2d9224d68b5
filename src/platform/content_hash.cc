// ContentHash: four independent multiply-rotate lanes over 32-byte blocks, so that the processor
// can work on them side by side; the bytes of an unfinished block wait for the next piece, which
// makes the value independent of how the content was split.
#include <algorithm>
#include <cstring>

#include <kestrova/file_system.h>

namespace kestrova {
namespace {

constexpr std::uint64_t kPrime1 = 0x9e3779b185ebca87u;
constexpr std::uint64_t kPrime2 = 0xc2b2ae3d27d4eb4fu;

std::uint64_t rotl(std::uint64_t x, int r) {
  return (x << r) | (x >> (64 - r));
}

std::uint64_t load64(const unsigned char* p) {
  std::uint64_t v = 0;
  for (int i = 7; i >= 0; --i) {
    v = (v << 8) | p[i];  // little-endian on every machine, so a hash means the same everywhere
  }
  return v;
}

std::uint64_t stir(std::uint64_t lane, std::uint64_t input) {
  return rotl(lane + input * kPrime2, 31) * kPrime1;
}

// Spreads every input bit over the whole word (the finaliser of MurmurHash3).
std::uint64_t mix(std::uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdu;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53u;
  h ^= h >> 33;
  return h;
}

}  // namespace

void ContentHash::block(const unsigned char* p) {
  for (int lane = 0; lane < 4; ++lane) {
    lanes_[lane] = stir(lanes_[lane], load64(p + 8 * lane));
  }
}

void ContentHash::add(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t left = bytes.size();
  total_ += left;
  if (pendingSize_ > 0) {
    const std::size_t take = std::min(left, sizeof pending_ - pendingSize_);
    std::memcpy(pending_ + pendingSize_, p, take);
    pendingSize_ += take;
    p += take;
    left -= take;
    if (pendingSize_ < sizeof pending_) {
      return;
    }
    block(pending_);
    pendingSize_ = 0;
  }
  for (; left >= sizeof pending_; p += sizeof pending_, left -= sizeof pending_) {
    block(p);
  }
  std::memcpy(pending_, p, left);
  pendingSize_ = left;
}

std::uint64_t ContentHash::value() const {
  std::uint64_t h = total_ * kPrime1;
  for (int lane = 0; lane < 4; ++lane) {
    h = rotl(h ^ mix(lanes_[lane]), 27) * kPrime1 + kPrime2;
  }
  for (std::size_t i = 0; i < pendingSize_; ++i) {
    h = rotl(h ^ (pending_[i] * kPrime2), 11) * kPrime1;
  }
  return mix(h);
}

}  // namespace kestrova
