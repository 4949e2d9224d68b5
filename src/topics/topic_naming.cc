#include "topic_naming.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include <kestrova/ai.h>
#include <kestrova/guided_types.h>
#include <kestrova/text_tools.h>
#include <kestrova/topic_clusterer.h>
#include <kestrova/unicode.h>

namespace kestrova::topics {
namespace {

// Page text beyond this adds little to a topic's keywords but time.
constexpr std::size_t kTextPrefix = 600;
constexpr std::int64_t kKeywordLength = 4;
constexpr std::string_view kUnnamed = "Unbenanntes Thema";

bool isNameClutter(char32_t cp) {
  return cp == U' ' || cp == U'"' || cp == U'\u00AB' || cp == U'\u00BB' || cp == U'\n' ||
         cp == U'.';
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) {
      out += separator;
    }
    out += parts[i];
  }
  return out;
}

struct ScoredKeyword {
  std::int64_t score = 0;
  std::string key;
  std::string display;
};

// Keywords that occur in at least two tabs, or in one tab's title or tags: a word of a title or
// a tag counts three times (once in the full text, twice more for the title).
std::vector<ScoredKeyword> scoredKeywords(std::span<const SavedTab* const> tabs) {
  std::vector<std::string> titleTexts;
  std::vector<std::string> fullTexts;
  titleTexts.reserve(tabs.size());
  fullTexts.reserve(tabs.size());
  for (const SavedTab* tab : tabs) {
    const std::string tags = joined(tab->tags, " ");
    titleTexts.push_back(tab->title + " " + tags);
    std::string full = tab->title;
    full += ' ';
    full += tags;
    full += ' ';
    full += tab->summary;
    full += ' ';
    full += unicode::graphemePrefix(tab->text, kTextPrefix);
    fullTexts.push_back(std::move(full));
  }

  std::unordered_map<std::string, std::int64_t> titleCounts;
  for (KeywordCount& entry : TextTools::keywordCounts(titleTexts, kKeywordLength)) {
    titleCounts.emplace(std::move(entry.key), entry.count);
  }
  std::vector<ScoredKeyword> scored;
  for (KeywordCount& entry : TextTools::keywordCounts(fullTexts, kKeywordLength)) {
    const auto title = titleCounts.find(entry.key);
    const std::int64_t score = entry.count + 2 * (title == titleCounts.end() ? 0 : title->second);
    if (score >= 2) {
      scored.push_back({score, std::move(entry.key), std::move(entry.display)});
    }
  }
  std::stable_sort(scored.begin(), scored.end(),
                   [](const ScoredKeyword& a, const ScoredKeyword& b) {
                     return a.score != b.score ? a.score > b.score : a.key < b.key;
                   });
  return scored;
}

// Up to two domains, the most frequent first, equal counts in text order. An empty domain counts
// like any other.
std::vector<std::string> leadingDomains(std::span<const SavedTab* const> tabs) {
  std::map<std::string, std::int64_t> counts;
  for (const SavedTab* tab : tabs) {
    ++counts[tab->domain];
  }
  std::vector<std::pair<std::string, std::int64_t>> ordered(counts.begin(), counts.end());
  // The map already lists domains in text order; a stable sort by count keeps that for ties.
  std::stable_sort(ordered.begin(), ordered.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  std::vector<std::string> domains;
  for (std::size_t i = 0; i < ordered.size() && i < 2; ++i) {
    domains.push_back(std::move(ordered[i].first));
  }
  return domains;
}

}  // namespace

std::string namePrompt(std::span<const SavedTab* const> tabs) {
  std::string prompt = "Diese gespeicherten Tabs gehören zu einem Thema. Wie heisst das Thema?\n";
  const std::size_t shown = std::min(tabs.size(), TopicClusterer::modelTabLimit);
  for (std::size_t i = 0; i < shown; ++i) {
    if (i > 0) {
      prompt += '\n';
    }
    const SavedTab& tab = *tabs[i];
    prompt += "- ";
    prompt += tab.title;
    prompt += " (";
    prompt += tab.domain;
    prompt += "): ";
    prompt += tab.summary;
  }
  return prompt;
}

std::optional<std::string> cleanModelName(std::string_view answer) {
  const std::string text = unicode::repairUtf8(answer);
  const std::string_view view = text;
  std::size_t begin = 0;
  while (begin < view.size()) {
    std::size_t next = begin;
    if (!isNameClutter(unicode::decodeAt(view, next))) {
      break;
    }
    begin = next;
  }
  std::size_t end = view.size();
  while (end > begin) {
    std::size_t previous = end;
    if (!isNameClutter(unicode::decodeBefore(view, previous))) {
      break;
    }
    end = previous;
  }
  std::string name(view.substr(begin, end - begin));
  if (name.empty() || unicode::graphemeCount(name) > TopicClusterer::maxModelNameLength) {
    return std::nullopt;
  }
  return name;
}

std::optional<std::string> nameWithModel(std::span<const SavedTab* const> tabs,
                                         std::stop_token stop, double seconds, Env& env) {
  const std::optional<Json> content =
      AIEngine::respond(namePrompt(tabs), TopicName::guidedType(), seconds, std::move(stop), env);
  if (!content) {
    return std::nullopt;
  }
  const std::optional<TopicName> generated = TopicName::fromGenerated(*content);
  if (!generated) {
    return std::nullopt;
  }
  return cleanModelName(generated->name);
}

std::string fallbackName(std::span<const SavedTab* const> tabs) {
  const std::vector<ScoredKeyword> keywords = scoredKeywords(tabs);
  if (keywords.size() >= 2) {
    return keywords[0].display + " & " + keywords[1].display;
  }
  const std::vector<std::string> domains = leadingDomains(tabs);
  std::string name;
  if (keywords.size() == 1) {
    name = keywords[0].display;
    if (!domains.empty()) {
      name += " · " + domains[0];
    }
  } else {
    name = joined(domains, " · ");
  }
  // Tabs without a domain and without a usable word still make a topic; it needs a name.
  return name.empty() ? std::string(kUnnamed) : name;
}

}  // namespace kestrova::topics

namespace kestrova {
namespace {

std::vector<const SavedTab*> pointersTo(const std::vector<SavedTab>& tabs) {
  std::vector<const SavedTab*> pointers;
  pointers.reserve(tabs.size());
  for (const SavedTab& tab : tabs) {
    pointers.push_back(&tab);
  }
  return pointers;
}

}  // namespace

std::optional<std::string> TopicClusterer::nameWithModel(const std::vector<SavedTab>& tabs,
                                                         std::stop_token stop, double seconds,
                                                         Env& env) {
  return topics::nameWithModel(pointersTo(tabs), std::move(stop), seconds, env);
}

std::string TopicClusterer::fallbackName(const std::vector<SavedTab>& tabs) {
  return topics::fallbackName(pointersTo(tabs));
}

}  // namespace kestrova
