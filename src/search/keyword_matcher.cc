#include "keyword_matcher.h"

#include <algorithm>

#include <kestrova/text_tools.h>
#include <kestrova/unicode.h>

#include "search_cache.h"
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

// The meta data stage's text: summary, tags and note, then the project tags.
void appendMetaAndProjects(std::string& out, const SavedTab& tab) {
  appendMeta(out, tab);
  out += ' ';
  appendJoined(out, tab.projectTags);
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

float KeywordMatcher::partial(std::size_t j, const SavedTab& tab, TabMemo* memo) {
  const std::string& root = roots_[j];
  if (root.empty()) {
    return 0.0f;
  }
  if (memo != nullptr) {
    if (!memo->haveLower) {
      fillLower(*memo, tab);
    }
    if (memo->lowerTitle.find(root) != std::string::npos) {
      return kTitleRoot;
    }
    return memo->lowerMeta.find(root) != std::string::npos ? kMetaRoot : 0.0f;
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

void KeywordMatcher::begin() {
  weights_.assign(terms_.size(), 0.0f);
  decided_.assign(terms_.size(), 0);
  open_ = terms_.size();
  haveLowerTitle_ = false;
  haveLowerMeta_ = false;
}

void KeywordMatcher::fallbacks(const SavedTab& tab, TabMemo* memo) {
  fallback_.assign(terms_.size(), 0.0f);
  best_.assign(terms_.size(), 0.0f);
  for (std::size_t j = 0; j < terms_.size(); ++j) {
    if (decided_[j] == 0) {
      fallback_[j] = partial(j, tab, memo);
      best_[j] = std::max(fallback_[j], kText);
    }
  }
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
  begin();
  thread_local std::string meta;
  bool open = stage(tab.title, wordscan::kNoLimit, kTitle);
  if (open) {
    meta.clear();
    appendMetaAndProjects(meta, tab);
    open = stage(meta, wordscan::kNoLimit, kMeta);
  }
  if (open) {
    open = stage(tab.url, wordscan::kNoLimit, kAddress);
  }
  if (!open) {
    return mean({});
  }
  fallbacks(tab, nullptr);
  if (skip(mean(best_))) {
    return std::nullopt;
  }
  stage(tab.text, kTextChars, kText);
  return mean(fallback_);
}

std::optional<float> KeywordMatcher::score(const SavedTab& tab, TabMemo& memo, StemKeys& keys,
                                           const std::function<bool(float)>& skip) {
  if (terms_.empty()) {
    return 0.0f;
  }
  if (termKeys_.empty()) {
    // A term shorter than two bytes comes from no word (words have two characters at least).
    for (const std::string& term : terms_) {
      termKeys_.push_back(term.size() >= 2 ? keys.key(term) : StemKeys::kNone);
    }
  }
  begin();
  if (!memo.haveFields) {
    fillFields(memo, tab, keys);
  }
  static constexpr float kFieldWeight[] = {kTitle, kMeta, kAddress};
  for (std::size_t j = 0; j < terms_.size(); ++j) {
    const auto& fieldKeys = memo.fieldKeys;
    auto it = std::lower_bound(fieldKeys.begin(), fieldKeys.end(), termKeys_[j]);
    if (termKeys_[j] != StemKeys::kNone && it != fieldKeys.end() && *it == termKeys_[j]) {
      decided_[j] = 1;
      weights_[j] = kFieldWeight[static_cast<std::size_t>(memo.fieldOf[it - fieldKeys.begin()])];
      --open_;
    }
  }
  if (open_ == 0) {
    return mean({});
  }
  fallbacks(tab, &memo);
  if (skip(mean(best_))) {
    return std::nullopt;
  }
  if (!memo.haveText) {
    fillText(memo, tab, keys);
  }
  for (std::size_t j = 0; j < terms_.size(); ++j) {
    if (decided_[j] == 0 && termKeys_[j] != StemKeys::kNone &&
        std::binary_search(memo.textKeys.begin(), memo.textKeys.end(), termKeys_[j])) {
      decided_[j] = 1;
      weights_[j] = kText;
    }
  }
  return mean(fallback_);
}

namespace {

// The stems of the words of `text` that are not stop words, appended to `out` with `field`.
void collectStems(std::string_view text, std::size_t maxChars, StemKeys& keys,
                  std::vector<std::uint64_t>& out, std::vector<Field>* fields, Field field) {
  const std::size_t start = out.size();
  wordscan::forEachWord(
      text, maxChars,
      [&](wordscan::Word& word) {
        const std::string_view stem = word.stem();
        if (!TextTools::isStopWord(word.text())) {
          out.push_back(keys.key(stem));
          if (fields != nullptr) {
            fields->push_back(field);
          }
        }
        return true;
      },
      [&] {
        out.resize(start);
        if (fields != nullptr) {
          fields->resize(start);
        }
      });
}

}  // namespace

void fillFields(TabMemo& memo, const SavedTab& tab, StemKeys& keys) {
  std::vector<std::uint64_t> found;
  std::vector<Field> fields;
  std::string meta;
  appendMetaAndProjects(meta, tab);
  collectStems(tab.title, wordscan::kNoLimit, keys, found, &fields, Field::title);
  collectStems(meta, wordscan::kNoLimit, keys, found, &fields, Field::meta);
  collectStems(tab.url, wordscan::kNoLimit, keys, found, &fields, Field::address);
  // Sorted by stem and then by field, so that the first of equal stems is the field asked first.
  std::vector<std::size_t> order(found.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    order[i] = i;
  }
  std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return found[a] != found[b] ? found[a] < found[b] : fields[a] < fields[b];
  });
  memo.fieldKeys.clear();
  memo.fieldOf.clear();
  for (std::size_t i : order) {
    if (memo.fieldKeys.empty() || memo.fieldKeys.back() != found[i]) {
      memo.fieldKeys.push_back(found[i]);
      memo.fieldOf.push_back(fields[i]);
    }
  }
  memo.fieldKeys.shrink_to_fit();
  memo.fieldOf.shrink_to_fit();
  memo.haveFields = true;
}

void fillText(TabMemo& memo, const SavedTab& tab, StemKeys& keys) {
  memo.textKeys.clear();
  collectStems(tab.text, kTextChars, keys, memo.textKeys, nullptr, Field::title);
  std::sort(memo.textKeys.begin(), memo.textKeys.end());
  memo.textKeys.erase(std::unique(memo.textKeys.begin(), memo.textKeys.end()), memo.textKeys.end());
  memo.textKeys.shrink_to_fit();
  memo.haveText = true;
}

void fillLower(TabMemo& memo, const SavedTab& tab) {
  lowerInto(memo.lowerTitle, tab.title);
  std::string meta;
  appendMeta(meta, tab);
  lowerInto(memo.lowerMeta, meta);
  memo.lowerTitle.shrink_to_fit();
  memo.lowerMeta.shrink_to_fit();
  memo.haveLower = true;
}

}  // namespace kestrova
