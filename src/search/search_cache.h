// What a SearchCache keeps per tab, and how stems are named in it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <kestrova/models.h>
#include <kestrova/search_index.h>

namespace kestrova {

// A stem as one number, so that a tab's stems are a sorted array of numbers. Stems are at most
// six characters: most fit into the number itself (up to seven bytes and their count); longer
// ones get a number of their own from a table. Two stems have the same key only when they are
// the same, so a search through keys finds exactly what a search through the words finds.
class StemKeys {
 public:
  static constexpr std::uint64_t kNone = 0;

  // The key of `stem`, made when it is new.
  std::uint64_t key(std::string_view stem);

  void clear() { long_.clear(); }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  std::unordered_map<std::string, std::uint64_t, Hash, std::equal_to<>> long_;
};

// Which field of a tab holds a stem first, in the order the keyword score asks them.
enum class Field : std::uint8_t { title, meta, address };

// What searches derived from one tab.
struct TabMemo {
  Uuid id;  // the tab it was made for; an entry of another tab is made anew
  bool haveFields = false;
  bool haveText = false;
  bool haveLower = false;
  bool haveVector = false;
  // Stems of title, meta data and address, sorted, each with the first field that holds it.
  std::vector<std::uint64_t> fieldKeys;
  std::vector<Field> fieldOf;
  // Stems of the first characters of the page text that the keyword score reads, sorted.
  std::vector<std::uint64_t> textKeys;
  // Title and meta data in lower case, for the partial rule.
  std::string lowerTitle;
  std::string lowerMeta;
  // The tab's vector: the document's cached one, or one computed (and kept here) when the
  // document has none of the embedder's kind.
  const std::vector<float>* cached = nullptr;
  std::vector<float> computed;

  const std::vector<float>& vector() const { return cached != nullptr ? *cached : computed; }
};

struct SearchCache::State {
  std::string kind;  // the embedder kind of the vectors kept
  StemKeys keys;
  std::vector<TabMemo> tabs;

  // The memo of tab `index` of `data`, made empty when it belonged to another tab.
  TabMemo& memo(const LibraryData& data, std::size_t index);
};

// Fills the field and text stems of `memo` from `tab`.
void fillFields(TabMemo& memo, const SavedTab& tab, StemKeys& keys);
void fillText(TabMemo& memo, const SavedTab& tab, StemKeys& keys);
// Fills the lower-case title and meta data of `memo`.
void fillLower(TabMemo& memo, const SavedTab& tab);

}  // namespace kestrova
