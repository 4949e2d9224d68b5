// Fuzz target: TextTools::readableText and TextTools::decodeEntities on arbitrary bytes. Neither
// may crash or stall; the readable text keeps to its limit and has no empty lines, and decoded
// text is valid UTF-8.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace {

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "text tools: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The first byte chooses the limit, so that cuts at every position get exercised.
  std::int64_t limit = 5000;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  if (!input.empty()) {
    limit = static_cast<unsigned char>(input.front()) * 4 - 8;  // includes limits below zero
    input.remove_prefix(1);
  }

  const std::string decoded = kestrova::TextTools::decodeEntities(input);
  if (!kestrova::unicode::isValidUtf8(decoded)) {
    fail("decodeEntities gave invalid UTF-8");
  }

  const kestrova::ReadableText page = kestrova::TextTools::readableText(input, limit);
  if (!kestrova::unicode::isValidUtf8(page.text) || !kestrova::unicode::isValidUtf8(page.title)) {
    fail("readableText gave invalid UTF-8");
  }
  const std::size_t allowed = limit < 0 ? 0 : static_cast<std::size_t>(limit);
  if (kestrova::unicode::graphemeCount(page.text) > allowed) {
    fail("readableText went over its limit");
  }
  if (page.text.find("\n\n") != std::string::npos) {
    fail("readableText kept an empty line");
  }
  return 0;
}
