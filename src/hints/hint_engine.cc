#include <algorithm>
#include <cstddef>
#include <deque>
#include <optional>
#include <unordered_set>

#include <kestrova/hint_engine.h>
#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

namespace kestrova {
namespace {

constexpr std::int64_t kQueryKeywords = 40;
constexpr std::int64_t kKeywordMinLength = 4;
constexpr std::size_t kQueryTextChars = 800;

struct Ranked {
  std::size_t tab;  // index into LibraryData::tabs
  float score;
};

}  // namespace

std::string HintEngine::query(const ProjectText& project) {
  std::string text = project.name;
  text += ' ';
  const std::vector<std::string> keywords =
      TextTools::topKeywords({project.text}, kQueryKeywords, kKeywordMinLength);
  for (std::size_t i = 0; i < keywords.size(); ++i) {
    if (i > 0) {
      text += ' ';
    }
    text += keywords[i];
  }
  text += ' ';
  text += unicode::graphemePrefix(project.text, kQueryTextChars);
  return text;
}

std::string HintEngine::reason(const ProjectText& project, const SavedTab& tab) {
  return "passt zu deinem Projekt " + project.name + ": " +
         (tab.summary.empty() ? tab.title : tab.summary);
}

std::vector<Hint> HintEngine::generateHints(LibraryData& data,
                                            const std::vector<ProjectText>& projects,
                                            std::int64_t max) const {
  if (max < 1 || projects.empty()) {
    return {};
  }
  embedder_->ensureEmbeddings(data);

  std::unordered_set<Uuid> alreadyHinted;
  for (const Hint& hint : data.hints) {
    alreadyHinted.insert(hint.tabId);
  }
  // The candidates' vectors, taken from the cache; a tab without one (which ensureEmbeddings
  // normally prevents) is embedded once for the whole run, not once per project.
  std::vector<std::size_t> candidates;
  std::deque<std::vector<float>> ownVectors;  // stable addresses
  std::vector<const std::vector<float>*> vectors;
  for (std::size_t i = 0; i < data.tabs.size(); ++i) {
    const SavedTab& tab = data.tabs[i];
    if (tab.readAt || alreadyHinted.contains(tab.id)) {
      continue;
    }
    candidates.push_back(i);
  }
  for (std::size_t i : candidates) {
    auto cached = data.embeddings.find(data.tabs[i].id.string());
    if (cached != data.embeddings.end()) {
      vectors.push_back(&cached->second);
    } else {
      ownVectors.push_back(embedder_->vector(data.tabs[i].searchableText()));
      vectors.push_back(&ownVectors.back());
    }
  }

  std::vector<std::vector<Ranked>> rankings;
  rankings.reserve(projects.size());
  for (const ProjectText& project : projects) {
    const std::vector<float> projectVector = embedder_->vector(query(project));
    std::vector<Ranked> ranked;
    for (std::size_t c = 0; c < candidates.size(); ++c) {
      const float score = Embedder::cosine(projectVector, *vectors[c]);
      if (score >= threshold) {
        ranked.push_back({candidates[c], score});
      }
    }
    // Stable, so that equal scores keep the library's order.
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const Ranked& a, const Ranked& b) { return a.score > b.score; });
    rankings.push_back(std::move(ranked));
  }

  std::vector<Hint> made;
  std::unordered_set<std::size_t> chosen;
  const Date createdAt = now();
  for (std::size_t rank = 0;; ++rank) {
    bool madeOne = false;
    for (std::size_t p = 0; p < projects.size(); ++p) {
      if (rankings[p].size() <= rank) {
        continue;
      }
      // Only this project's entry at this rank counts: if another project took that tab, this
      // project gives nothing in this round rather than reaching further down its list.
      const std::size_t tabIndex = rankings[p][rank].tab;
      if (!chosen.insert(tabIndex).second) {
        continue;
      }
      const SavedTab& tab = data.tabs[tabIndex];
      made.push_back({Uuid::random(), tab.id, reason(projects[p], tab), createdAt, false});
      madeOne = true;
      if (static_cast<std::int64_t>(made.size()) >= max) {
        break;
      }
    }
    // A round without any new hint ends the run, even if deeper ranks remain.
    if (!madeOne || static_cast<std::int64_t>(made.size()) >= max) {
      break;
    }
  }

  data.hints.insert(data.hints.end(), made.begin(), made.end());
  return made;
}

}  // namespace kestrova
