// Keyword counts and top keywords on the page texts of a generated library, against a
// straightforward reference that treats every word on its own: the fast path (each spelling
// checked once) must give exactly the same keys, spellings, counts and order.
#include <algorithm>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "library_generator.h"

namespace kestrova {
namespace {

bool startsUppercase(std::string_view word) {
  std::size_t pos = 0;
  return !word.empty() && unicode::isUppercase(unicode::decodeAt(word, pos));
}

bool counts(const std::string& lower, std::int64_t minLength) {
  if (static_cast<std::int64_t>(unicode::graphemeCount(lower)) < minLength ||
      TextTools::isStopWord(lower)) {
    return false;
  }
  unicode::GraphemeWalker walker(lower);
  while (walker.next()) {
    if (!unicode::isNumber(walker.first())) {
      return true;
    }
  }
  return false;
}

template <typename Replaces>
std::vector<KeywordCount> reference(const std::vector<std::string>& texts, std::int64_t minLength,
                                    Replaces replaces) {
  std::unordered_map<std::string, std::int64_t> count;
  std::unordered_map<std::string, std::string> display;
  for (const std::string& text : texts) {
    std::unordered_set<std::string> seen;
    for (const std::string& word : TextTools::originalWords(text)) {
      const std::string lower = unicode::toLower(word);
      if (!counts(lower, minLength)) {
        continue;
      }
      const std::string key = TextTools::stem(lower);
      if (seen.insert(key).second) {
        ++count[key];
      }
      auto [it, inserted] = display.try_emplace(key, word);
      if (!inserted && replaces(it->second, word)) {
        it->second = word;
      }
    }
  }
  std::vector<std::pair<std::string, std::int64_t>> ranked(count.begin(), count.end());
  std::sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second > b.second : a.first < b.first;
  });
  std::vector<KeywordCount> out;
  for (const auto& [key, n] : ranked) {
    out.push_back({key, display.at(key), n});
  }
  return out;
}

TEST(KeywordsReference, KeywordCountsAndTopKeywordsMatchWordByWord) {
  std::vector<std::string> texts;
  for (const SavedTab& tab : bench::generateLibrary(150, 5).tabs) {
    texts.push_back(tab.title + " " + tab.text);
  }
  texts.push_back(
      "Käse KÄSE käse Kä 2024 2025 der Die und Zürich ZÜRICH 👩‍💻 Éclair éclair");
  for (std::int64_t minLength : {0, 3, 5}) {
    const auto expected = reference(texts, minLength, [](std::string_view s, std::string_view c) {
      return startsUppercase(c) &&
             (!startsUppercase(s) || unicode::graphemeCount(c) < unicode::graphemeCount(s));
    });
    const auto actual = TextTools::keywordCounts(texts, minLength);
    ASSERT_EQ(actual.size(), expected.size()) << "minLength " << minLength;
    ASSERT_GT(actual.size(), 100u);
    for (std::size_t i = 0; i < actual.size(); ++i) {
      EXPECT_EQ(actual[i].key, expected[i].key) << i;
      EXPECT_EQ(actual[i].display, expected[i].display) << i;
      EXPECT_EQ(actual[i].count, expected[i].count) << i;
    }
  }
  const auto top = reference(texts, 3, [](std::string_view s, std::string_view c) {
    return startsUppercase(c) && !startsUppercase(s);
  });
  std::vector<std::string> spellings;
  for (std::size_t i = 0; i < 40 && i < top.size(); ++i)
    spellings.push_back(top[i].display);
  EXPECT_EQ(TextTools::topKeywords(texts, 40, 3), spellings);
}

}  // namespace
}  // namespace kestrova
