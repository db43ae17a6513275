// Dictionaries of entries that come in any order.

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "platform/value/Blocks.h"
#include "platform/value/Value.h"

namespace platform {

namespace {

/// Where an entry stands among others: sorting moves these instead of entries, and the first bytes of the
/// keys decide most comparisons.
struct Rank {
  uint64_t prefix;  // the key's first eight bytes as a number that orders like them
  uint32_t index;
};

uint64_t prefixOf(std::string_view key) {
  const auto load = [](const char* at, auto word) {
    std::memcpy(&word, at, sizeof word);
    if constexpr (std::endian::native == std::endian::big) return word;
    return sizeof word == 8 ? __builtin_bswap64(word) : __builtin_bswap32(static_cast<uint32_t>(word));
  };
  const char* const begin = key.data();
  const size_t size = key.size();
  if (size >= 8) return load(begin, uint64_t{});
  if (size >= 4) {
    const uint64_t rest = load(begin + size - 4, uint32_t{});
    return load(begin, uint32_t{}) << 32 | (rest << (64 - 8 * size) & UINT32_MAX);
  }
  uint64_t word = 0;
  for (size_t i = 0; i < size; ++i) word |= uint64_t{static_cast<unsigned char>(begin[i])} << (56 - 8 * i);
  return word;
}

/// Ranks of entries, and their order.
class Ranking {
 public:
  explicit Ranking(std::span<const Dictionary::Entry> entries) : entries_(entries) {
    if (entries.size() > few_.size()) {
      many_.resize(entries.size());
      ranks_ = many_;
    } else {
      ranks_ = std::span(few_).first(entries.size());
    }
    for (size_t i = 0; i < entries.size(); ++i)
      ranks_[i] = {prefixOf(entries[i].key.view()), static_cast<uint32_t>(i)};
  }
  Ranking(const Ranking&) = delete;
  Ranking& operator=(const Ranking&) = delete;

  std::span<const Rank> ranks() const { return ranks_; }

  bool hasSameKey(const Rank& a, const Rank& b) const {
    return a.prefix == b.prefix && entries_[a.index].key == entries_[b.index].key;
  }

  /// Whether each key is less than the next, as in what we write ourselves.
  bool isStrictlySorted() const {
    for (size_t i = 1; i < ranks_.size(); ++i) {
      const Rank &a = ranks_[i - 1], &b = ranks_[i];
      if (a.prefix > b.prefix || (a.prefix == b.prefix && keyOf(a) >= keyOf(b))) return false;
    }
    return true;
  }

  /// Sorts by key, equal keys by their places.
  void sort() {
    const auto isLess = [this](const Rank& a, const Rank& b) {
      if (a.prefix != b.prefix) return a.prefix < b.prefix;
      const auto order = keyOf(a) <=> keyOf(b);
      return order != 0 ? order < 0 : a.index < b.index;
    };
    constexpr size_t kFew = 32;
    if (ranks_.size() > kFew) return std::sort(ranks_.begin(), ranks_.end(), isLess);
    for (size_t i = 1; i < ranks_.size(); ++i) {
      const Rank rank = ranks_[i];
      size_t to = i;
      for (; to > 0 && isLess(rank, ranks_[to - 1]); --to) ranks_[to] = ranks_[to - 1];
      ranks_[to] = rank;
    }
  }

 private:
  std::string_view keyOf(const Rank& rank) const { return entries_[rank.index].key.view(); }

  std::span<const Dictionary::Entry> entries_;
  std::span<Rank> ranks_;
  std::array<Rank, 64> few_;
  std::vector<Rank> many_;
};

}  // namespace

std::optional<Dictionary> Dictionary::fromEntries(std::vector<Entry> entries) {
  return taking(entries);
}

std::optional<Dictionary> Dictionary::taking(std::span<Entry> entries) {
  return sorted(entries, false);
}

Dictionary Dictionary::takingLast(std::span<Entry> entries) {
  return *sorted(entries, true);
}

std::optional<Dictionary> Dictionary::sorted(std::span<Entry> entries, bool lastCounts) {
  Dictionary dictionary;
  if (entries.empty()) return dictionary;
  Ranking ranking(entries);
  const bool isSorted = ranking.isStrictlySorted();
  if (!isSorted) ranking.sort();
  const std::span<const Rank> ranks = ranking.ranks();
  dictionary.node_ = detail::Shared(detail::newBlock<detail::DictionaryNode, Entry>(entries.size()));
  detail::DictionaryNode& node = *dictionary.node_.get();
  Entry* to = node.begin();
  for (size_t i = 0; i < ranks.size(); ++i) {
    if (!isSorted && i + 1 < ranks.size() && ranking.hasSameKey(ranks[i], ranks[i + 1])) {
      if (!lastCounts) return std::nullopt;
      continue;
    }
    Entry& entry = entries[ranks[i].index];
    if (entry.value.isNone()) continue;
    new (to++) Entry(std::move(entry));
    ++node.count;
  }
  return dictionary;
}

}  // namespace platform
