// Fuzz target: Fmt::parseISO. Any text parses or is refused without a crash; a date it reads is
// written by Fmt::iso in a form that parses back to the same second.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include <kestrova/fmt.h>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A zone with summer time, so that the local-time forms meet gaps and repeated hours.
  ::setenv("TZ", "Europe/Zurich", 1);
  ::tzset();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::optional<kestrova::Date> date = kestrova::Fmt::parseISO(text);
  if (!date) {
    return 0;
  }
  const std::string written = kestrova::Fmt::iso(*date);
  const std::optional<kestrova::Date> again = kestrova::Fmt::parseISO(written);
  const auto second = [](kestrova::Date d) {
    return std::chrono::floor<std::chrono::seconds>(d.time_since_epoch()).count();
  };
  if (!again || second(*again) != second(*date)) {
    std::fprintf(stderr, "parseISO(\"%.*s\") = %s does not read back\n", static_cast<int>(size),
                 text.data(), written.c_str());
    std::abort();
  }
  return 0;
}
