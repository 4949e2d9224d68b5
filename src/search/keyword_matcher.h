// KeywordMatcher: the keyword side of search for one query, prepared once and applied to every tab.
// It decides each query term by the first field that holds it (title, then summary/tags/note/
// projects, then address, then text, then the partial root rule) and reads a field only while
// some term is still undecided, so the long page text is tokenised only for tabs where title,
// meta data and address left a term open. The result is the same as building every term set.
//
// Not thread-safe: it keeps scratch state between calls. Make one per search.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <kestrova/models.h>

namespace kestrova {

class StemKeys;
struct TabMemo;

class KeywordMatcher {
 public:
  explicit KeywordMatcher(const std::set<std::string>& terms);

  bool empty() const { return terms_.empty(); }

  // The keyword score of `tab`, in 0...1; 0 without terms.
  float score(const SavedTab& tab);

  // As score(), but before the page text is read, `skip` is asked with an upper bound of the
  // score; when it says true the text is not read and no value is returned. The bound is never
  // below the true score, so a caller can use it to leave out tabs that cannot matter.
  std::optional<float> score(const SavedTab& tab, const std::function<bool(float)>& skip);

  // As score(tab, skip), with the stems of the tab's fields looked up in `memo` (filled on first
  // use) instead of read from the fields: the same result, without reading any text again once
  // the memo is full. `keys` names the stems of every memo it is used with.
  std::optional<float> score(const SavedTab& tab, TabMemo& memo, StemKeys& keys,
                             const std::function<bool(float)>& skip);

  // The root the partial rule looks for, "" when the term gets nothing from that rule: terms of
  // fewer than 5 characters, and roots of fewer than 4 after an ending was dropped.
  static std::string partialRoot(std::string_view term);

 private:
  // Decides the open terms found among the words of `text` with `weight`; false when the stage
  // left no term open.
  bool stage(std::string_view text, std::size_t maxChars, float weight);
  // The index of `stem` among the terms, or -1.
  std::ptrdiff_t find(std::string_view stem) const;
  // The partial-rule weight of open term `j` (from `memo` when there is one).
  float partial(std::size_t j, const SavedTab& tab, TabMemo* memo);
  // The start of every score(): all terms open.
  void begin();
  // What the open terms get unless the text holds them, and the best they can get, into
  // fallback_ and best_.
  void fallbacks(const SavedTab& tab, TabMemo* memo);
  // Mean over the terms of `weights_`, with the open terms counted as `open[j]`.
  float mean(const std::vector<float>& open) const;

  std::vector<std::string> terms_;  // sorted
  std::vector<std::string> roots_;
  std::vector<std::uint64_t> pairFilter_;  // bit per first two bytes of a term
  std::vector<std::uint64_t> termKeys_;    // for the memo path, made on its first use

  // Per-tab scratch.
  std::vector<float> weights_;
  std::vector<char> decided_;
  std::vector<std::size_t> decidedNow_;
  std::vector<float> fallback_;
  std::vector<float> best_;
  std::size_t open_ = 0;
  std::string lowerTitle_;
  std::string lowerMeta_;
  bool haveLowerTitle_ = false;
  bool haveLowerMeta_ = false;
};

}  // namespace kestrova
