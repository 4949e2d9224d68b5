#include "word_scan.h"

#include <unicode/uchar.h>

namespace kestrova::wordscan {

CodePointInfo codePointInfo(char32_t cp) {
  const auto c = static_cast<UChar32>(cp);
  CodePointInfo info;
  info.word = unicode::isLetter(cp) || unicode::isNumber(cp);
  info.pictographic = u_hasBinaryProperty(c, UCHAR_EXTENDED_PICTOGRAPHIC) != 0;
  switch (u_getIntPropertyValue(c, UCHAR_GRAPHEME_CLUSTER_BREAK)) {
    case U_GCB_CONTROL:
    case U_GCB_CR:
    case U_GCB_LF:
      info.join = Join::control;
      break;
    case U_GCB_EXTEND:
      info.join = Join::extend;
      break;
    case U_GCB_ZWJ:
      info.join = Join::zwj;
      break;
    case U_GCB_SPACING_MARK:
      info.join = Join::spacingMark;
      break;
    case U_GCB_REGIONAL_INDICATOR:
      info.join = Join::regional;
      break;
    case U_GCB_PREPEND:
    case U_GCB_L:
    case U_GCB_V:
    case U_GCB_T:
    case U_GCB_LV:
    case U_GCB_LVT:
      info.join = Join::other;
      break;
    default:
      info.join = Join::none;
      break;
  }
  return info;
}

namespace detail {

const LatinInfo& latinInfo() {
  static const LatinInfo table = [] {
    LatinInfo t;
    for (char32_t cp = 0x80; cp <= 0xFF; ++cp) {
      t.info[cp - 0x80] = codePointInfo(cp);
    }
    return t;
  }();
  return table;
}

}  // namespace detail
}  // namespace kestrova::wordscan
