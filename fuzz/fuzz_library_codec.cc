// Fuzz target: decoding library.json. Any input must decode or be rejected without a crash, and
// a document that decodes must survive encoding: the encoded text decodes to an equal value and
// encodes to the same text again.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "library_codec.h"

namespace {

using kestrova::Date;

// A fixed load time, so that a tab without savedAt gets the same date on both decodes.
const Date kLoadTime{std::chrono::seconds(1'790'000'000)};

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "library codec round trip: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view json(reinterpret_cast<const char*>(data), size);
  std::optional<kestrova::LibraryData> decoded = kestrova::codec::decodeLibrary(json, kLoadTime);
  if (!decoded) {
    return 0;
  }
  std::string encoded;
  try {
    encoded = kestrova::codec::encodeLibrary(*decoded);
  } catch (const kestrova::codec::EncodeError&) {
    fail("a decoded document cannot be encoded");
  }
  std::string error;
  std::optional<kestrova::LibraryData> again =
      kestrova::codec::decodeLibrary(encoded, kLoadTime, &error);
  if (!again) {
    std::fprintf(stderr, "%s\n%s\n", error.c_str(), encoded.c_str());
    fail("the encoded document does not decode");
  }
  if (!(*again == *decoded)) {
    std::fprintf(stderr, "%s\n", encoded.c_str());
    fail("the document changed on its way through the encoder");
  }
  if (const std::string second = kestrova::codec::encodeLibrary(*again); second != encoded) {
    std::fprintf(stderr, "%s\n%s\n", encoded.c_str(), second.c_str());
    fail("encoding is not stable");
  }
  return 0;
}
