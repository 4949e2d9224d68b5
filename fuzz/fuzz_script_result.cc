// Fuzz target: parseScriptResult, the reader of osascript's result text. Any bytes give a value
// tree or a parse error, never a crash, a hang or unbounded recursion; an error points inside
// the text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <variant>

#include <kestrova/script_runner.h>
#include <kestrova/unicode.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto result = kestrova::parseScriptResult(text);
  if (const auto* error = std::get_if<kestrova::ScriptParseError>(&result)) {
    // Offsets count bytes of the repaired text, which may be longer than the input.
    if (error->offset > kestrova::unicode::repairUtf8(text).size() || error->message.empty()) {
      std::fprintf(stderr, "parse error at %zu of %zu: %s\n", error->offset, size,
                   error->message.c_str());
      std::abort();
    }
  }
  return 0;
}
