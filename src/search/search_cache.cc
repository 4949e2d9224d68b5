#include "search_cache.h"

#include <cstring>

namespace kestrova {

std::uint64_t StemKeys::key(std::string_view stem) {
  // Short stems carry their bytes and their length (1 to 7) in the top byte; numbers of the table
  // stay below 2^56, so the two kinds never meet.
  if (!stem.empty() && stem.size() <= 7) {
    std::uint64_t packed = 0;
    std::memcpy(&packed, stem.data(), stem.size());
    return (static_cast<std::uint64_t>(stem.size()) << 56) | packed;
  }
  auto it = long_.find(stem);
  if (it == long_.end()) {
    const std::uint64_t next = long_.size() + 1;
    it = long_.emplace(std::string(stem), next).first;
  }
  return it->second;
}

TabMemo& SearchCache::State::memo(const LibraryData& data, std::size_t index) {
  if (tabs.size() != data.tabs.size()) {
    tabs.resize(data.tabs.size());
  }
  TabMemo& memo = tabs[index];
  if (memo.id != data.tabs[index].id) {
    memo = TabMemo();
    memo.id = data.tabs[index].id;
  }
  return memo;
}

SearchCache::SearchCache() : state_(std::make_unique<State>()) {}

SearchCache::~SearchCache() = default;

void SearchCache::clear() {
  state_ = std::make_unique<State>();
}

void SearchCache::forgetTab(std::size_t index) {
  if (index < state_->tabs.size()) {
    state_->tabs[index] = TabMemo();
  }
}

}  // namespace kestrova
