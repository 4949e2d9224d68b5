// Keywords of a set of texts: stems counted once per text, shown in their best spelling.
#include <algorithm>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova::TextTools {
namespace {

// Tells whether a stored display spelling gives way to a newly met one.
using DisplayRule = bool (*)(std::string_view stored, std::string_view candidate);

bool startsUppercase(std::string_view word) {
  if (word.empty()) {
    return false;
  }
  std::size_t pos = 0;
  return unicode::isUppercase(unicode::decodeAt(word, pos));
}

bool hasFewerCharacters(std::string_view word, std::int64_t n) {
  unicode::GraphemeWalker walker(word);
  std::int64_t count = 0;
  while (count < n && walker.next()) {
    ++count;
  }
  return count < n;
}

bool allNumbers(std::string_view word) {
  unicode::GraphemeWalker walker(word);
  while (walker.next()) {
    if (!unicode::isNumber(walker.first())) {
      return false;
    }
  }
  return true;
}

// Counts the stems of `texts` (once per text) and picks a display spelling for each. Keys come
// out sorted by count descending, then by key.
struct KeywordTally {
  std::unordered_map<std::string, std::int64_t> counts;
  std::unordered_map<std::string, std::string> display;

  std::vector<std::pair<std::string, std::int64_t>> ranked() const {
    std::vector<std::pair<std::string, std::int64_t>> pairs(counts.begin(), counts.end());
    std::stable_sort(pairs.begin(), pairs.end(), [](const auto& a, const auto& b) {
      return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    return pairs;
  }
};

KeywordTally tally(const std::vector<std::string>& texts, std::int64_t minLength,
                   DisplayRule replaces) {
  KeywordTally result;
  // Texts share most of their words: each distinct spelling is lower-cased, checked and stemmed
  // once. No value means the word does not count (too short, a stop word, only numbers).
  std::unordered_map<std::string, std::optional<std::string>> keyOf;
  for (const std::string& text : texts) {
    std::unordered_set<std::string> seen;
    for (std::string& word : originalWords(text)) {
      auto known = keyOf.find(word);
      if (known == keyOf.end()) {
        std::optional<std::string> key;
        const std::string lower = unicode::toLower(word);
        if (!hasFewerCharacters(lower, minLength) && !isStopWord(lower) && !allNumbers(lower)) {
          key = stem(lower);
        }
        known = keyOf.emplace(word, std::move(key)).first;
      }
      if (!known->second) {
        continue;
      }
      const std::string& key = *known->second;
      if (seen.insert(key).second) {
        ++result.counts[key];
      }
      auto [it, inserted] = result.display.try_emplace(key, word);
      // The same spelling again never replaces itself.
      if (!inserted && it->second != word && replaces(it->second, word)) {
        it->second = std::move(word);
      }
    }
  }
  return result;
}

}  // namespace

std::vector<std::string> topKeywords(const std::vector<std::string>& texts, std::int64_t limit,
                                     std::int64_t minLength) {
  if (limit <= 0) {
    return {};
  }
  const KeywordTally counted =
      tally(texts, minLength, [](std::string_view stored, std::string_view candidate) {
        return startsUppercase(candidate) && !startsUppercase(stored);
      });
  std::vector<std::string> result;
  for (const auto& [key, count] : counted.ranked()) {
    if (result.size() >= static_cast<std::size_t>(limit)) {
      break;
    }
    auto it = counted.display.find(key);
    if (it != counted.display.end()) {
      result.push_back(it->second);
    }
  }
  return result;
}

std::vector<KeywordCount> keywordCounts(const std::vector<std::string>& texts,
                                        std::int64_t minLength) {
  const KeywordTally counted =
      tally(texts, minLength, [](std::string_view stored, std::string_view candidate) {
        return startsUppercase(candidate) &&
               (!startsUppercase(stored) ||
                unicode::graphemeCount(candidate) < unicode::graphemeCount(stored));
      });
  std::vector<KeywordCount> result;
  for (auto& [key, count] : counted.ranked()) {
    auto it = counted.display.find(key);
    result.push_back({key, it != counted.display.end() ? it->second : key, count});
  }
  return result;
}

}  // namespace kestrova::TextTools
