// The keys of one section of a key file, each with its text.
#ifndef VUTIL_SRC_KEY_VALUE_MAP_H_
#define VUTIL_SRC_KEY_VALUE_MAP_H_

#include <algorithm>
#include <functional>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vutil {

// An array in the byte-wise order of the keys. Beside a tree with a node for each key it needs less
// memory and far fewer allocations, and is faster to read and to search. A new key moves what
// stands after it, which costs little beside the save that follows. (C++23 calls this
// std::flat_map, which may replace it once compilers such as those of Debian 12 have it.)
//
// If memory runs out in any of these functions, nothing has changed.
class KeyValueMap {
 public:
  struct Entry {
    std::string key, text;
  };

  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }

  // The text of a key, or null if it is absent.
  const std::string* find(const std::string& key) const {
    const auto entry = std::ranges::lower_bound(entries_, key, {}, &Entry::key);
    return entry != end() && entry->key == key ? &entry->text : nullptr;
  }

  // Stores a text under a key, new or not, and gives its place, which holds until the next change.
  const std::string* store(const std::string& key, const std::string& text) {
    const auto entry = std::ranges::lower_bound(entries_, key, {}, &Entry::key);
    if (entry == end() || entry->key != key) return &entries_.insert(entry, {key, text})->text;
    entry->text = text;
    return &entry->text;
  }

  // Adds an entry after all others, whatever its key. Before any other use, sort() must follow.
  void append(std::string_view key, std::string_view text) {
    entries_.push_back({std::string(key), std::string(text)});
  }

  // Puts appended entries in order; of those with the same key the last one stays.
  void sort() {
    const auto unordered = std::ranges::adjacent_find(entries_, std::greater_equal(), &Entry::key);
    if (unordered != end()) sort_unordered();
    entries_.shrink_to_fit();
  }

 private:
  // Sorts pointers and then moves each entry once: an entry is too large to be moved at each step.
  void sort_unordered() {
    std::vector<Entry*> order(entries_.size());
    std::iota(order.begin(), order.end(), entries_.data());
    std::sort(order.begin(), order.end(), [](const Entry* a, const Entry* b) {
      const int comparison = a->key.compare(b->key);
      return comparison != 0 ? comparison < 0 : a > b;  // of equal keys the last one first
    });
    std::vector<Entry> sorted;
    sorted.reserve(entries_.size());
    for (Entry* const entry : order) {
      if (sorted.empty() || sorted.back().key != entry->key) sorted.push_back(std::move(*entry));
    }
    entries_ = std::move(sorted);
  }

  std::vector<Entry> entries_;
};

}  // namespace vutil

#endif  // VUTIL_SRC_KEY_VALUE_MAP_H_
