#include "page_decoding.h"

#include <tuple>

#include <gtest/gtest.h>

namespace kestrova::page {
namespace {

// Latin-1 when labelled so, else UTF-8 when valid, else Latin-1; a cut body loses its broken end.
TEST(PageDecoding, TakesLabelledLatin1ElseUtf8ElseLatin1) {
  const std::tuple<std::string_view, std::string_view, bool, std::string_view> cases[] = {
      {"\xC3\xA4", "text/html; charset=iso-8859-1", false, "Ã¤"},
      {"\xC3\xA4", "text/html;charset=latin1", false, "Ã¤"},
      {"\xC3\xA4\xC2\x80", "text/html; charset=windows-1252", false, "Ã¤Â\xC2\x80"},
      {"\xEF\xBB\xBFHallo", "text/html", false, "Hallo"},
      {"Gr\xC3\xBC\xC3", "text/html", true, "Grü"},
      {"Gr\xC3\xBC\xC3", "text/html", false, "GrÃ¼Ã"},
      {"a\xF0\x9F\x98", "text/html", true, "a"},
      {"a\xF0\x9F\x98\x80", "text/html", true, "a😀"},
      {"\xFC\xC3", "text/html", true, "üÃ"}};  // broken before its end: still Latin-1
  for (const auto& [body, type, cutOff, text] : cases) {
    EXPECT_EQ(decodeBody(body, type, cutOff), text) << body << " " << type;
  }
}

}  // namespace
}  // namespace kestrova::page
