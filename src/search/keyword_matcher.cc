#include "keyword_matcher.h"

#include <algorithm>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "word_scan.h"

namespace kestrova {
namespace {

constexpr float kTitle = 1.0f;
constexpr float kMeta = 0.8f;
constexpr float kAddress = 0.6f;
constexpr float kText = 0.4f;
constexpr float kTitleRoot = 0.7f;
constexpr float kMetaRoot = 0.5f;

// Only this many characters of a page text are read for keywords.
constexpr std::size_t kTextChars = 6000;

std::size_t pairIndex(std::string_view s) {
  return (static_cast<std::size_t>(static_cast<unsigned char>(s[0])) << 8) |
         static_cast<unsigned char>(s[1]);
}

void appendJoined(std::string& out, const std::vector<std::string>& parts) {
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) {
      out += ' ';
    }
    out += parts[i];
  }
}

// summary + " " + tags + " " + note, the text both meta rules share.
void appendMeta(std::string& out, const SavedTab& tab) {
  out += tab.summary;
  out += ' ';
  appendJoined(out, tab.tags);
  out += ' ';
  out += tab.note;
}

void lowerInto(std::string& out, std::string_view text) {
  if (unicode::isAscii(text)) {
    out.assign(text);
    for (char& c : out) {
      if (c >= 'A' && c <= 'Z') {
        c = static_cast<char>(c + ('a' - 'A'));
      }
    }
  } else {
    out = unicode::toLower(text);
  }
}

}  // namespace

KeywordMatcher::KeywordMatcher(const std::set<std::string>& terms)
    : terms_(terms.begin(), terms.end()), pairFilter_(65536 / 64, 0) {
  for (const std::string& term : terms_) {
    roots_.push_back(partialRoot(term));
    // Terms come from words of at least two characters, so they have at least two bytes; an
    // empty or one-byte term (handed in directly) can never equal a word's stem.
    if (term.size() >= 2) {
      const std::size_t pair = pairIndex(term);
      pairFilter_[pair / 64] |= std::uint64_t{1} << (pair % 64);
    }
  }
}

std::string KeywordMatcher::partialRoot(std::string_view term) {
  if (unicode::graphemeCount(term) < 5) {
    return "";
  }
  for (std::string_view ending : {"en", "er", "es", "e", "n", "s"}) {
    if (term.ends_with(ending)) {
      std::string_view root = term.substr(0, term.size() - ending.size());
      return unicode::graphemeCount(root) < 4 ? "" : std::string(root);
    }
  }
  return std::string(term);
}

std::ptrdiff_t KeywordMatcher::find(std::string_view stem) const {
  auto it = std::lower_bound(terms_.begin(), terms_.end(), stem,
                             [](const std::string& a, std::string_view b) { return a < b; });
  if (it == terms_.end() || *it != stem) {
    return -1;
  }
  return it - terms_.begin();
}

bool KeywordMatcher::stage(std::string_view text, std::size_t maxChars, float weight) {
  decidedNow_.clear();
  wordscan::forEachWord(
      text, maxChars,
      [&](wordscan::Word& word) {
        const std::string_view stem = word.stem();
        const std::size_t pair = pairIndex(stem);
        if ((pairFilter_[pair / 64] & (std::uint64_t{1} << (pair % 64))) == 0) {
          return true;
        }
        const std::ptrdiff_t j = find(stem);
        if (j < 0 || decided_[static_cast<std::size_t>(j)] != 0 ||
            TextTools::isStopWord(word.text())) {
          return true;
        }
        const auto at = static_cast<std::size_t>(j);
        decided_[at] = 1;
        weights_[at] = weight;
        decidedNow_.push_back(at);
        --open_;
        return open_ > 0;
      },
      [&] {
        for (std::size_t at : decidedNow_) {
          decided_[at] = 0;
          weights_[at] = 0.0f;
          ++open_;
        }
        decidedNow_.clear();
      });
  return open_ > 0;
}

float KeywordMatcher::partial(std::size_t j, const SavedTab& tab) {
  const std::string& root = roots_[j];
  if (root.empty()) {
    return 0.0f;
  }
  if (!haveLowerTitle_) {
    lowerInto(lowerTitle_, tab.title);
    haveLowerTitle_ = true;
  }
  if (lowerTitle_.find(root) != std::string::npos) {
    return kTitleRoot;
  }
  if (!haveLowerMeta_) {
    std::string meta;
    appendMeta(meta, tab);
    lowerInto(lowerMeta_, meta);
    haveLowerMeta_ = true;
  }
  return lowerMeta_.find(root) != std::string::npos ? kMetaRoot : 0.0f;
}

float KeywordMatcher::mean(const std::vector<float>& open) const {
  // The sum is exact in double (a few float weights), so it does not depend on the order of the
  // terms; it is rounded to float once.
  double sum = 0.0;
  for (std::size_t j = 0; j < terms_.size(); ++j) {
    sum += static_cast<double>(decided_[j] != 0 ? weights_[j] : open[j]);
  }
  return static_cast<float>(sum) / static_cast<float>(terms_.size());
}

float KeywordMatcher::score(const SavedTab& tab) {
  return *score(tab, [](float) { return false; });
}

std::optional<float> KeywordMatcher::score(const SavedTab& tab,
                                           const std::function<bool(float)>& skip) {
  if (terms_.empty()) {
    return 0.0f;
  }
  weights_.assign(terms_.size(), 0.0f);
  decided_.assign(terms_.size(), 0);
  open_ = terms_.size();
  haveLowerTitle_ = false;
  haveLowerMeta_ = false;

  thread_local std::string meta;
  bool open = stage(tab.title, wordscan::kNoLimit, kTitle);
  if (open) {
    meta.clear();
    appendMeta(meta, tab);
    meta += ' ';
    appendJoined(meta, tab.projectTags);
    open = stage(meta, wordscan::kNoLimit, kMeta);
  }
  if (open) {
    open = stage(tab.url, wordscan::kNoLimit, kAddress);
  }
  if (!open) {
    return mean({});
  }

  // What the open terms get unless the text holds them.
  std::vector<float> fallback(terms_.size(), 0.0f);
  std::vector<float> best(terms_.size(), 0.0f);
  for (std::size_t j = 0; j < terms_.size(); ++j) {
    if (decided_[j] == 0) {
      fallback[j] = partial(j, tab);
      best[j] = std::max(fallback[j], kText);
    }
  }
  if (skip(mean(best))) {
    return std::nullopt;
  }
  stage(tab.text, kTextChars, kText);
  return mean(fallback);
}

}  // namespace kestrova
