// Cutting text to a length and finding the first sentence a summary can stand on.
#include <memory>

#include <unicode/brkiter.h>
#include <unicode/utext.h>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "text_tools_internal.h"

namespace kestrova::TextTools {
namespace {

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";  // …

// Sentences that talk about the page instead of its content.
constexpr std::string_view kBoilerplate[] = {"cookie", "javascript", "anmelden",   "sign in",
                                             "log in", "newsletter", "akzeptieren"};

constexpr std::size_t kMaxSentences = 41;
constexpr std::size_t kMinSentenceChars = 40;
constexpr std::size_t kMinSentenceWords = 6;

// Words here are the pieces between single spaces, empty pieces not counted.
bool hasAtLeastWords(std::string_view text, std::size_t n) {
  std::size_t count = 0;
  std::size_t pos = 0;
  while (pos < text.size() && count < n) {
    const std::size_t space = text.find(' ', pos);
    const std::size_t end = space == std::string_view::npos ? text.size() : space;
    if (end > pos) {
      ++count;
    }
    pos = end + 1;
  }
  return count >= n;
}

bool isBoilerplate(std::string_view sentence) {
  const std::string lower = unicode::toLower(sentence);
  for (std::string_view phrase : kBoilerplate) {
    if (lower.find(phrase) != std::string::npos) {
      return true;
    }
  }
  return false;
}

// A sentence break iterator per thread; creating one costs far more than using it.
icu::BreakIterator* sentenceIterator() {
  thread_local std::unique_ptr<icu::BreakIterator> iterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> it(
        icu::BreakIterator::createSentenceInstance(icu::Locale::getRoot(), status));
    return U_SUCCESS(status) ? std::move(it) : nullptr;
  }();
  return iterator.get();
}

// Up to `limit` non-empty, trimmed sentences of `text`, in order.
std::vector<std::string_view> sentences(std::string_view text, std::size_t limit) {
  std::vector<std::string_view> result;
  icu::BreakIterator* it = sentenceIterator();
  UErrorCode status = U_ZERO_ERROR;
  UText* ut = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
  if (it == nullptr || U_FAILURE(status)) {
    utext_close(ut);
    // Without the platform's segmentation the text counts as one sentence.
    const std::string_view whole = unicode::trim(text);
    if (!whole.empty()) {
      result.push_back(whole);
    }
    return result;
  }
  it->setText(ut, status);
  if (U_SUCCESS(status)) {
    int32_t begin = it->first();
    for (int32_t end = it->next(); end != icu::BreakIterator::DONE && result.size() < limit;
         begin = end, end = it->next()) {
      const std::string_view sentence = unicode::trim(
          text.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin)));
      if (!sentence.empty()) {
        result.push_back(sentence);
      }
    }
  }
  // Leave the iterator on an empty text so it keeps no pointer into `text`.
  it->setText(icu::UnicodeString());
  utext_close(ut);
  return result;
}

}  // namespace

std::string truncate(std::string_view text, std::int64_t n) {
  if (n <= 0) {
    return {};
  }
  std::string repaired;
  if (!unicode::isValidUtf8(text)) {
    repaired = unicode::repairUtf8(text);
    text = repaired;
  }
  const auto limit = static_cast<std::size_t>(n);
  if (text.size() <= limit) {
    // A character has at least one byte, so the text fits.
    return std::string(text);
  }
  unicode::GraphemeWalker walker(text);
  std::size_t count = 0;
  std::size_t cut = 0;        // end of the first n - 1 characters
  std::size_t lastSpace = 0;  // byte offset of the last space among them
  std::size_t charsBeforeSpace = 0;
  bool hasSpace = false;
  while (count <= limit && walker.next()) {
    if (count < limit - 1) {
      if (walker.cluster() == " ") {
        hasSpace = true;
        lastSpace = walker.begin();
        charsBeforeSpace = count;
      }
      cut = walker.end();
    }
    ++count;
  }
  if (count <= limit) {
    return std::string(text);
  }
  std::string result(text.substr(0, hasSpace && charsBeforeSpace > limit / 2 ? lastSpace : cut));
  result.append(kEllipsis);
  return result;
}

std::optional<std::string> firstSentence(std::string_view text, std::int64_t maxLength) {
  std::string flat = unicode::repairUtf8(text);
  for (char& c : flat) {
    if (c == '\n') {
      c = ' ';
    }
  }
  for (std::string_view sentence : sentences(flat, kMaxSentences)) {
    if (detail::hasAtLeastCharacters(sentence, kMinSentenceChars) &&
        hasAtLeastWords(sentence, kMinSentenceWords) && !isBoilerplate(sentence)) {
      return truncate(sentence, maxLength);
    }
  }
  return std::nullopt;
}

}  // namespace kestrova::TextTools
