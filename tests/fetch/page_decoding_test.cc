// Status, content type and character-set rules for fetched bodies.

#include "page_decoding.h"

#include <gtest/gtest.h>

namespace kestrova::page {
namespace {

TEST(PageDecodingRules, StatusAndContentType) {
  EXPECT_FALSE(isReadableStatus(199));
  EXPECT_TRUE(isReadableStatus(200));
  EXPECT_TRUE(isReadableStatus(399));
  EXPECT_FALSE(isReadableStatus(400));
  EXPECT_TRUE(isReadableContentType(""));
  EXPECT_TRUE(isReadableContentType("application/xhtml+xml"));
  EXPECT_TRUE(isReadableContentType("text/plain"));
  EXPECT_FALSE(isReadableContentType("application/pdf"));
  EXPECT_FALSE(isReadableContentType("image/png"));
}

TEST(PageDecodingCharset, LabelledLatin1IsTakenAsLatin1EvenWhenValidUtf8) {
  // "Ã¤" in Latin-1 is the UTF-8 encoding of "ä"; a Latin-1 label wins.
  EXPECT_EQ(decodeBody("\xC3\xA4", "text/html; charset=iso-8859-1", false), "Ã¤");
  EXPECT_EQ(decodeBody("\xE4", "text/html;charset=latin1", false), "ä");
  EXPECT_EQ(decodeBody("\xE9\x80", "text/html; charset=windows-1252", false), "é\xC2\x80");
}

TEST(PageDecodingCharset, UnlabelledBytesAreUtf8OrElseLatin1) {
  EXPECT_EQ(decodeBody("Z\xC3\xBCrich", "text/html", false), "Zürich");
  EXPECT_EQ(decodeBody("Z\xFCrich", "text/html", false), "Zürich");
  EXPECT_EQ(decodeBody("Z\xFCrich", "", false), "Zürich");
  // Other labels are not recognised: the bytes decide.
  EXPECT_EQ(decodeBody("\xFC", "text/html; charset=koi8-r", false), "ü");
  EXPECT_EQ(decodeBody("\xEF\xBB\xBFHallo", "text/html", false), "Hallo");
  EXPECT_EQ(decodeBody("", "text/html", false), "");
}

TEST(PageDecodingCharset, CutBodyLosesOnlyItsBrokenTail) {
  std::string text = "Gr\xC3\xBC\xC3";  // "Grü" and the first byte of another two-byte letter
  EXPECT_EQ(decodeBody(text, "text/html", true), "Grü");
  // Without the cut-off flag the same bytes are no UTF-8 and fall back to Latin-1.
  EXPECT_EQ(decodeBody(text, "text/html", false), "GrÃ¼Ã");
  EXPECT_EQ(decodeBody("a\xE2\x82", "text/html", true), "a");
  EXPECT_EQ(decodeBody("a\xF0\x9F\x98", "text/html", true), "a");
  EXPECT_EQ(decodeBody("a\xF0\x9F\x98\x80", "text/html", true), "a\xF0\x9F\x98\x80");
  // A body that is broken elsewhere is still Latin-1.
  EXPECT_EQ(decodeBody("\xFC\xC3", "text/html", true), "üÃ");
}

}  // namespace
}  // namespace kestrova::page
