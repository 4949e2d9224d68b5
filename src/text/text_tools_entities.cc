// HTML character references: the named entities pages in German, French and English use most,
// and numeric references. One level only, so "&amp;lt;" becomes "&lt;".
#include <algorithm>
#include <optional>

#include <unicode/uchar.h>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova::TextTools {
namespace {

struct Entity {
  std::string_view name;
  std::string_view text;
};

// Names are case-sensitive. "nbsp" is an ordinary space so that words still split there, and
// "szlig" is "ss" because Swiss German never writes "ß".
constexpr Entity kEntities[] = {
    {"amp", "&"},    {"lt", "<"},    {"gt", ">"},     {"quot", "\""},  {"apos", "'"},
    {"nbsp", " "},   {"auml", "ä"},  {"ouml", "ö"},   {"uuml", "ü"},   {"Auml", "Ä"},
    {"Ouml", "Ö"},   {"Uuml", "Ü"},  {"szlig", "ss"}, {"eacute", "é"}, {"egrave", "è"},
    {"agrave", "à"}, {"ndash", "–"}, {"mdash", "—"},  {"hellip", "…"}, {"laquo", "«"},
    {"raquo", "»"},  {"rsquo", "’"}, {"lsquo", "‘"},  {"rdquo", "”"},  {"ldquo", "“"},
    {"euro", "€"},   {"copy", "©"},  {"reg", "®"},    {"middot", "·"}, {"bull", "•"}};

// How far after the "&" the ";" may lie, in characters.
constexpr std::size_t kMaxReferenceChars = 12;

std::optional<std::uint32_t> parseNumber(std::string_view digits, unsigned base) {
  if (digits.empty()) {
    return std::nullopt;
  }
  std::uint64_t value = 0;
  for (char c : digits) {
    unsigned digit = 0;
    if (c >= '0' && c <= '9') {
      digit = static_cast<unsigned>(c - '0');
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = static_cast<unsigned>(c - 'a' + 10);
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = static_cast<unsigned>(c - 'A' + 10);
    } else {
      return std::nullopt;
    }
    value = value * base + digit;
    if (value > 0xFFFFFFFFu) {
      return std::nullopt;
    }
  }
  return static_cast<std::uint32_t>(value);
}

// Appends what the reference `name` (between "&" and ";") stands for; false when it stands for
// nothing and the "&" must stay.
bool appendReference(std::string& out, std::string_view name) {
  if (!name.empty() && name[0] == '#') {
    const bool hex = name.size() >= 2 && (name[1] == 'x' || name[1] == 'X');
    const std::optional<std::uint32_t> value =
        hex ? parseNumber(name.substr(2), 16) : parseNumber(name.substr(1), 10);
    if (!value || *value > 0x10FFFF || (*value >= 0xD800 && *value <= 0xDFFF)) {
      return false;
    }
    unicode::appendUtf8(out, static_cast<char32_t>(*value));
    return true;
  }
  const auto* entity = std::find_if(std::begin(kEntities), std::end(kEntities),
                                    [name](const Entity& e) { return e.name == name; });
  if (entity == std::end(kEntities)) {
    return false;
  }
  out.append(entity->text);
  return true;
}

// True when the ASCII byte at `pos` is a character of its own: no prepended mark before it and
// no combining mark or joiner after it.
bool isWholeCharacter(std::string_view text, std::size_t pos) {
  if (pos > 0 && static_cast<unsigned char>(text[pos - 1]) >= 0x80) {
    std::size_t before = pos;
    const auto cp = static_cast<UChar32>(unicode::decodeBefore(text, before));
    if (u_getIntPropertyValue(cp, UCHAR_GRAPHEME_CLUSTER_BREAK) == U_GCB_PREPEND) {
      return false;
    }
  }
  std::size_t after = pos + 1;
  if (after < text.size() && static_cast<unsigned char>(text[after]) >= 0x80) {
    const auto cp = static_cast<UChar32>(unicode::decodeAt(text, after));
    const auto gcb = u_getIntPropertyValue(cp, UCHAR_GRAPHEME_CLUSTER_BREAK);
    if (gcb == U_GCB_EXTEND || gcb == U_GCB_ZWJ || gcb == U_GCB_SPACING_MARK) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string decodeEntities(std::string_view text) {
  std::string repaired;
  if (!unicode::isValidUtf8(text)) {
    repaired = unicode::repairUtf8(text);
    text = repaired;
  }
  std::size_t amp = text.find('&');
  if (amp == std::string_view::npos) {
    return std::string(text);
  }
  std::string out;
  out.reserve(text.size());
  std::size_t copied = 0;  // text before this offset is already in `out`
  while (amp != std::string_view::npos) {
    std::size_t next = amp + 1;
    if (isWholeCharacter(text, amp)) {
      unicode::GraphemeWalker ahead(text);
      ahead.restartAt(amp + 1);
      for (std::size_t i = 0; i < kMaxReferenceChars && ahead.next(); ++i) {
        if (ahead.cluster() != ";") {
          continue;
        }
        std::string replacement;
        if (appendReference(replacement, text.substr(amp + 1, ahead.begin() - amp - 1))) {
          out.append(text.substr(copied, amp - copied));
          out.append(replacement);
          copied = next = ahead.end();
        }
        break;
      }
    }
    amp = text.find('&', next);
  }
  out.append(text.substr(copied));
  return out;
}

}  // namespace kestrova::TextTools
