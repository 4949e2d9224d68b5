// Linear scans over HTML that find exactly what the case-insensitive patterns of the readable-text
// extraction would find (for instance "<script\b[^>]*>[\s\S]*?</script>"), but never look at a
// byte more than a fixed number of times. A regular expression engine retries every start
// position, which on a page with thousands of unclosed "<script" or "<!--" takes quadratic time;
// these scans stop as soon as no later start can match. Texts must be valid UTF-8.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova::html {

inline constexpr std::size_t npos = std::string_view::npos;

// A match: the whole of it, and the part the pattern captures.
struct Match {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::size_t innerBegin = 0;
  std::size_t innerEnd = 0;
};

// Matches the lower-case ASCII `word` at `pos` without regard to case (also accepting "ſ" for s
// and the Kelvin sign for k, as Unicode case folding does); the end of the match or npos.
std::size_t matchFolded(std::string_view text, std::size_t pos, std::string_view word);

// True when a regular expression's \b holds at `pos`, directly after a word character.
bool wordBoundaryAfterWord(std::string_view text, std::size_t pos);

// The first "<" + name + \b at or after `from` (the name already lower case); npos when none.
std::size_t findOpening(std::string_view text, std::size_t from, std::string_view name);

// The first "</" + name + ">" at or after `from`; npos when none.
std::size_t findClosing(std::string_view text, std::size_t from, std::string_view name);

// The first "<" + name + "[^>]*>([\s\S]*?)</" + name + ">" (a prefix match: "<titlefoo>" counts
// too, as the title pattern has no \b) when `boundary` is false; with \b after the name when it
// is true. Set `greedy` for "([\s\S]*)": the content then runs to the last closing tag.
std::optional<Match> findElement(std::string_view text, std::size_t from, std::string_view name,
                                 bool boundary, bool greedy);

// Replaces every match of "<" + name + "\b[^>]*>[\s\S]*?</" + name + ">" with a space.
std::string removeElements(std::string_view text, std::string_view name);

// Replaces every "<!--[\s\S]*?-->" with a space.
std::string removeComments(std::string_view text);

// Replaces every opening block tag, "<(br|p|div|li|h[1-6]|tr|section|article|blockquote)\b[^>]*>",
// with a line break.
std::string blockTagsToNewlines(std::string_view text);

// Replaces every remaining tag, "<[^>]+>", with a space.
std::string tagsToSpaces(std::string_view text);

}  // namespace kestrova::html
