// TextTools: the text functions every text-handling part of Kestrova shares. They split text into
// words, drop stop words, reduce words to a crude stem, pick keywords from a set of texts, cut text
// at a word boundary, find the first usable sentence of a page, decode HTML entities and turn raw
// HTML into a title and plain readable text.
//
// Every function is pure and deterministic, never throws and may be called from any thread at the
// same time; the only shared state is the stop-word set, built once on first use and read-only
// afterwards. Texts are UTF-8; an invalid byte reads as U+FFFD. A "character" is a user-perceived
// character (extended grapheme cluster): all lengths and cuts count those, and a cut never splits
// one. Letters, numbers, upper case and white space follow the Unicode properties Alphabetic,
// Numeric_Type, Uppercase and White_Space of a character's first code point.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <vector>

namespace kestrova {

// One keyword of a set of texts: `key` is the stemmed lower-case form, `display` the spelling to
// show, `count` the number of texts that contain the key.
struct KeywordCount {
  std::string key;
  std::string display;
  std::int64_t count = 0;

  bool operator==(const KeywordCount&) const = default;
};

// The readable part of a web page.
struct ReadableText {
  std::string title;
  std::string text;

  bool operator==(const ReadableText&) const = default;
};

namespace TextTools {

// Hashing that lets the stop-word set be searched with a std::string_view.
struct StringHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
using StopWordSet = std::unordered_set<std::string, StringHash, std::equal_to<>>;

// The fixed German and English stop words, web noise and the words of Kestrova's own questions,
// all lower case. Built once, thread-safe, never changed.
const StopWordSet& stopWords();

// True when the already lower-cased `word` is a stop word. Faster than searching stopWords().
bool isStopWord(std::string_view word);

// Calls `visit` with each word of `text` in order, exactly the words that words() returns. The
// view passed to `visit` is valid only during the call. Allocates nothing for lower-case ASCII
// text; this is the form to use for long texts read over and over.
void forEachWord(std::string_view text, bool keepStopWords,
                 void (*visit)(void* context, std::string_view word), void* context);

template <typename Visitor>
void forEachWord(std::string_view text, bool keepStopWords, Visitor&& visit) {
  using V = std::remove_reference_t<Visitor>;
  forEachWord(
      text, keepStopWords,
      [](void* context, std::string_view word) { (*static_cast<V*>(context))(word); },
      const_cast<void*>(static_cast<const void*>(&visit)));
}

// The words of `text`, lower-cased: maximal runs of letters and numbers of at least 2 characters,
// in order, duplicates kept. Every other character separates words ("E-Mail" gives "mail"; the
// "e" is too short). Without `keepStopWords` the stop words are dropped. No stemming.
std::vector<std::string> words(std::string_view text, bool keepStopWords);

// The words of `text` in their original case, for the keyword functions: runs of letters,
// numbers and hyphens, with leading and trailing hyphens trimmed; no minimum length.
std::vector<std::string> originalWords(std::string_view text);

// The crude stem: a word of 7 or more characters is cut to its first 6, a shorter one returned
// unchanged. Case is kept ("Projekte" gives "Projek").
std::string stem(std::string_view word);

// The `limit` most frequent keywords of `texts`, by the number of texts containing them (ties by
// key), in their display spelling: the first spelling met, unless a later one starts with an
// upper-case letter and the stored one does not. Stop words, pure numbers and words shorter than
// `minLength` characters are skipped; words with the same stem count as one keyword.
std::vector<std::string> topKeywords(const std::vector<std::string>& texts, std::int64_t limit,
                                     std::int64_t minLength);

// Every keyword of `texts` with its count, most frequent first (ties by key). Chosen like
// topKeywords, except that the display spelling prefers a capitalised form and, among
// capitalised forms, the shortest one met first.
std::vector<KeywordCount> keywordCounts(const std::vector<std::string>& texts,
                                        std::int64_t minLength);

// `text` unchanged when it has at most `n` characters; otherwise its first n - 1 characters, cut
// back to the last space when that space lies beyond the middle, followed by "…". The result never
// has more than `n` characters (a non-positive `n` gives "").
std::string truncate(std::string_view text, std::int64_t n);

// The first sentence of `text` (among its first 41) with at least 40 characters and 6 words that
// mentions none of cookies, JavaScript, sign-in or newsletter prompts, truncated to `maxLength`.
// No value when none qualifies.
std::optional<std::string> firstSentence(std::string_view text, std::int64_t maxLength);

// Decodes one level of HTML character references: the 30 named entities Kestrova knows
// ("&szlig;" gives "ss", "&nbsp;" an ordinary space), and decimal and hexadecimal references to
// Unicode scalars. A reference whose ";" lies more than 12 characters after the "&", an unknown
// name or an invalid number stays as it is.
std::string decodeEntities(std::string_view text);

// The title and the readable text of a web page: scripts, styles, navigation, headers, footers,
// forms and the like removed; the `article` or `main` element when it holds more than 400
// characters; block elements as line breaks; entities decoded; white space collapsed; lines of
// one character dropped; cut to `limit` characters. Work is linear in the page size, so hostile
// pages (unclosed comments or scripts, missing end tags) cannot stall it.
ReadableText readableText(std::string_view html, std::int64_t limit);

}  // namespace TextTools
}  // namespace kestrova
