// The readable text of a web page: what a reader sees of the content, without menus, scripts,
// cookie banners and the like. Every step is a linear scan (see html_scan.h), so a hostile page
// costs no more than a well-formed one of the same size.
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "html_scan.h"
#include "text_tools_internal.h"

namespace kestrova::TextTools {
namespace {

// Elements that never hold the content a reader came for.
constexpr std::string_view kRemovedElements[] = {"script",   "style",  "noscript", "svg",  "nav",
                                                 "header",   "footer", "aside",    "form", "iframe",
                                                 "template", "button", "select"};

// The main content must be longer than this to be preferred over the whole page; shorter
// `article` elements are teasers or cards.
constexpr std::size_t kMinContentChars = 401;

bool isNewline(char32_t cp) {
  return (cp >= 0x0A && cp <= 0x0D) || cp == 0x85 || cp == 0x2028 || cp == 0x2029;
}

// Splits `text` into lines, collapses the white space in each line to single spaces, drops lines
// of at most one character and joins the rest with "\n".
std::string collapseLines(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::string line;
  bool pendingSpace = false;
  auto finishLine = [&]() {
    if (detail::hasAtLeastCharacters(line, 2)) {
      if (!out.empty()) {
        out.push_back('\n');
      }
      out.append(line);
    }
    line.clear();
    pendingSpace = false;
  };
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  unicode::GraphemeWalker walker(text);
  std::size_t pos = 0;
  while (pos < text.size()) {
    const unsigned char c = bytes[pos];
    char32_t first = c;
    std::size_t end = pos + 1;
    // An ASCII byte followed by another ASCII byte (or the end) is a character of its own; CR LF
    // read as two newlines gives the same lines as read as one.
    if (c >= 0x80 || (end < text.size() && bytes[end] >= 0x80)) {
      walker.restartAt(pos);
      walker.next();
      first = walker.first();
      end = walker.end();
    }
    if (isNewline(first)) {
      finishLine();
    } else if (unicode::isWhitespace(first)) {
      pendingSpace = !line.empty();
    } else {
      if (pendingSpace) {
        line.push_back(' ');
        pendingSpace = false;
      }
      line.append(text.substr(pos, end - pos));
    }
    pos = end;
  }
  finishLine();
  return out;
}

}  // namespace

ReadableText readableText(std::string_view html, std::int64_t limit) {
  const std::string page = unicode::repairUtf8(html);
  ReadableText result;

  if (auto title = html::findElement(page, 0, "title", false, false)) {
    const std::string decoded = decodeEntities(
        std::string_view(page).substr(title->innerBegin, title->innerEnd - title->innerBegin));
    result.title = std::string(unicode::trim(decoded));
  }

  std::string cleaned = html::removeComments(page);
  for (std::string_view tag : kRemovedElements) {
    cleaned = html::removeElements(cleaned, tag);
  }

  std::string_view body = cleaned;
  for (std::string_view tag : {std::string_view("article"), std::string_view("main")}) {
    if (auto content = html::findElement(cleaned, 0, tag, true, true)) {
      const std::string_view inner = std::string_view(cleaned).substr(
          content->innerBegin, content->innerEnd - content->innerBegin);
      if (detail::hasAtLeastCharacters(inner, kMinContentChars)) {
        body = inner;
        break;
      }
    }
  }

  const std::string text = decodeEntities(html::tagsToSpaces(html::blockTagsToNewlines(body)));
  std::string lines = collapseLines(text);
  if (limit <= 0) {
    lines.clear();
  } else {
    lines.resize(unicode::graphemePrefix(lines, static_cast<std::size_t>(limit)).size());
  }
  result.text = std::move(lines);
  return result;
}

}  // namespace kestrova::TextTools
